// Directories made with their missing parents.
#pragma once

#include "runtime/base/Export.h"

namespace morvane {

class LogBase;
class StringBuffer;

struct MORVANE_API DirAutoCreate {
  // True if the directory exists afterwards. New directories get mode 0777 less the process's umask.
  static bool ensureDirUtf8(const char* dir, LogBase& log);
  // Makes the directories above a file path. `parent` receives the path of the directory that holds the file,
  // empty when the path names none.
  static bool ensureFileUtf8(const char* path, StringBuffer& parent, LogBase& log);
};

}  // namespace morvane
