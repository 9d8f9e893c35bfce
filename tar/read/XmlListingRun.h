// Lists every header of an archive as XML, records included, each under its own name: nothing is merged. For
// ListXml alone; listings that reading methods capture are made by their engines.
#pragma once

#include <string>

#include "runtime/io/Io.h"
#include "tar/format/NameDecoder.h"
#include "tar/read/ArchiveCursor.h"
#include "tar/settings/LiveSettings.h"
#include "tar/settings/ReadSettings.h"

namespace morvane {

class TarHeader;
struct Member;

// One run for each object, on the caller's stack; the source is not owned. Properties set by a callback
// (Charset, AbortCheckMs) hold from the next header on. It sends no events of its own but the questions
// whether to abort.
class XmlListingRun {
 public:
  XmlListingRun(_mvDataSource& source, LiveSettings<ReadSettings> settings, const Io& io)
      : m_source(source), m_live(std::move(settings)), m_io(io), m_cursor(source, io.monitor) {
    m_live.refresh();
  }

  // Replaces `xml` by the listing. With a drain (which may be null), what has come together goes there now
  // and then, so that a listing of any length takes no memory; the last of it stays in `xml`. True if the
  // end-of-archive mark was reached; the listing is closed in any case. Called once. `xml` is also where the
  // caller finds what was listed before a failure.
  bool run(XString& xml, _mvOutput* drain);

 private:
  // One header and the data of its record. False, with the reason in the log, when it cannot be read.
  // `header` and `shown` are the run's, used again for each.
  bool nextHeader(TarHeader& header, Member& shown, XString& xml, bool& atEnd);
  // Empties `xml` into the drain. False when that refuses it. What was handed over is not kept.
  bool drainInto(_mvOutput& drain, XString& xml);

  // Borrowed for the run, which reads it from where it stands.
  _mvDataSource& m_source;
  // Charset, and whether to ask for an abort.
  LiveSettings<ReadSettings> m_live;
  const Io m_io;
  // Behind the header, and then behind its data.
  ArchiveCursor m_cursor;
  // Names are shown in UTF-8, by Charset as it is at the header. It says an unknown one once.
  NameDecoder m_names;
};

}  // namespace morvane
