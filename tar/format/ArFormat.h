// The ar archive that a Debian binary package is.
#pragma once

#include <string>
#include <string_view>

namespace morvane {

constexpr std::string_view kArGlobalHeader = "!<arch>\n";

// The 60-byte header of a member owned by root with mode 100644. Every field is padded with blanks; one that
// is too long for its width is cut.
std::string arMemberHeader(std::string_view name, long long mtime, unsigned long long size);

}  // namespace morvane
