#include "runtime/text/CharsetDecoder.h"

#include <iconv.h>
#include <strings.h>

#include <cerrno>

namespace morvane {

namespace {

bool meansUtf8(const char* name) {
  return *name == '\0' || strcasecmp(name, "utf-8") == 0 || strcasecmp(name, "utf8") == 0;
}

}  // namespace

CharsetDecoder::CharsetDecoder(const char* charsetName) {
  if (meansUtf8(charsetName)) return;
  const iconv_t opened = iconv_open("UTF-8", charsetName);
  m_known = opened != reinterpret_cast<iconv_t>(-1);
  if (m_known) m_converter = opened;
}

CharsetDecoder::~CharsetDecoder() {
  if (m_converter) iconv_close(static_cast<iconv_t>(m_converter));
}

void CharsetDecoder::append(std::string_view bytes, std::string& utf8) {
  if (isUtf8()) {
    utf8.append(bytes);
    return;
  }
  const iconv_t converter = static_cast<iconv_t>(m_converter);
  iconv(converter, nullptr, nullptr, nullptr, nullptr);  // each name starts in the initial shift state
  char* in = const_cast<char*>(bytes.data());
  size_t inLeft = bytes.size();
  char out[512];
  while (true) {
    char* outAt = out;
    size_t outLeft = sizeof out;
    // The last call, without input, brings out what a stateful character set still holds back.
    const bool flushing = inLeft == 0;
    const size_t result = flushing ? iconv(converter, nullptr, nullptr, &outAt, &outLeft)
                                   : iconv(converter, &in, &inLeft, &outAt, &outLeft);
    const int error = result == static_cast<size_t>(-1) ? errno : 0;
    utf8.append(out, sizeof out - outLeft);
    if (error == E2BIG) continue;
    if (error != 0 && inLeft > 0) {
      utf8.push_back(*in++);
      --inLeft;
    }
    if (flushing) return;
  }
}

}  // namespace morvane
