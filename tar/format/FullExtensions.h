// Extension records as POSIX pax and the other tars mean them (the word FullRead).
//
// pax records go by their stated length and may hold newlines and NULs; times keep 63 bits and their
// fraction; a record counts for the next member, a global one for all later members; an empty value takes an
// attribute back.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tar/format/Member.h"

namespace morvane {

// A point in time as pax writes it: decimal seconds, perhaps negative, perhaps with a fraction. Not known
// when the text is no number; seconds stop at what 63 bits hold. Nanoseconds are 0 to 999,999,999 and count
// forward from the second, before 1970 too.
TarTime parsePaxTime(std::string_view text);

// The records of one archive, as they come. A record counts from where it stands; nothing is merged
// backwards. Memory is bounded by the data of the records, which the engine limits. One thread.
class FullExtensions {
 public:
  // Records that only describe other members: pax, global pax, long name, long link.
  static bool isRecord(char typeFlag);
  // Records of GNU tar that describe the archive: neither members nor of use here.
  static bool isPassedOver(char typeFlag);

  // `spreads`: records about holes are understood, so that a member takes its real name and size from them.
  explicit FullExtensions(bool spreads) : m_spreads(spreads) {}

  // Forgets global records too.
  void clear();
  // Takes the data of a record. False, with the reason in the log, if they make no sense. The type flag must
  // be one of isRecord. Views are not kept: texts are copied. What is unknown or of no use here is taken and
  // ignored.
  bool take(char typeFlag, std::string_view data, LogBase& log);
  // Forgets the records meant for the next member alone: what followed them was none.
  void forgetNext();
  // Puts what the records say into the member's parsed header, and what a header has no place for into the
  // member itself; forgets those that were meant for it alone.
  void complete(TarHeader& header, Member& member);

 private:
  // What is not set leaves what the header, or a global record, says.
  struct Attributes {
    std::optional<std::string> path, linkPath, userName, groupName;
    std::optional<long long> uid, gid, size;
    std::optional<TarTime> mtime, atime, ctime;
    std::optional<std::string> sparseName, sparseList;
    std::optional<long long> sparseSize, sparseOffset, sparseCount;
    std::vector<SparseRange> sparseRanges;  // in the form of repeated records
    bool sparseMapIsInData = false, sparseIsWrong = false;
    std::vector<MemberAttribute> attributes;
    std::string accessList, defaultAccessList;
    bool lacksAttributes = false;
    unsigned takenBack = 0;  // PaxField bits: an empty value undoes a global record too
  };

  // Cuts the data into records and takes each. False, logged, for a record that cannot be cut off.
  bool takePaxRecords(std::string_view data, bool global, LogBase& log);
  // Says so in the log where it is.
  static bool isIgnoredGlobally(std::string_view keyword, std::string_view value, LogBase& log);
  // False, logged, for a value that must be understood and is not.
  bool takePaxRecord(std::string_view keyword, std::string_view value, bool global, LogBase& log);
  // `keyword` is what stands behind "GNU.sparse.".
  static void takeSparseRecord(std::string_view keyword, std::string_view value, Attributes& to);
  // Whether the keyword is one of an attribute or access list, usable or not.
  static bool takeAttribute(std::string_view keyword, std::string_view value, Attributes& to);
  // Makes the member a sparse one by what m_next says.
  void spread(TarHeader& header, Member& member);
  // Puts attributes into a header, but for the fields whose PaxField bits are in `except`.
  static void apply(const Attributes& attributes, unsigned except, TarHeader& member);

  const bool m_spreads;
  // Of global records, for all members from there on; of the records in front of the next member.
  Attributes m_global;
  Attributes m_next;
  // Most members have no records: they are spared looking through what there could be.
  bool m_hasGlobal = false;
  bool m_hasNext = false;
};

}  // namespace morvane
