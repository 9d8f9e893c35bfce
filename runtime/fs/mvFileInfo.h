// What the system says of one path.
#pragma once

#include "runtime/base/Export.h"
#include "runtime/fs/MorvaneFileTime.h"

struct stat;

namespace morvane {

class LogBase;

// A symbolic link is described as itself: its flag set and size 0, for it has no data to archive; only the
// directory flag is that of what it points at (false when it points nowhere, which is no error). Only regular
// files have a size.
struct MORVANE_API mvFileInfo {
  bool m_isDirectory = false;
  bool m_isSymbolicLink = false;
  bool m_isRegularFile = false;
  unsigned long long m_linkCount = 1;
  long long m_size = 0;
  MorvaneFileTime m_lastModified;
  MorvaneFileTime m_lastAccess;
  MorvaneFileTime
      m_creation;  // Linux keeps none that is portable; the time of the last status change stands in
  unsigned long long m_device = 0;
  unsigned long long m_inode = 0;

  // False, with the reason in the log, if the path cannot be examined.
  bool loadFileInfoUtf8(const char* path, LogBase& log);
  // The same for a name in an open directory; `path` is what the log calls it.
  bool loadFileInfoAt(int directory, const char* name, const char* path, LogBase& log);
  // From what fstat or lstat found; `linkedToDirectory` counts for symbolic links only.
  void setFromStatus(const struct stat& status, bool linkedToDirectory);

  bool isSameFile(const mvFileInfo& other) const {
    return m_device == other.m_device && m_inode == other.m_inode;
  }
};

}  // namespace morvane
