#include "tar/format/ShownMember.h"

#include "runtime/progress/TarMember.h"
#include "tar/format/Member.h"

namespace morvane {

void showMember(const Member& member, const std::string& path, TarMember& shown) {
  shown.typeFlag = member.typeFlag;
  shown.size = member.dataSize();
  shown.path.assign(path, 0, member.isDirectory ? path.find_last_not_of('/') + 1 : path.size());
  shown.linkPath = member.linkPath;
  shown.mode = member.mode;
  shown.uid = member.uid;
  shown.gid = member.gid;
  shown.userName = member.userName;
  shown.groupName = member.groupName;
  shown.mtime = member.mtime.seconds;
  shown.mtimeNanoseconds = member.mtime.nanoseconds;
  shown.skip = false;
}

void takeShown(const TarMember& shown, Member& member) {
  constexpr unsigned kModeBits = 07777;
  constexpr unsigned kMostNanoseconds = 999999999;
  member.linkPath = shown.linkPath;
  member.mode = shown.mode & kModeBits;
  member.uid = shown.uid;
  member.gid = shown.gid;
  member.userName = shown.userName;
  member.groupName = shown.groupName;
  const unsigned nanoseconds = shown.mtimeNanoseconds;
  member.mtime = {shown.mtime, nanoseconds > kMostNanoseconds ? kMostNanoseconds : nanoseconds, true};
}

}  // namespace morvane
