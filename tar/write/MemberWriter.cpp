// What the header cannot hold goes into records in front of it: GNU's for paths and link texts, pax records
// for anything. FormatLimits decides which; here they are put into blocks.
#include "tar/write/MemberWriter.h"

#include "runtime/fs/OsFile.h"
#include "runtime/log/LogContextExitor.h"
#include "tar/format/PaxRecordText.h"
#include "tar/format/TarBlock.h"
#include "tar/format/TarNumber.h"

namespace morvane {

namespace {

// The name that GNU tar gives these records, by which readers without support for them show what they are.
constexpr std::string_view kLongLinkName = "././@LongLink";

// The words that bend a format's rules, as tar/format knows them.
FormatRules rulesOf(const TarOptions& options) {
  return {options.ustarPlainPrefix, options.ustarOverflowFails, options.paxExact};
}

// Paths that are too long have a tag of their own, by which applications find them.
bool refuse(const char* why, const Member& member, bool isPath, const Io& io) {
  io.fail(why);
  io.log.LogData(isPath ? "filePathTooLong" : "filePathInTar", member.path.c_str());
  return false;
}

}  // namespace

MemberEncoding MemberWriter::encode(const Member& member) const {
  return encodingOf(member, m_run.settings.format, rulesOf(m_run.settings.options));
}

// Everything that can be refused is refused before the first record is out.
bool MemberWriter::writeHeader(const Member& member, const MemberEncoding& encoding) {
  LogContextExitor context(m_run.io.log, "writeTarHeaderToOutput");
  if (hasNul(member.path) || hasNul(member.linkPath)) return m_run.io.fail(kNulInPath);
  if (m_run.io.log.verbose()) m_run.io.log.LogData("filePathInTar", member.path.c_str());
  if (encoding.refusal) return refuse(encoding.refusal, member, encoding.pathIsRefused, m_run.io);
  if (!writeRecords(member, encoding)) return false;
  // Every field of it is set: nothing of the stack gets into an archive.
  unsigned char block[kBlockSize];
  encodeHeaderBlock(member, {encoding.name, encoding.prefix},
                    m_run.settings.format == WriteFormat::Gnu ? TarMagic::Gnu : TarMagic::Ustar, block);
  if (!m_run.archive.m_output) return m_run.io.fail("No output object for writing file to tar..");
  return member.typeFlag == kTypeSparse ? putWithMap(member.sparse, block) : m_run.put(block, kBlockSize);
}

// GNU's form of a sparse member: the map begins in the header block and goes on in blocks behind it. The
// checksum is put anew, since the map changes the block behind it.
bool MemberWriter::putWithMap(const SparseMap& map, unsigned char* block) {
  size_t ranges = SparseMap::kEntriesInHeader;
  bool goesOn = map.putOldEntries(0, SparseMap::kEntriesInHeader, block + SparseMap::kFirstInHeader);
  block[kSparseGoesOnInHeader] = goesOn;
  putNumber(block, {SparseMap::kRealSizeInHeader, 12}, map.realSize());
  putChecksum(block);
  if (!m_run.put(block, kBlockSize)) return false;
  while (goesOn) {
    unsigned char further[kBlockSize] = {};
    goesOn = map.putOldEntries(ranges, SparseMap::kEntriesInBlock, further);
    further[kSparseGoesOnInMap] = goesOn;
    ranges += SparseMap::kEntriesInBlock;
    if (!m_run.put(further, kBlockSize)) return false;
  }
  return true;
}

// The link text first, then the path, as GNU tar writes them; readers take either order.
bool MemberWriter::writeRecords(const Member& member, const MemberEncoding& encoding) {
  const LogBase& log = m_run.io.log;
  if (encoding.needsLongLink && !writeLongText(member, kTypeLongLink, member.linkPath)) return false;
  if (encoding.needsLongName) {
    if (log.verbose()) m_run.io.log.LogInfo("Writing LongLink header..");
    if (!writeLongName(member)) return false;
  }
  if (encoding.paxRecords.empty()) return true;
  if (log.verbose() && encoding.pathNeedsPax) m_run.io.log.LogInfo("Writing PAX header..");
  return writePax(member, encoding.paxRecords);
}

// Also for the step of that name, which takes any path, short ones too.
bool MemberWriter::writeLongName(const Member& member) {
  return writeLongText(member, kTypeLongName, member.path);
}

// Whatever the archive's format is, the record is GNU's. Its ids, mode and time are zero, since they say
// nothing of a member. The NUL behind the text counts in the size.
bool MemberWriter::writeLongText(const Member& member, char typeFlag, const std::string& text) {
  if (!m_run.archive.m_output) return m_run.io.fail("No output object for writing file to tar.");
  m_record.mode = 0;
  m_record.uid = m_record.gid = 0;
  m_record.mtime = TarTime();
  m_record.typeFlag = typeFlag;
  m_record.userName = member.userName;
  m_record.groupName = member.groupName;
  return putRecord(m_record, kLongLinkName, TarMagic::Gnu, text + '\0');
}

// Alone, for the step of that name.
bool MemberWriter::writePaxPath(const Member& member) {
  return writePax(member, paxPathRecord(member.path, m_run.settings.options.paxExact));
}

// The record's own header has the member's path, cut to what fits: no reader that knows the type looks at it.
bool MemberWriter::writePax(const Member& member, const std::string& records) {
  if (!m_run.archive.m_output) return false;
  // FileMode also for a script: only the member's own header has ScriptFileMode. What has no octal form is in
  // the records, if anywhere.
  const int mode = member.isDirectory ? m_run.settings.dirMode : m_run.settings.fileMode;
  m_record.mode = static_cast<unsigned>(mode) & kMostOctal;
  m_record.uid = member.uid & kMostOctal;
  m_record.gid = member.gid & kMostOctal;
  m_record.mtime = member.mtime;
  m_record.typeFlag = kTypePax;
  m_record.userName.clear();
  m_record.groupName.clear();
  return putRecord(m_record, member.path, TarMagic::Ustar, records);
}

// A header block, then data, then zeros up to the next block. A record is an entry like any other to a reader
// that does not know its type, and is padded like one.
bool MemberWriter::putRecord(const Member& record, std::string_view name, TarMagic magic,
                             const std::string& data) {
  m_record.size = static_cast<long long>(data.size());
  unsigned char block[kBlockSize];
  encodeHeaderBlock(record, {name, ""}, magic, block);
  return m_run.put(block, kBlockSize) && m_run.put(data) && m_run.putZeros(paddingAfter(m_record.size));
}

}  // namespace morvane
