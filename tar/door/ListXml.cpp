// ClsTar's XML listings: ListXml, and the frame of those captured while reading.
#include "runtime/base/ScopeExit.h"
#include "tar/door/ClsTarMethod.h"
#include "tar/format/Member.h"
#include "tar/format/NameDecoder.h"
#include "tar/format/TarBlock.h"
#include "tar/format/XmlEntry.h"
#include "tar/format/XmlListing.h"
#include "tar/read/ArchiveCursor.h"

namespace morvane {

namespace {

constexpr long long kLongestListedData = 99999;
constexpr unsigned kDrainAt = 64 * 1024;

// The data of an 'x' or 'L' header, NUL-terminated behind what could be read. Data that are cut do not fail a
// listing.
void readListedData(_mvDataSource& source, const TarHeader& header, ArchiveCursor& cursor,
                    ProgressMonitor* pm, LogBase& log, std::string& data) {
  const unsigned size = static_cast<unsigned>(header.m_size);
  data.assign(size + 16, '\0');
  unsigned numRead = 0;
  const bool ok = source.readFully(&data[0], size, numRead, pm, log);
  cursor.passed(numRead);
  data.resize(numRead);
  if (!ok || numRead < size) log.LogError("Failed to read long filename after TAR header.");
}

bool hasListedData(const TarHeader& header) {
  const bool record = header.m_typeFlag == kTypePax || header.m_typeFlag == kTypeLongName;
  return record && header.m_size >= 1 && header.m_size <= kLongestListedData;
}

}  // namespace

bool ClsTar::ListXml(const XString& tarPath, XString& outXml, ProgressEvent* progress) {
  return method("ListXml", MethodForm::Judged, false, [&](MethodFrame&) {
    m_log.LogDataX("tarPath", tarPath);
    ProgressMonitorPtr waiting(progress, m_abortCheckMs, m_percentScale, 0);
    _mvFileDataSource file;
    const bool opened = file.openDataSourceFile(tarPath, m_log, waiting.getPm());
    outXml.clear();  // only now: it may be the path, too
    return opened && listXml(file, outXml, nullptr, progress);
  });
}

bool ClsTar::ListXml(_mvDataSource& source, XString& outXml, ProgressEvent* progress) {
  return method("ListXml", MethodForm::Judged, false, [&](MethodFrame&) {
    outXml.clear();
    return listXml(source, outXml, nullptr, progress);
  });
}

bool ClsTar::ListXml(_mvDataSource& source, _mvOutput& outXml, ProgressEvent* progress) {
  return method("ListXml", MethodForm::Judged, false, [&](MethodFrame&) {
    XString text;
    _mvIoParams io;
    // What was listed before a failure is written too, with its end.
    const bool listed = listXml(source, text, &outXml, progress);
    return outXml._writeBytes(text.getUtf8(), text.getSizeUtf8(), io, m_log) && listed;
  });
}

// With a drain, what has come together goes there now and then; the last of it is the caller's.
bool ClsTar::listXml(_mvDataSource& source, XString& outXml, _mvOutput* drain, ProgressEvent* progress) {
  ProgressMonitorPtr monitor(progress, m_abortCheckMs, m_percentScale, 0);
  ProgressMonitor* const pm = monitor.getPm();
  NameDecoder names;
  CharsetDecoder& decoder = names.forCharset(m_charset.str(), m_log);
  outXml.setFromUtf8(kXmlListingStart);
  ScopeExit close([&outXml] { endXmlListing(outXml); });
  ArchiveCursor cursor(source, pm, m_log);
  TarHeader header;
  Member shown;
  unsigned char block[kBlockSize];
  while (true) {
    if (pm && m_abortCheckMs != 0 && pm->abortCheck(m_log)) {
      m_log.LogError("Aborted by application.");
      return false;
    }
    header.clear();
    bool endOfArchive = false;
    if (!header.parseFromDataSource(source, block, endOfArchive, m_log, pm)) return false;
    if (endOfArchive) return true;
    if (m_log.verbose()) {
      StringBuffer fields;
      TarHeader::getFieldsQP(block, fields);
      outXml.appendUtf8("\t\t<qp><![CDATA[");
      outXml.appendUtf8(fields.getString());
      outXml.appendUtf8("]]></qp>\r\n");
    }
    cursor.passed(kBlockSize);
    const long long dataPosition = cursor.position();
    std::string data;
    const bool hasData = hasListedData(header);
    if (hasData) readListedData(source, header, cursor, pm, m_log, data);
    shown.exchangeHeader(header);
    toXmlEntry(shown, outXml, hasData ? data.c_str() : nullptr, decoder);
    if (drain && outXml.getSizeUtf8() >= kDrainAt) {
      if (!drain->writeBytesPM(outXml.getUtf8(), outXml.getSizeUtf8(), pm, m_log)) return false;
      outXml.clear();
    }
    if (!cursor.moveTo(saturatedSum(dataPosition, paddedSize(header.m_size)))) return false;
  }
}

void ClsTar::xmlListingInit() {
  const StepGuard step(*this);
  if (!step) return;
  if (m_captureXmlListing) m_xmlListing.setFromUtf8(kXmlListingStart);
}

void ClsTar::xmlListingFinish() {
  const StepGuard step(*this);
  if (!step) return;
  if (m_captureXmlListing) endXmlListing(m_xmlListing);
}

}  // namespace morvane
