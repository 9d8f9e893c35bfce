// The two ways to put a member together from blocks and records; MemberReader.h says what an engine may rely
// on.
//
// They share no state, because they differ in what they merge into what: the lenient one merges the member's
// block into the record's header, the full one what the records say into the member's header.
#include "tar/format/MemberReader.h"

#include <algorithm>

#include "runtime/fs/FileMetadata.h"
#include "runtime/log/LogBase.h"
#include "tar/format/FullExtensions.h"
#include "tar/format/PaxRecords.h"
#include "tar/format/TarBlock.h"
#include "tar/format/TarNumber.h"

namespace morvane {

namespace {

// Extension data are read whole; what is larger than this is no path.
constexpr long long kLongestLenientRecord = 100000;

// Only pax and GNU long-name records are known here; any other type, global records included, is a member of
// that name.
class LenientReader : public MemberReader {
 public:
  explicit LenientReader(Demand demand) : MemberReader(demand) {}

  // The block behind a record is parsed apart, because the record's header is what the result is made of. If
  // that block is a record itself, the merged header counts as that record's, oddly and on purpose.
  bool takeBlock(const unsigned char* block, Found& found, LogBase& log) override {
    bool endOfArchive = false;
    TarHeader& parsed = followsRecord() ? m_following : m_header;
    if (!parsed.parseFromMemory(block, endOfArchive, log)) return false;
    const char typeFlag = parsed.m_typeFlag;
    if (m_record == kTypePax) combineHeaderPaxExtended(m_following, m_header);
    if (m_record == kTypeLongName) combineHeaderLongFilename(m_following, m_header);
    m_record = '\0';
    const bool isRecord = typeFlag == kTypePax || typeFlag == kTypeLongName;
    found = endOfArchive ? Found::End : isRecord ? Found::Record : Found::Member;
    // A record's own texts stay: the next record may be merged with them.
    if (isRecord) {
      m_found.copyHeader(m_header);
    } else {
      m_found.exchangeHeader(m_header);
    }
    // Here times have 32 bits, and only those that are not 0 count as given.
    m_found.mtime = {m_header.m_mtime, 0, true};
    m_found.atime = {m_header.m_atime, 0, m_header.m_atime != 0};
    m_found.ctime = {m_header.m_ctime, 0, m_header.m_ctime != 0};
    m_found.sparseMapGoesOn = false;  // the map's blocks pass for data
    return true;
  }

  bool followsRecord() const override { return m_record != '\0'; }

  // Text up to the first NUL, which the caller has put behind the data.
  bool takeRecord(std::string_view data, LogBase& log) override {
    // What m_header was parsed from last is the record itself.
    m_record = m_header.m_typeFlag;
    if (m_record == kTypePax) return parsePaxExtendedHeader(data.data(), m_header, log);
    m_header.setWholePath(data.data());
    return true;
  }

  const char* recordName() const override {
    return m_header.m_typeFlag == kTypePax ? "PAX extended header" : "long filename header";
  }

  // The limit of the option MaxExtensionBytes is not asked here: this reader has one of its own.
  bool acceptsRecordSize(long long size, long long, LogBase& log) const override {
    if (size >= 1 && size <= kLongestLenientRecord) return true;
    log.LogError((std::string("Invalid size in ") + recordName() + ".").c_str());
    log.LogDataInt64("size", size);
    return false;
  }

  const TarHeader& header() const override { return m_header; }

 private:
  TarHeader m_header;     // of the last block; holds a record's values until the block that it is about
  TarHeader m_following;  // the block behind a record
  char m_record = '\0';   // the type flag of a record that waits for its member
};

// kNoId is no device's number either.
unsigned deviceNumber(const unsigned char* block, Field field) {
  const long long number = parseNumber(block, field).orNone(FileMetadata::kNoId);
  return static_cast<unsigned>(std::min<long long>(number, FileMetadata::kNoId));
}

// Records wait in m_extensions until a member comes, however many there are and in whatever order. The
// block's own numbers are put in place first, so that records win over them.
class FullReader : public MemberReader {
 public:
  explicit FullReader(Demand demand) : MemberReader(demand), m_extensions(demand.spreads) {}

  bool takeBlock(const unsigned char* block, Found& found, LogBase& log) override {
    bool endOfArchive = false;
    if (!m_header.parseFromMemory(block, endOfArchive, log)) return false;
    const char typeFlag = m_header.m_typeFlag;
    m_followsRecord = false;
    found = endOfArchive                             ? Found::End
            : FullExtensions::isRecord(typeFlag)     ? Found::Record
            : FullExtensions::isPassedOver(typeFlag) ? Found::PassedOver
                                                     : Found::Member;
    // Records in front of something that is no member were about that, and must not stick to the next one.
    if (found == Found::PassedOver) m_extensions.forgetNext();
    // m_found is used for one member after the other: what only records or a map give would stay from the one
    // before.
    m_found.sparse.clear();
    m_found.sparseIsWrong = false;
    m_found.isContinuation = typeFlag == kTypeMultiVolume;
    m_found.attributes.clear();
    m_found.accessList.clear();
    m_found.defaultAccessList.clear();
    m_found.lacksAttributes = false;
    if (found == Found::Member) {
      // A time before 1970 is in base-256 (GNU). The header has read it as 0, which is what the lenient
      // reader keeps.
      if (isNegative(block, kMtimeField)) m_header.m_exactMtime.seconds = parseNegative(block, kMtimeField);
      m_extensions.complete(m_header, m_found);
      // What stands there in other headers is nobody's business, and is often nothing.
      const bool isDevice = typeFlag == kTypeCharacterDevice || typeFlag == kTypeBlockDevice;
      m_found.deviceMajor = isDevice ? deviceNumber(block, kDevMajorField) : 0;
      m_found.deviceMinor = isDevice ? deviceNumber(block, kDevMinorField) : 0;
    }
    m_found.exchangeHeader(m_header);
    // The lenient reader's have 32 bits.
    // As every other tar takes it: a directory's size is a hint of how much room its files may need.
    if (found == Found::Member && typeFlag == kTypeDirectory) m_found.size = 0;
    m_found.uid = m_header.m_exactUid;
    m_found.gid = m_header.m_exactGid;
    if (found == Found::Member && demand().spreads && typeFlag == kTypeSparse) takeOldMap(block);
    return true;
  }

  bool followsRecord() const override { return m_followsRecord; }

  bool takeRecord(std::string_view data, LogBase& log) override {
    m_followsRecord = true;
    return m_extensions.take(m_found.typeFlag, data, log);
  }

  const char* recordName() const override { return "extension data"; }

  // An empty record is fine: it says nothing.
  bool acceptsRecordSize(long long size, long long most, LogBase& log) const override {
    if (size <= most) return true;
    log.LogError("Extension data too large.");
    log.LogDataInt64("size", size);
    return false;
  }

  const TarHeader& header() const override { return m_header; }

 private:
  // The block of this type has a map of its own. One of records beside it says something else of the same
  // bytes, and nobody knows which is meant.
  void takeOldMap(const unsigned char* block) {
    const bool hasOther = m_found.sparse.isSparse() || m_found.sparseIsWrong;
    m_found.sparse.clear();
    m_found.sparseIsWrong = !m_found.sparse.takeHeaderBlock(block) || hasOther;
  }

  // The texts are exchanged with m_found, and so parsed into memory that is there already.
  TarHeader m_header;
  FullExtensions m_extensions;
  bool m_followsRecord = false;
};

}  // namespace

MemberReader::~MemberReader() = default;

// The lenient one has no use for `spreads`, because it takes a sparse member's pieces for a file.
std::unique_ptr<MemberReader> MemberReader::make(Demand demand) {
  if (demand.full) return std::make_unique<FullReader>(demand);
  return std::make_unique<LenientReader>(demand);
}

// Only the byte that says whether the map goes on counts where the member is not to be spread, or its map is
// wrong: the blocks have to be passed either way.
bool MemberReader::takeSparseBlock(const unsigned char* block) {
  if (m_found.sparse.isSparse() && !m_found.sparse.addOldEntries(block, SparseMap::kEntriesInBlock)) {
    m_found.sparseIsWrong = true;
  }
  return block[kSparseGoesOnInMap] != 0;
}

}  // namespace morvane
