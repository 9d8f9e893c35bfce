// ClsTar's XML listings: ListXml, and the frame of those captured while reading.
#include "runtime/io/OutputFlush.h"
#include "tar/door/ClsTarInner.h"
#include "tar/format/XmlListing.h"
#include "tar/read/XmlListingRun.h"

namespace morvane {

// Waiting for a FIFO to be opened can be aborted as well; so there is a monitor before there is a source.
bool ClsTar::ListXml(const XString& tarPath, XString& outXml, ProgressEvent* progress) {
  return m_inner->method("ListXml", MethodForm::Judged, false, [&](MethodFrame&) {
    m_log.LogDataX("tarPath", tarPath);
    ProgressMonitorPtr waiting(progress, m_abortCheckMs, m_percentScale, 0);
    _mvFileDataSource file;
    const bool opened = file.openDataSourceFile(tarPath, m_log, waiting.getPm());
    outXml.clear();  // only now: it may be the path, too
    return opened && m_inner->listXml(file, outXml, nullptr, progress);
  });
}

// A source cannot be the listing.
bool ClsTar::ListXml(_mvDataSource& source, XString& outXml, ProgressEvent* progress) {
  return m_inner->method("ListXml", MethodForm::Judged, false, [&](MethodFrame&) {
    outXml.clear();
    return m_inner->listXml(source, outXml, nullptr, progress);
  });
}

bool ClsTar::ListXml(_mvDataSource& source, _mvOutput& outXml, ProgressEvent* progress) {
  return m_inner->method("ListXml", MethodForm::Judged, false, [&](MethodFrame&) {
    XString text;
    // Here goes what the run has kept back for less than a write's worth, with the closing tags. There is no
    // monitor, because the listing of an aborted call is to be closed as well.
    _mvIoParams io;
    OutputFlush flush(outXml, nullptr);
    // What was listed before a failure is written too, with its end.
    const bool listed = m_inner->listXml(source, text, &outXml, progress);
    return outXml._writeBytes(text.getUtf8(), text.getSizeUtf8(), io, m_log) && listed && flush.finish(m_log);
  });
}

// Without a total, because a listing seeks over the data and has nothing to count.
bool ClsTar::Inner::listXml(_mvDataSource& source, XString& outXml, _mvOutput* drain,
                            ProgressEvent* progress) {
  ProgressMonitorPtr monitor(progress, m_abortCheckMs, m_percentScale, 0);
  return XmlListingRun(source, liveReadSettings(), Io(m_log, monitor.getPm())).run(outXml, drain);
}

// The two steps with which an application frames a listing of its own making; without CaptureXmlListing they
// leave it alone. They have no result, so that a call out of a callback is ignored without a word.
void ClsTar::xmlListingInit() {
  const StepGuard step(*this);
  if (!step) return;
  if (m_inner->m_captureXmlListing) m_inner->m_xmlListing.setFromUtf8(kXmlListingStart);
}

void ClsTar::xmlListingFinish() {
  const StepGuard step(*this);
  if (!step) return;
  if (m_inner->m_captureXmlListing) endXmlListing(m_inner->m_xmlListing);
}

}  // namespace morvane
