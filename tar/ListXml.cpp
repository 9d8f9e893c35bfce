// ClsTar's XML listings: ListXml, and the frame of those captured while reading.
#include "runtime/base/ScopeExit.h"
#include "tar/ArchiveCursor.h"
#include "tar/ClsTarMethod.h"
#include "tar/NameDecoder.h"
#include "tar/TarBlock.h"
#include "tar/XmlEntry.h"
#include "tar/XmlListing.h"

namespace morvane {

namespace {

constexpr long long kLongestListedData = 99999;

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
    outXml.clear();
    m_log.LogDataX("tarPath", tarPath);
    ProgressMonitorPtr waiting(progress, m_abortCheckMs, m_percentScale, 0);
    _mvFileDataSource file;
    return file.openDataSourceFile(tarPath, m_log, waiting.getPm()) && listXml(file, outXml, progress);
  });
}

bool ClsTar::ListXml(_mvDataSource& source, XString& outXml, ProgressEvent* progress) {
  return method("ListXml", MethodForm::Judged, false, [&](MethodFrame&) {
    outXml.clear();
    return listXml(source, outXml, progress);
  });
}

bool ClsTar::listXml(_mvDataSource& source, XString& outXml, ProgressEvent* progress) {
  ProgressMonitorPtr monitor(progress, m_abortCheckMs, m_percentScale, 0);
  ProgressMonitor* const pm = monitor.getPm();
  NameDecoder names;
  CharsetDecoder& decoder = names.forCharset(m_charset.str(), m_log);
  outXml.setFromUtf8(kXmlListingStart);
  ScopeExit close([&outXml] { endXmlListing(outXml); });
  ArchiveCursor cursor(source, pm, m_log);
  TarHeader header;
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
    toXmlEntry(header, outXml, hasData ? data.c_str() : nullptr, decoder);
    cursor.moveTo(saturatedSum(dataPosition, paddedSize(header.m_size)));
  }
}

void ClsTar::xmlListingInit() {
  if (m_captureXmlListing) m_xmlListing.setFromUtf8(kXmlListingStart);
}

void ClsTar::xmlListingFinish() {
  if (m_captureXmlListing) endXmlListing(m_xmlListing);
}

}  // namespace morvane
