// What a file gets when it is closed, worked out beforehand: owner, mode and times, each only where it is not
// so already. The order of the steps is the system's: a change of owner takes bits of the mode away.
#pragma once

#include <ctime>

#include "runtime/fs/FileMetadata.h"

namespace morvane {

// Plain values. MetadataRestorer makes one of a member and takes the steps one by one, because attributes and
// lists come between them. Where a member has none of these, `apply` is all of it: it looks nothing up and
// notes nothing, and so may be called by any thread. Ids and modes are the system's; UTIME_OMIT in a time
// leaves that one alone.
struct FileSettlement {
  bool setsOwner = false, setsMode = false, setsTimes = false;
  unsigned uid = 0, gid = 0;
  unsigned mode = 0;
  timespec access{}, modification{};

  // Each is 0 or an errno, and 0 where it is not to be set. `status` is what is there; the first brings it up
  // to date. `fd` may be one that can only name a file (O_PATH), as a link's. To be called in this order.
  int giveOwner(int fd, FileMetadata::Status& status) const;
  int giveMode(int fd, const FileMetadata::Status& status) const;
  // EOVERFLOW: the file system has taken another time in its place.
  int giveTimes(int fd) const;

  // All of them. False when any fails; what was set stays. Nothing is logged.
  bool apply(int fd) const;
};

}  // namespace morvane
