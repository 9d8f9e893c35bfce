// One row for each kind; what nobody knows is taken for a file, as POSIX asks of readers.
#include "cli/MemberKind.h"

#include <sys/stat.h>

#include "runtime/progress/TarMemberInfo.h"

namespace mvtar {

namespace {

// By the type flags of POSIX ustar. NUL is a file in headers from before it, '7' a contiguous file, which
// POSIX lets readers take for an ordinary one, and 'S' GNU tar's sparse file. A hard link is what it leads
// to, which its header does not tell; it has a file's type here and is asked for by its flag.
constexpr struct {
  char typeFlag;
  MemberKind kind;
} kKinds[] = {{'\0', {'-', "file", S_IFREG}},
              {'0', {'-', "file", S_IFREG}},
              {kHardLink, {'h', "hardlink", S_IFREG}},
              {kSymbolicLink, {'l', "symlink", S_IFLNK}},
              {'3', {'c', "chardev", S_IFCHR}},
              {'4', {'b', "blockdev", S_IFBLK}},
              {'6', {'p', "fifo", S_IFIFO}},
              {'7', {'-', "file", S_IFREG}},
              {'S', {'-', "file", S_IFREG}}};
constexpr MemberKind kDirectoryKind{'d', "directory", S_IFDIR}, kUnknown{'-', nullptr, S_IFREG};

}  // namespace

bool MemberKind::isDevice() const { return type == S_IFCHR || type == S_IFBLK; }

bool MemberKind::isSpecial() const { return isDevice() || type == S_IFIFO; }

// A file of an unknown kind has the same letter, and its data, too.
bool MemberKind::hasData() const { return letter == '-'; }

const MemberKind& kindOf(const morvane::TarMemberInfo& member) {
  // Before the table: headers from before ustar have no flag for directories, only a slash at the name's end.
  if (member.isDirectory) return kDirectoryKind;
  for (const auto& row : kKinds) {
    if (row.typeFlag == member.typeFlag) return row.kind;
  }
  return kUnknown;
}

}  // namespace mvtar
