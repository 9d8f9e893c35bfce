#include "tar/place/FileSettlement.h"

#include "runtime/fs/FileMetadata.h"

namespace morvane {

// A change of owner may take bits of the mode away, so that the mode is looked at again.
bool FileSettlement::apply(int fd) const {
  if (setsOwner || setsMode) {
    FileMetadata::Status status;
    FileMetadata::look(fd, status);
    if (!status.isKnown) return false;
    if (setsOwner && (status.uid != uid || status.gid != gid)) {
      if (FileMetadata::setOwner(fd, uid, gid) != 0) return false;
      FileMetadata::look(fd, status);
    }
    if (setsMode && !(status.isKnown && status.mode == mode) && FileMetadata::setMode(fd, mode) != 0)
      return false;
  }
  return !setsTimes || FileMetadata::setTimes(fd, access, modification) == 0;
}

}  // namespace morvane
