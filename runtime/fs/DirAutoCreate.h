// Directories made with their missing parents.
//
// On failure errno holds the reason. A log that is not verbose shows no line of it and only notes it as the
// cause: whoever asked for the directory says what could not be done without it.
#pragma once

#include "runtime/base/Export.h"

namespace morvane {

class LogBase;
class StringBuffer;

struct MORVANE_API DirAutoCreate {
  // Whether a failure has its own line in any log, or in a verbose one alone.
  enum class Telling { Always, IfVerbose };

  // True if the directory exists afterwards. New directories get mode 0777 less the process's umask. An empty
  // path is a failure. Existing directories are left as they are. What was made before a failure stays.
  static bool ensureDirUtf8(const char* dir, LogBase& log, Telling telling = Telling::Always);
  // Makes the directories above a file path. `parent` receives the path of the directory that holds the file,
  // empty when the path names none. The file itself is not looked at.
  static bool ensureFileUtf8(const char* path, StringBuffer& parent, LogBase& log,
                             Telling telling = Telling::Always);
};

}  // namespace morvane
