// The listing shows what is in the archive, block by block, for people who look for what is wrong with one:
// hence no merging, and data of records beside their headers.
#include "tar/read/XmlListingRun.h"

#include "runtime/base/ScopeExit.h"
#include "runtime/io/Abort.h"
#include "runtime/io/_mvOutput.h"
#include "tar/format/Member.h"
#include "tar/format/XmlEntry.h"
#include "tar/format/XmlListing.h"

namespace morvane {

namespace {

// A record's data are shown up to here; longer ones are passed over as data are. An XML viewer is no place
// for more.
constexpr long long kLongestListedData = 99999;
// Enough at a time for few writes, and little to hold.
constexpr unsigned kDrainAt = 64 * 1024;

// The data of an 'x' or 'L' header, NUL-terminated behind what could be read. Data that are cut do not fail a
// listing: it shows what is there, and it is the next header that fails.
void readListedData(_mvDataSource& source, const TarHeader& header, ArchiveCursor& cursor, const Io& io,
                    std::string& data) {
  const unsigned size = static_cast<unsigned>(header.m_size);
  // At most kLongestListedData, so that the claim may be allocated at once.
  data.assign(size + 16, '\0');
  unsigned numRead = 0;
  const bool ok = source.readFully(&data[0], size, numRead, io.monitor, io.log);
  cursor.passed(numRead);
  data.resize(numRead);
  if (!ok || numRead < size) io.fail("Failed to read long filename after TAR header.");
}

// GNU's long names of links ('K') and global records ('g') are shown without.
bool hasListedData(const TarHeader& header) {
  const bool record = header.m_typeFlag == kTypePax || header.m_typeFlag == kTypeLongName;
  return record && header.m_size >= 1 && header.m_size <= kLongestListedData;
}

}  // namespace

// The closing tags are written in any case, so that what is there can be parsed.
bool XmlListingRun::run(XString& xml, _mvOutput* drain) {
  TarHeader header;
  Member shown;
  xml.setFromUtf8(kXmlListingStart);
  // Also when a callback throws.
  ScopeExit close([&xml] { endXmlListing(xml); });
  while (true) {
    m_live.refresh();
    if (m_io.monitor && m_live.now().abortCheckMs != 0 && m_io.monitor->abortCheck(m_io.log)) {
      return logAborted(m_io.log);
    }
    bool atEnd = false;
    if (!nextHeader(header, shown, xml, atEnd)) return false;
    if (atEnd) return true;
    if (drain && xml.getSizeUtf8() >= kDrainAt && !drainInto(*drain, xml)) return false;
  }
}

// In a verbose log's listing each header also has its raw bytes, quoted-printable. The position behind the
// header is noted before the data are read, since a cut record is left at any place and the next header is
// sought from there. A header and a member are handed in, so that their texts keep their memory from one to
// the next.
bool XmlListingRun::nextHeader(TarHeader& header, Member& shown, XString& xml, bool& atEnd) {
  unsigned char block[kBlockSize];
  header.clear();
  if (!header.parseFromDataSource(m_source, block, atEnd, m_io.log, m_io.monitor)) return false;
  if (atEnd) return true;
  if (m_io.log.verbose()) {
    StringBuffer fields;
    TarHeader::getFieldsQP(block, fields);
    xml.appendUtf8("\t\t<qp><![CDATA[");
    xml.appendUtf8(fields.getString());
    xml.appendUtf8("]]></qp>\r\n");
  }
  m_cursor.passed(kBlockSize);
  const long long dataPosition = m_cursor.position();
  std::string data;
  const bool hasData = hasListedData(header);
  if (hasData) readListedData(m_source, header, m_cursor, m_io, data);
  shown.exchangeHeader(header);
  toXmlEntry(shown, xml, hasData ? data.c_str() : nullptr,
             m_names.forCharset(m_live.now().charset, m_io.log));
  return m_cursor.moveTo(saturatedSum(dataPosition, paddedSize(header.m_size)), m_io.log);
}

// Cleared only when it was taken: a failed output leaves the rest for the caller to see.
bool XmlListingRun::drainInto(_mvOutput& drain, XString& xml) {
  if (!drain.writeBytesPM(xml.getUtf8(), xml.getSizeUtf8(), m_io.monitor, m_io.log)) return false;
  xml.clear();
  return true;
}

}  // namespace morvane
