// Extension records read as POSIX pax (IEEE 1003.1, "pax Extended Header") and GNU tar mean them, for runs
// with FullRead.
//
// Everything here comes from an archive that nobody vouches for. Lengths are checked against what is there
// before anything is cut out; a record that cannot be told apart from the next one is an error, because
// whatever follows would be read as something else; a record that is merely unknown is passed over.
#include "tar/format/FullExtensions.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "runtime/fs/FileMetadata.h"
#include "runtime/log/LogBase.h"
#include "tar/format/PaxRecordText.h"
#include "tar/format/TarBlock.h"

namespace morvane {

namespace {

// Further digits are cut off, not rounded.
constexpr unsigned kNanosecondDigits = 9;
// A global name is copied into every member. So one of megabytes would cost as much with each of a million
// members.
constexpr size_t kLongestGlobalName = 1024;

// What the system takes at most (XATTR_NAME_MAX, XATTR_SIZE_MAX); an access list of that size has 8191
// entries, for which this is room with names of an ordinary length. Directories keep theirs until the end of
// a run.
constexpr size_t kLongestAttributeName = 255, kLongestAttribute = 65536, kLongestAccessList = 262144;

// The error and the beginning of what it is about; the log makes control characters harmless.
bool malformed(LogBase& log, const char* why, std::string_view about) {
  log.LogError(why);
  log.LogData("paxRecord", std::string(about.substr(0, 100)).c_str());
  return false;
}

// Cuts the next record off the front of `data`: "LENGTH KEYWORD=VALUE\n", the length counting all of it. The
// length decides, never a newline, for values may hold newlines and NULs. A keyword may hold anything but
// "=", and has at least one byte; a value may be empty.
bool nextPaxRecord(std::string_view& data, std::string_view& keyword, std::string_view& value) {
  size_t length = 0;
  const auto number = std::from_chars(data.data(), data.data() + data.size(), length);
  const size_t digits = static_cast<size_t>(number.ptr - data.data());
  if (number.ec != std::errc() || digits >= data.size() || data[digits] != ' ') return false;
  // Our own plain pax form states one byte too few for the longest paths. So it is forgiven where the byte
  // that is missing is the last one of all data and the record's newline.
  if (length + 1 == data.size() && data[length] == '\n' && data[length - 1] != '\n') ++length;
  // Digits, a blank, one byte and a newline are the least, so that no difference below goes under 0.
  // (from_chars refuses a number over 64 bits, and takes no sign.)
  if (length > data.size() || length < digits + 3 || data[length - 1] != '\n') return false;
  const std::string_view record = data.substr(digits + 1, length - digits - 2);
  const size_t equals = record.find('=');
  if (equals == std::string_view::npos || equals == 0) return false;
  keyword = record.substr(0, equals);
  value = record.substr(equals + 1);
  data.remove_prefix(length);
  return true;
}

// Digits and nothing else, from 0 to 2^63-1. Unlike the fields of a block, pax numbers have no other form.
std::optional<long long> parseCount(std::string_view text) {
  long long value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec != std::errc() || result.ptr != text.data() + text.size() || value < 0) return std::nullopt;
  return value;
}

// For the 32-bit forms of times and ids; the exact ones keep their 63 bits.
unsigned clampTo32(long long value) {
  constexpr long long kMax = std::numeric_limits<unsigned>::max();
  return static_cast<unsigned>(value < 0 ? 0 : value > kMax ? kMax : value);
}

// Long names and links are NUL-terminated text; a pax value is not, and does not come here. GNU tar writes
// the NUL and counts it in the size.
std::string_view untilNul(std::string_view text) { return text.substr(0, text.find('\0')); }

void setOwned(std::unique_ptr<StringBuffer>& owned, const std::string& value) {
  owned = std::make_unique<StringBuffer>(value);
}

}  // namespace

// Nothing that a double would do: it has not enough digits for nanoseconds today. "1." and "-0.5" are times,
// "." and "1e9" are not. A whole part beyond 63 bits stops at the end of the range, so that the member is not
// lost for it. POSIX sets no limit to the digits of a fraction.
TarTime parsePaxTime(std::string_view text) {
  TarTime time;
  const bool negative = !text.empty() && text.front() == '-';
  if (negative) text.remove_prefix(1);
  const size_t point = std::min(text.find('.'), text.size());
  const std::string_view whole = text.substr(0, point);
  const auto result = std::from_chars(whole.data(), whole.data() + whole.size(), time.seconds);
  if (result.ptr != whole.data() + whole.size() || whole.empty() || whole.front() == '-') return TarTime();
  if (result.ec == std::errc::result_out_of_range) time.seconds = std::numeric_limits<long long>::max();
  unsigned digits = 0;
  for (size_t i = point + 1; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return TarTime();
    if (digits == kNanosecondDigits) continue;
    time.nanoseconds = time.nanoseconds * 10 + static_cast<unsigned>(text[i] - '0');
    ++digits;
  }
  for (; digits < kNanosecondDigits; ++digits) time.nanoseconds *= 10;
  if (negative) {
    time.seconds = -time.seconds;
    if (time.nanoseconds > 0) {  // nanoseconds count forward
      --time.seconds;
      time.nanoseconds = 1000000000u - time.nanoseconds;
    }
  }
  time.known = true;
  return time;
}

bool FullExtensions::isRecord(char typeFlag) {
  return typeFlag == kTypePax || typeFlag == kTypePaxGlobal || typeFlag == kTypeLongName ||
         typeFlag == kTypeLongLink;
}

// Read as members they would become files that never were any.
bool FullExtensions::isPassedOver(char typeFlag) {
  return typeFlag == kTypeVolumeLabel || typeFlag == kTypeOldNames;
}

// For another archive: global records hold for one.
void FullExtensions::clear() {
  m_global = Attributes();
  m_hasGlobal = false;
  forgetNext();
}

void FullExtensions::forgetNext() {
  m_next = Attributes();
  m_hasNext = false;
}

// Data that begin with a NUL count as none. What is taken stays even if a later record of the same data is
// malformed: the run is over then.
bool FullExtensions::take(char typeFlag, std::string_view data, LogBase& log) {
  const std::string_view text = untilNul(data);
  if (text.empty()) return true;  // says nothing
  (typeFlag == kTypePaxGlobal ? m_hasGlobal : m_hasNext) = true;
  switch (typeFlag) {
    // GNU's record wins over a pax path before it, as the later one.
    case kTypeLongName:
      m_next.path = std::string(untilNul(data));
      return true;
    case kTypeLongLink:
      m_next.linkPath = std::string(untilNul(data));
      return true;
    default:
      return takePaxRecords(data, typeFlag == kTypePaxGlobal, log);
  }
}

// A NUL where a record should begin is padding, and ends the data.
bool FullExtensions::takePaxRecords(std::string_view data, bool global, LogBase& log) {
  while (!data.empty() && data.front() != '\0') {
    std::string_view keyword, value;
    if (!nextPaxRecord(data, keyword, value)) return malformed(log, "A PAX record is malformed.", data);
    // Built only for a log that is to show it: there may be many.
    if (log.verbose()) {
      log.LogData("paxName", std::string(keyword).c_str());
      log.LogData("paxValue", std::string(value).c_str());
    }
    if (!takePaxRecord(keyword, value, global, log)) return false;
  }
  return true;
}

// A name or a size for every later member is what no writer means.
bool FullExtensions::isIgnoredGlobally(std::string_view keyword, std::string_view value, LogBase& log) {
  const bool isForOne = keyword == "path" || keyword == "linkpath" || keyword == "size";
  const bool isTooLong = (keyword == "uname" || keyword == "gname") && value.size() > kLongestGlobalName;
  if (!isForOne && !isTooLong) return false;
  log.LogNotice(isForOne ? "A global PAX record that can hold for one member only is ignored."
                         : "A global PAX record is too long to hold for every member and is ignored.");
  log.LogData("paxName", std::string(keyword).c_str());
  return true;
}

// Within one member the later of two equal keywords wins. Unknown keywords, vendors' ones included, are
// passed over as POSIX asks.
bool FullExtensions::takePaxRecord(std::string_view keyword, std::string_view value, bool global,
                                   LogBase& log) {
  if (global && isIgnoredGlobally(keyword, value, log)) return true;
  Attributes& to = global ? m_global : m_next;
  // An empty value takes the attribute back, for this member also from the global records.
  const auto note = [&](PaxField field) {
    to.takenBack = value.empty() ? to.takenBack | field : to.takenBack & ~static_cast<unsigned>(field);
    return !value.empty();
  };
  const auto takeText = [&](PaxField field, std::optional<std::string>& text) {
    text.reset();
    if (note(field)) text = std::string(value);
    return true;
  };
  const auto takeTime = [&](PaxField field, std::optional<TarTime>& time) {
    time.reset();
    if (!note(field)) return true;
    time = parsePaxTime(value);
    return time->known || malformed(log, "A PAX time is no number.", value);
  };
  const auto takeId = [&](PaxField field, std::optional<long long>& id) {
    id.reset();
    // Ids beyond any range are no reason to lose the member: it then keeps the owner that it gets.
    if (note(field)) id = parseCount(value).value_or(FileMetadata::kNoId);
    return true;
  };
  if (keyword == "path") return takeText(PAX_PATH, to.path);
  if (keyword == "linkpath") return takeText(PAX_LINKPATH, to.linkPath);
  if (keyword == "uname") return takeText(PAX_UNAME, to.userName);
  if (keyword == "gname") return takeText(PAX_GNAME, to.groupName);
  if (keyword == "mtime") return takeTime(PAX_MTIME, to.mtime);
  if (keyword == "atime") return takeTime(PAX_ATIME, to.atime);
  if (keyword == "ctime") return takeTime(PAX_CTIME, to.ctime);
  if (keyword == "uid") return takeId(PAX_UID, to.uid);
  if (keyword == "gid") return takeId(PAX_GID, to.gid);
  if (keyword == "size") {
    // An empty size takes back the record's alone; the block always has one.
    to.size = parseCount(value);
    // A size that is taken for another one would find the next header in the wrong place, hence the failure.
    return to.size || value.empty() || malformed(log, "A PAX size is no number.", value);
  }
  // What is left is about one member alone, whatever a global record says.
  if (global || takeAttribute(keyword, value, to)) return true;
  constexpr std::string_view kSparse = "GNU.sparse.";
  if (m_spreads && keyword.substr(0, kSparse.size()) == kSparse) {
    takeSparseRecord(keyword.substr(kSparse.size()), value, to);
  }
  return true;
}

// The forms that GNU tar, bsdtar and star have in common. A name would end at a NUL, and be another one.
bool FullExtensions::takeAttribute(std::string_view keyword, std::string_view value, Attributes& to) {
  constexpr std::string_view kXattr = "SCHILY.xattr.";
  if (keyword.substr(0, kXattr.size()) == kXattr) {
    std::string name = unescapedKeyword(keyword.substr(kXattr.size()));
    const bool isUsable = name.size() <= kLongestAttributeName && name.find('\0') == std::string::npos &&
                          value.size() <= kLongestAttribute;
    to.lacksAttributes |= !isUsable;
    // What cannot be set is left out and told with the member, which is not lost for it.
    if (isUsable) to.attributes.push_back({std::move(name), std::string(value)});
    return true;
  }
  const bool isAccess = keyword == "SCHILY.acl.access";
  if (!isAccess && keyword != "SCHILY.acl.default") return false;
  const bool isUsable = value.size() <= kLongestAccessList;
  to.lacksAttributes |= !isUsable;
  if (isUsable) (isAccess ? to.accessList : to.defaultAccessList) = value;
  return true;
}

// The keywords of all three forms (GNU tar's manual, "Sparse Formats"): 0.0 has offset and numbytes in turns,
// 0.1 a map, 1.0 major and realsize, with the ranges in the data. numblocks says how many ranges the first
// two have; the minor number tells nothing more. Nonsense is noted and not a failure, because the member may
// not be wanted: whoever places it refuses it.
void FullExtensions::takeSparseRecord(std::string_view keyword, std::string_view value, Attributes& to) {
  const std::optional<long long> count = parseCount(value);
  if (keyword == "name") {
    to.sparseName = std::string(value);
  } else if (keyword == "map") {
    to.sparseList = std::string(value);
  } else if (keyword == "size" || keyword == "realsize") {
    to.sparseSize = count;
    to.sparseIsWrong |= !count;
  } else if (keyword == "numblocks") {
    to.sparseCount = count;
    to.sparseIsWrong |= !count;
  } else if (keyword == "major") {
    to.sparseMapIsInData = value == "1";
  } else if (keyword == "offset") {
    to.sparseIsWrong |= !count || to.sparseOffset;  // the one before had no length
    // A length may follow with the next record only.
    to.sparseOffset = count;
  } else if (keyword == "numbytes") {
    // They are kept before the file's size is known, so that SparseMap's own limit would come too late.
    const bool fits = static_cast<long long>(to.sparseRanges.size()) < SparseMap::kMostRanges;
    to.sparseIsWrong |= !count || !to.sparseOffset || !fits;
    if (!to.sparseIsWrong) to.sparseRanges.push_back({*to.sparseOffset, *count});
    to.sparseOffset.reset();
  }
}

// Global records first, so that the member's own win; what an empty value of the member's own took back is
// left out of the global ones. Where neither says anything the block's own stays.
void FullExtensions::complete(TarHeader& header, Member& member) {
  if (m_hasGlobal) apply(m_global, m_next.takenBack, header);
  if (m_hasNext) {
    apply(m_next, 0, header);
    // A header has no place for these.
    member.attributes = std::move(m_next.attributes);
    member.accessList = std::move(m_next.accessList);
    member.defaultAccessList = std::move(m_next.defaultAccessList);
    member.lacksAttributes = m_next.lacksAttributes;
    // An offset without its length, or a map in the data of a file whose size nobody told.
    m_next.sparseIsWrong |= m_next.sparseOffset || (m_next.sparseMapIsInData && !m_next.sparseSize);
    if (m_next.sparseSize || m_next.sparseIsWrong) spread(header, member);
    forgetNext();
  }
  // As other tars do: before ustar, a directory was an empty file whose name ends in a slash.
  const bool regular = header.m_typeFlag == kTypeRegular || header.m_typeFlag == kTypeOldRegular;
  const std::string& path = header.m_path.str();
  if (regular) header.m_isDirectory = header.m_size == 0 && !path.empty() && path.back() == '/';
  // With a listing of what was in it for its data, which are passed over.
  if (header.m_typeFlag == kTypeDumpDir) header.m_isDirectory = true;
}

// The name is put in place also where the map is wrong, for the messages about the member. The ranges are
// checked only here, because the size that bounds them may stand behind them among the records.
void FullExtensions::spread(TarHeader& header, Member& member) {
  if (m_next.sparseName && !m_next.sparseName->empty()) {
    // It comes behind apply, and so wins over the path, which is the stand-in's.
    header.setWholePath(m_next.sparseName->data(), static_cast<unsigned>(m_next.sparseName->size()));
  }
  member.sparseIsWrong = m_next.sparseIsWrong;
  if (member.sparseIsWrong) return;
  if (m_next.sparseMapIsInData) {
    member.sparse.beginInData(*m_next.sparseSize);
    return;
  }
  member.sparse.begin(*m_next.sparseSize);
  bool ok = true;
  for (const SparseRange& range : m_next.sparseRanges)
    ok = ok && member.sparse.add(range.offset, range.length);
  if (m_next.sparseList) ok = ok && member.sparse.addList(*m_next.sparseList);
  // A map that is cut would leave zeros in the place of data.
  const auto ranges = static_cast<long long>(member.sparse.ranges().size());
  ok = ok && m_next.sparseCount.value_or(ranges) == ranges;
  member.sparseIsWrong = !ok;
}

// The path is given its length, because a pax path may hold a NUL; whoever makes a file of it refuses that.
// Path, link path and size have no exceptions, because a global record never holds them.
void FullExtensions::apply(const Attributes& attributes, unsigned except, TarHeader& member) {
  const auto counts = [except](PaxField field) { return (except & field) == 0; };
  const auto setTime = [&](PaxField field, const std::optional<TarTime>& time, TarTime& exact,
                           unsigned& seconds) {
    if (!time || !counts(field)) return;
    exact = *time;
    seconds = clampTo32(time->seconds);
  };
  if (attributes.path) {
    member.setWholePath(attributes.path->data(), static_cast<unsigned>(attributes.path->size()));
  }
  if (attributes.linkPath) setOwned(member.m_linkPath, *attributes.linkPath);
  if (attributes.userName && counts(PAX_UNAME)) setOwned(member.m_userName, *attributes.userName);
  if (attributes.groupName && counts(PAX_GNAME)) setOwned(member.m_groupName, *attributes.groupName);
  const auto setId = [&](PaxField field, const std::optional<long long>& id, long long& exact,
                         unsigned& in32) {
    if (!id || !counts(field)) return;
    exact = *id;
    in32 = clampTo32(*id);
  };
  setId(PAX_UID, attributes.uid, member.m_exactUid, member.m_uid);
  setId(PAX_GID, attributes.gid, member.m_exactGid, member.m_gid);
  // This is the size that the data are read and passed over by; the one in the block no longer counts.
  if (attributes.size) member.m_size = *attributes.size;
  setTime(PAX_MTIME, attributes.mtime, member.m_exactMtime, member.m_mtime);
  setTime(PAX_ATIME, attributes.atime, member.m_exactAtime, member.m_atime);
  setTime(PAX_CTIME, attributes.ctime, member.m_exactCtime, member.m_ctime);
}

}  // namespace morvane
