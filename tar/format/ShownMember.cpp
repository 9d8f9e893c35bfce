// Between a Member, in which nothing is trusted or decoded, and the TarMember that an application sees and
// may change.
#include "tar/format/ShownMember.h"

#include <algorithm>
#include <limits>

#include "runtime/progress/TarMember.h"
#include "tar/format/Member.h"

namespace morvane {

namespace {

constexpr unsigned kModeBits = 07777;

// What a callback left as it was shown stays in full.
void takeId(unsigned shown, long long& id) {
  if (shown != shownId(id)) id = shown;
}

}  // namespace

unsigned shownId(long long id) {
  return static_cast<unsigned>(std::min<long long>(id, std::numeric_limits<unsigned>::max()));
}

// A directory's size is 0, because no data of it are ever extracted. Every field but the caller's own is set,
// because the same object is used for one member after the other.
void showMember(const Member& member, const std::string& path, TarMember& shown) {
  // An old header has directories as empty files whose name ends in a slash.
  shown.typeFlag = member.isDirectory ? kTypeDirectory : member.typeFlag;
  shown.size = member.dataSize();
  shown.path.assign(path, 0, member.isDirectory ? path.find_last_not_of('/') + 1 : path.size());
  shown.linkPath = member.linkPath;
  shown.mode = member.mode & kModeBits;
  shown.uid = shownId(member.uid);
  shown.gid = shownId(member.gid);
  shown.exactUid = member.uid;
  shown.exactGid = member.gid;
  shown.deviceMajor = member.deviceMajor;
  shown.deviceMinor = member.deviceMinor;
  shown.realSize = member.realSize();
  shown.userName = member.userName;
  shown.groupName = member.groupName;
  shown.mtime = member.mtime.seconds;
  shown.mtimeNanoseconds = member.mtime.nanoseconds;
  shown.skip = shown.skipBelow = false;
}

// The rest of `shown` is told and not taken back: type, size and directory stay what they are, or the data
// that follow would be read as something else. What a callback may write is brought into range here and
// nowhere else.
void takeShown(const TarMember& shown, Member& member) {
  constexpr unsigned kMostNanoseconds = 999999999;
  member.linkPath = shown.linkPath;
  // Bits that the event was not shown, as a type that some writers put there, stay where nobody changed the
  // mode.
  const bool modeIsChanged = shown.mode != (member.mode & kModeBits);
  if (modeIsChanged) member.mode = shown.mode & kModeBits;
  takeId(shown.uid, member.uid);
  takeId(shown.gid, member.gid);
  member.userName = shown.userName;
  member.groupName = shown.groupName;
  // A whole second or more of them would be refused by the system when the time is set.
  const unsigned nanoseconds = shown.mtimeNanoseconds;
  member.mtime = {shown.mtime, nanoseconds > kMostNanoseconds ? kMostNanoseconds : nanoseconds, true};
}

}  // namespace morvane
