// --json: what the archive says of a member, as an object of JSON (RFC 8259).
#pragma once

#include <string>

namespace morvane {
struct TarMemberInfo;
}

namespace mvtar {

// One line, with its end: "path" (as stored), "type" ("file", "directory", "symlink", "hardlink", "fifo",
// "chardev", "blockdev", or the type flag itself), "mode" (octal digits), "uid", "gid", "user", "group",
// "size" (with holes), "mtime" (seconds, with a fraction where there is one), and, where they mean anything,
// "link" and "device" ([major, minor]). Bytes that are no UTF-8 become \udc80 to \udcff, one for each, as
// Python's "surrogateescape" has it: no two names become the same. Takes several times the memory of the
// member's texts; a hostile name may have many megabytes.
std::string jsonLine(const morvane::TarMemberInfo& member);

}  // namespace mvtar
