// Small questions about files and the process's place among them.
#pragma once

#include "runtime/base/Export.h"

namespace morvane {

class LogBase;
class XString;

// Paths are the system's bytes. A relative one starts at the process's current directory. Any thread may ask
// at any time.
struct MORVANE_API FileSys {
  // The size of a file in bytes, 0 for a symbolic link. `ok` is set to false when the file cannot be examined
  // and is otherwise left alone; `log` may be null. A failure is logged.
  static long long fileSizeUtf8_64(const char* path, LogBase* log, bool& ok);
  static long long fileSizeX_64(const XString& path, LogBase* log, bool& ok);
  // The process's current directory, empty when it has none. Of any length. Where the process is changed into
  // another directory meanwhile, either may be what is told.
  static void getCurrentDir(XString& out);
};

}  // namespace morvane
