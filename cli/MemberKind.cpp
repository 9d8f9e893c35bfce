// One row for each kind; what nobody knows is taken for a file, as POSIX asks of readers.
#include "cli/MemberKind.h"

#include <sys/stat.h>

#include "runtime/progress/TarMemberInfo.h"

namespace mvtar {

namespace {

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

bool MemberKind::hasData() const { return letter == '-'; }

const MemberKind& kindOf(const morvane::TarMemberInfo& member) {
  if (member.isDirectory) return kDirectoryKind;
  for (const auto& row : kKinds) {
    if (row.typeFlag == member.typeFlag) return row.kind;
  }
  return kUnknown;
}

}  // namespace mvtar
