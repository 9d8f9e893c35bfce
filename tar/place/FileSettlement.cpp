// Owner and mode are compared with what is there first, because most files need neither call, and a call that
// is spared is spared for each member.
#include "tar/place/FileSettlement.h"

#include <sys/stat.h>

#include <cerrno>
#include <limits>

namespace morvane {

namespace {

// What every file system has room for. Beyond it some bring a time to the end of their range in silence.
bool isOrdinary(const timespec& time) {
  constexpr long long kMost = std::numeric_limits<int>::max();
  return time.tv_nsec == UTIME_OMIT || (time.tv_sec >= 0 && time.tv_sec <= kMost);
}

// Whole seconds are compared, because file systems differ in how finely they keep the rest, and that is no
// loss to be told of.
bool isSecondOf(const timespec& wanted, const timespec& found) {
  return wanted.tv_nsec == UTIME_OMIT || wanted.tv_sec == found.tv_sec;
}

}  // namespace

// The number that means "leave it" is refused: the archive would then choose to keep the owner that extracts.
// What is there is looked at again behind a failure as well, since the next step goes by it.
int FileSettlement::giveOwner(int fd, FileMetadata::Status& status) const {
  if (!setsOwner || (status.isKnown && status.uid == uid && status.gid == gid)) return 0;
  const bool isId = uid != FileMetadata::kNoId && gid != FileMetadata::kNoId;
  const int error = isId ? FileMetadata::setOwner(fd, uid, gid) : EINVAL;
  FileMetadata::look(fd, status);  // the system may have taken bits of the mode away
  return error;
}

// A status that is not known spares no call: then the mode is set in any case.
int FileSettlement::giveMode(int fd, const FileMetadata::Status& status) const {
  if (!setsMode || (status.isKnown && status.mode == mode)) return 0;
  return FileMetadata::setMode(fd, mode);
}

// A time that is out of the ordinary is read back, because a file system may take another one for it and
// report success.
int FileSettlement::giveTimes(int fd) const {
  const int error = setsTimes ? FileMetadata::setTimes(fd, access, modification) : 0;
  if (error != 0 || !setsTimes || (isOrdinary(access) && isOrdinary(modification))) return error;
  struct stat found;
  if (fstat(fd, &found) != 0) return errno;
  return isSecondOf(access, found.st_atim) && isSecondOf(modification, found.st_mtim) ? 0 : EOVERFLOW;
}

// A file of which the system tells nothing is left to the ordinary way, which does what can be done and says
// what is not kept.
bool FileSettlement::apply(int fd) const {
  FileMetadata::Status status;
  if (setsOwner || setsMode) {
    FileMetadata::look(fd, status);
    if (!status.isKnown) return false;
  }
  return giveOwner(fd, status) == 0 && giveMode(fd, status) == 0 && giveTimes(fd) == 0;
}

}  // namespace morvane
