// What an archive format can hold of a member, what it can hold only in a record in front of the header
// block, and what not at all.
//
// gnu: everything but parts of a second; what is too large for its octal field in base-256, long paths and
// links in records of their own. pax: everything, in pax records. ustar: what its fields hold.
#pragma once

#include <string>
#include <string_view>

namespace morvane {

struct Member;

// A header's fields end at a NUL, and the system's paths do: the path would be another one in both.
constexpr char kNulInPath[] = "A path with a NUL byte cannot be archived.";

// The format of a whole archive; what records it brings along encodingOf tells for each member.
enum class WriteFormat { Gnu, Pax, Ustar };

// Where the rules differ from the component's oldest ones (the words of UncommonOptions). The defaults keep
// archives of equal input the same in every version. TarOptions has the same under the names of the words.
struct FormatRules {
  bool ustarPlainPrefix = false;    // the prefix without the slash that joins it to the name
  bool ustarOverflowFails = false;  // a prefix longer than its field is an error
  bool paxExact = false;            // the length of a path's record is right for any length
};

// How a member goes into an archive. The views are of the member's path, or of constants. It must not outlive
// the member.
struct MemberEncoding {
  const char* refusal = nullptr;  // why the format cannot hold the member; the rest is then of no use
  bool pathIsRefused = false;     // it is the path
  std::string_view name, prefix;  // of the header block
  bool needsLongName = false;     // GNU's record for the path, in any format but pax
  bool needsLongLink = false;     // and for the link
  // In pax archives alone: the path has a record of its own among paxRecords.
  bool pathNeedsPax = false;
  std::string standIn;     // the name of a sparse member in pax, by which readers know it
  std::string paxRecords;  // data of the pax record; empty: none is needed
};

// Plain computation: nothing is written and nothing logged; what is refused the caller says in its own words
// and order. Throws std::bad_alloc only. The member's numbers and texts may be anything.
MemberEncoding encodingOf(const Member& member, WriteFormat format, const FormatRules& rules);

}  // namespace morvane
