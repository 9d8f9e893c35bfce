// What goes where when a member is written: into the block, into a record in front of it, or nowhere. Each
// format is asked once, before anything is written, so that a member that it cannot hold leaves no trace in
// the archive.
#include "tar/format/FormatLimits.h"

#include "runtime/fs/OsFile.h"
#include "tar/format/Member.h"
#include "tar/format/PaxRecordText.h"
#include "tar/format/TarBlock.h"
#include "tar/format/TarNumber.h"
#include "tar/format/UstarSplit.h"

namespace morvane {

namespace {

// Seven octal digits: 0 to 2,097,151.
bool fitsIds(const Member& member) {
  return hasOctalForm(kUidField, member.uid) && hasOctalForm(kGidField, member.gid);
}

// Null if the path could be cut in two. The views of `encoding` then point into the member's path. By default
// the prefix keeps its slash and may have more than the field's 155 bytes (see HeaderBlock.h for what becomes
// of it), because equal input is to give equal archives in every version.
const char* splitIntoBlock(const Member& member, const FormatRules& rules, MemberEncoding& encoding) {
  const UstarSplit split = splitUstarPath(member.path);
  if (split.error) return split.error;
  encoding.name = split.name;
  encoding.prefix = split.prefix;
  if (rules.ustarPlainPrefix && !encoding.prefix.empty()) {
    encoding.prefix.remove_suffix(1);
    // Without its slash, that of an absolute path would be gone.
    if (encoding.prefix.empty()) return kUstarCannotSplit;
  }
  const bool overflows = rules.ustarOverflowFails && encoding.prefix.size() > kPrefixField.width;
  return overflows ? kUstarCannotSplit : nullptr;
}

// Names go into fields and records that end in a NUL, and a link without a text is none to any reader. Only
// an event can make such a member of one that was found on the disk.
const char* whyNowhere(const Member& member) {
  if (hasNul(member.path) || hasNul(member.linkPath)) return kNulInPath;
  const bool isLink = member.isSymbolicLink() || member.isHardLink();
  return isLink && member.linkPath.empty() ? "A link cannot be stored without where it leads." : nullptr;
}

// The size is not asked about, because every reader takes it in base-256. User and group names
// that are too long are left out; the numbers stay.
const char* whyNotInUstar(const Member& member) {
  if (!fitsIds(member)) return "The ustar format cannot hold a user or group id over 2097151.";
  if (!hasOctalForm(kMtimeField, member.mtime.seconds)) {
    return "The ustar format cannot hold the time of the member.";
  }
  if (member.linkPath.size() > kLinkNameField.width) {
    return "The ustar format cannot hold a link of more than 100 bytes.";
  }
  if (!hasOctalForm(kDevMajorField, member.deviceMajor) ||
      !hasOctalForm(kDevMinorField, member.deviceMinor)) {
    return "The ustar format cannot hold the number of the device.";
  }
  return nullptr;
}

// As GNU tar names them, so that readers which know nothing of holes keep the pieces apart from other files.
std::string sparseStandIn(const std::string& path) {
  const size_t slash = path.rfind('/');
  const size_t last = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(0, last) + "GNUSparseFile.0/" + path.substr(last);
}

// Last of all, because a reader that ends records at newlines would take a value that holds some for records.
void addAttributes(const Member& member, std::string& records) {
  if (!member.accessList.empty()) appendPaxRecord("SCHILY.acl.access", member.accessList, records);
  if (!member.defaultAccessList.empty())
    appendPaxRecord("SCHILY.acl.default", member.defaultAccessList, records);
  for (const MemberAttribute& attribute : member.attributes) {
    appendPaxRecord("SCHILY.xattr." + escapedKeyword(attribute.name), attribute.value, records);
  }
}

// Everything that the block cannot hold exactly, as pax records, by the keywords of POSIX. Fields that fit
// are left to the block alone, so that archives stay as small as without records and readers without pax lose
// nothing. Names count as too long from the field's width on: their field ends in a NUL.
std::string paxRecordsFor(const Member& member, bool pathNeedsPax, const FormatRules& rules) {
  std::string records;
  if (pathNeedsPax) records = paxPathRecord(member.path, rules.paxExact);
  const auto add = [&records](std::string_view keyword, std::string_view value) {
    appendPaxRecord(keyword, value, records);
  };
  if (member.linkPath.size() > kLinkNameField.width) add("linkpath", member.linkPath);
  if (!hasOctalForm(kUidField, member.uid)) add("uid", std::to_string(member.uid));
  if (!hasOctalForm(kGidField, member.gid)) add("gid", std::to_string(member.gid));
  if (member.userName.size() >= kUserNameField.width) add("uname", member.userName);
  if (member.groupName.size() >= kGroupNameField.width) add("gname", member.groupName);
  if (member.mtime.nanoseconds != 0 || !hasOctalForm(kMtimeField, member.mtime.seconds)) {
    add("mtime", paxTimeText(member.mtime));
  }
  if (member.sparse.isSparse()) {
    add("GNU.sparse.major", "1");
    add("GNU.sparse.minor", "0");
    add("GNU.sparse.name", member.path);
    add("GNU.sparse.realsize", std::to_string(member.sparse.realSize()));
  }
  addAttributes(member, records);
  return records;
}

}  // namespace

// Lengths are bytes; a directory's slash counts.
MemberEncoding encodingOf(const Member& member, WriteFormat format, const FormatRules& rules) {
  MemberEncoding encoding;
  encoding.refusal = whyNowhere(member);
  if (encoding.refusal) return encoding;
  encoding.name = member.path;
  const size_t length = member.path.size();
  const bool isLong = length > kLongestNameInBlock;
  if (format == WriteFormat::Pax) {
    if (member.sparse.isSparse()) encoding.name = encoding.standIn = sparseStandIn(member.path);
    // A sparse member's own name is in a record in any case.
    encoding.pathNeedsPax = isLong && encoding.standIn.empty();
    encoding.paxRecords = paxRecordsFor(member, encoding.pathNeedsPax, rules);
    return encoding;
  }
  // A path of 101 to 255 bytes is the one case in which ustar has a way of its own: cut, or refused.
  if (format == WriteFormat::Ustar) {
    encoding.refusal = whyNotInUstar(member);
    if (!encoding.refusal && isLong && length <= kLongestUstarPath) {
      encoding.refusal = splitIntoBlock(member, rules, encoding);
      encoding.pathIsRefused = encoding.refusal != nullptr;
      return encoding;
    }
  }
  // Longer paths in a ustar archive fall back to GNU's record rather than fail. Readers without GNU's record
  // show such a member under a cut name, which is documented; a refusal would end the archive for a path that
  // most readers can take.
  encoding.needsLongName = isLong;
  // A link that fills its field needs none: POSIX lets the NUL be missing there.
  encoding.needsLongLink = member.linkPath.size() > kLinkNameField.width;
  return encoding;
}

}  // namespace morvane
