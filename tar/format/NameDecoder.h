// Decodes the names of one archive from the Charset property; an unknown character set is said once a run.
#pragma once

#include <memory>
#include <string>

#include "runtime/log/LogBase.h"
#include "runtime/text/CharsetDecoder.h"

namespace morvane {

// A decoder costs the system a look at its tables, so it is kept from name to name and made anew when a
// callback has changed the property. Owned by a run; one thread. Names are decoded nowhere else: members keep
// their bytes as stored, because path rules, links and records go by bytes.
class NameDecoder {
 public:
  // The decoder for a character set, made again only when it is another than the last time. Valid until the
  // next call. `charset` is a name that iconv knows, in any case; an unknown one is no failure, because a
  // listing of names read wrongly is worth more than none. Throws std::bad_alloc only.
  CharsetDecoder& forCharset(const std::string& charset, LogBase& log) {
    if (m_decoder && m_charset == charset) return *m_decoder;
    m_decoder = std::make_unique<CharsetDecoder>(charset.c_str());
    m_charset = charset;
    if (!m_decoder->isKnown()) {
      // Once for each decoder that is made, and so not with every name.
      log.LogNotice("The character set is not known; names are read as utf-8.");
      log.LogData("charset", charset.c_str());
    }
    return *m_decoder;
  }

 private:
  // Null until it is asked for first. It is replaced as a whole, since a decoder is for one character set.
  std::unique_ptr<CharsetDecoder> m_decoder;
  // What m_decoder is for.
  std::string m_charset;
};

}  // namespace morvane
