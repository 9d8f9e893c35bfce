// What the system says of one path.
#pragma once

#include "runtime/base/Export.h"
#include "runtime/fs/MorvaneFileTime.h"

struct stat;

namespace morvane {

class LogBase;

// A symbolic link is described as itself: its flag set, no directory, and size 0, for it has no data to
// archive. Only regular files have a size. A value, filled in by one of the functions below and good for the
// moment of the call; until then it is what the defaults say. An application may also fill one in itself, for
// the header of a member that is no file. It owns nothing.
struct MORVANE_API mvFileInfo {
  // At most one of the four is true; none is for a FIFO or device.
  bool m_isDirectory = false;
  bool m_isSymbolicLink = false;
  bool m_isRegularFile = false;
  bool m_isSocket = false;
  // Names that the file has in its file system.
  unsigned long long m_linkCount = 1;
  // In bytes, holes included.
  long long m_size = 0;
  // Times to the nanosecond, UTC.
  MorvaneFileTime m_lastModified;
  // As the file system keeps it, which may be rarely.
  MorvaneFileTime m_lastAccess;
  MorvaneFileTime
      m_creation;  // Linux keeps none that is portable; the time of the last status change stands in
  // The two together tell a file from any other as long as it exists, whatever it is called (POSIX.1,
  // sys/stat.h).
  unsigned long long m_device = 0;
  unsigned long long m_inode = 0;
  unsigned m_mode = 0;  // all bits, the type among them (S_IFMT)
  // Numbers of this system. Names for them are UserDatabase's.
  unsigned m_uid = 0, m_gid = 0;
  unsigned m_deviceMajor = 0, m_deviceMinor = 0;  // of a device itself
  long long m_storedSize = 0;                     // bytes that the data take on the disk; fewer with holes

  // False, with the reason in the log, if the path, of any length, cannot be examined; what was there before
  // stays then.
  bool loadFileInfoUtf8(const char* path, LogBase& log);
  // The same for what a symbolic link at the end of the path points at. One that leads to nothing is a
  // failure.
  bool loadTargetInfoUtf8(const char* path, LogBase& log);
  // As loadFileInfoUtf8 for a name in an open directory; `path` is what the log calls it.
  bool loadFileInfoAt(int directory, const char* name, const char* path, LogBase& log,
                      bool followLink = false);
  // From what fstat or lstat found. All members are replaced.
  void setFromStatus(const struct stat& status);

  // Whether both looks were at one file; true for two that were never filled in.
  bool isSameFile(const mvFileInfo& other) const {
    return m_device == other.m_device && m_inode == other.m_inode;
  }

 private:
  // What loadFileInfoUtf8 and loadTargetInfoUtf8 have in common.
  bool load(const char* path, bool followLink, LogBase& log);
};

}  // namespace morvane
