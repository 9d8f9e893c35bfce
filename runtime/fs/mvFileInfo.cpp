// One look at a file, taken over whole: what is asked later is answered from it, so that an archive's header
// tells of one moment, and a file that is exchanged meanwhile is found out by its device and inode.
#include "runtime/fs/mvFileInfo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>

#include "runtime/fs/OsFile.h"

namespace morvane {

namespace {

// Whichever way a file is looked at, the log says so alike.
constexpr const char* kCannotExamine = "Failed to get file information.";

// The system's nanoseconds are in range and count forward before 1970, too: the same shape.
MorvaneFileTime timeOf(const timespec& time) {
  return MorvaneFileTime::fromUnixTime64(time.tv_sec, static_cast<unsigned>(time.tv_nsec));
}

}  // namespace

// A link's size is the length of its text and a directory's is the file system's own; neither is data that an
// archive would hold, so both are 0.
void mvFileInfo::setFromStatus(const struct stat& status) {
  m_isSymbolicLink = S_ISLNK(status.st_mode);
  m_isRegularFile = S_ISREG(status.st_mode);
  m_isDirectory = S_ISDIR(status.st_mode);
  m_isSocket = S_ISSOCK(status.st_mode);
  m_size = S_ISREG(status.st_mode) ? status.st_size : 0;
  m_linkCount = status.st_nlink;
  m_lastModified = timeOf(status.st_mtim);
  m_lastAccess = timeOf(status.st_atim);
  // stat has no time of creation.
  m_creation = timeOf(status.st_ctim);
  m_device = status.st_dev;
  m_inode = status.st_ino;
  m_mode = status.st_mode;
  m_uid = status.st_uid;
  m_gid = status.st_gid;
  // Of a device itself (st_rdev); the file system that holds it is m_device.
  m_deviceMajor = major(status.st_rdev);
  m_deviceMinor = minor(status.st_rdev);
  constexpr long long kStatusBlock = 512;  // whatever the file system's own blocks are
  m_storedSize = status.st_blocks * kStatusBlock;
}

// For sources, which are archived as what they are.
bool mvFileInfo::loadFileInfoUtf8(const char* path, LogBase& log) { return load(path, false, log); }

// For roots, which may be given by a link, and where links are followed.
bool mvFileInfo::loadTargetInfoUtf8(const char* path, LogBase& log) { return load(path, true, log); }

// Where the last part is a link, `followLink` decides; links on the way are followed in any case.
bool mvFileInfo::load(const char* path, bool followLink, LogBase& log) {
  struct stat status;
  if (osStatus(path, status, followLink) != 0) {
    logOsError(log, kCannotExamine, path, errno);
    return false;
  }
  setFromStatus(status);
  return true;
}

// A name in an open directory is found whatever became of the path on the way to it, and without the length
// of a whole path; so walks use this one.
bool mvFileInfo::loadFileInfoAt(int directory, const char* name, const char* path, LogBase& log,
                                bool followLink) {
  struct stat status;
  if (fstatat(directory, name, &status, followLink ? 0 : AT_SYMLINK_NOFOLLOW) != 0) {
    logOsError(log, kCannotExamine, path, errno);
    return false;
  }
  setFromStatus(status);
  return true;
}

}  // namespace morvane
