// The ar archive that a Debian binary package is.
#pragma once

#include <string>
#include <string_view>

namespace morvane {

// The eight bytes that every ar archive begins with.
constexpr std::string_view kArGlobalHeader = "!<arch>\n";

// The 60-byte header of a member owned by root with mode 100644. Every field is padded with blanks; one that
// is too long for its width is cut. `mtime` is in Unix seconds, `size` in bytes. A member of an odd size is
// followed by one more byte, a newline, which the caller writes and the size does not count.
std::string arMemberHeader(std::string_view name, long long mtime, unsigned long long size);

}  // namespace morvane
