#include "runtime/fs/mvFileInfo.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "runtime/fs/OsFile.h"

namespace morvane {

namespace {

constexpr const char* kCannotExamine = "Failed to get file information.";

MorvaneFileTime timeOf(const timespec& time) {
  return MorvaneFileTime::fromUnixTime64(time.tv_sec, static_cast<unsigned>(time.tv_nsec));
}

}  // namespace

void mvFileInfo::setFromStatus(const struct stat& status, bool linkedToDirectory) {
  m_isSymbolicLink = S_ISLNK(status.st_mode);
  m_isRegularFile = S_ISREG(status.st_mode);
  m_isDirectory = m_isSymbolicLink ? linkedToDirectory : S_ISDIR(status.st_mode);
  m_size = S_ISREG(status.st_mode) ? status.st_size : 0;
  m_linkCount = status.st_nlink;
  m_lastModified = timeOf(status.st_mtim);
  m_lastAccess = timeOf(status.st_atim);
  m_creation = timeOf(status.st_ctim);
  m_device = status.st_dev;
  m_inode = status.st_ino;
}

bool mvFileInfo::loadFileInfoUtf8(const char* path, LogBase& log) {
  struct stat status;
  if (osStatus(path, status, false) != 0) {
    logOsError(log, kCannotExamine, path, errno);
    return false;
  }
  struct stat target;
  const bool linkedToDirectory =
      S_ISLNK(status.st_mode) && osStatus(path, target, true) == 0 && S_ISDIR(target.st_mode);
  setFromStatus(status, linkedToDirectory);
  return true;
}

bool mvFileInfo::loadFileInfoAt(int directory, const char* name, const char* path, LogBase& log) {
  struct stat status;
  if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    logOsError(log, kCannotExamine, path, errno);
    return false;
  }
  struct stat target;
  const bool linkedToDirectory =
      S_ISLNK(status.st_mode) && fstatat(directory, name, &target, 0) == 0 && S_ISDIR(target.st_mode);
  setFromStatus(status, linkedToDirectory);
  return true;
}

}  // namespace morvane
