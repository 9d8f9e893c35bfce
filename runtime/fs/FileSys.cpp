// Small questions that need no object. Each asks the system anew; nothing is remembered.
#include "runtime/fs/FileSys.h"

#include <unistd.h>

#include <cerrno>
#include <vector>

#include "runtime/fs/mvFileInfo.h"
#include "runtime/log/LogNull.h"
#include "runtime/text/XString.h"

namespace morvane {

// A link at the end of the path is not followed. Its size is 0, because it has no data that could be
// archived.
long long FileSys::fileSizeUtf8_64(const char* path, LogBase* log, bool& ok) {
  mvFileInfo info;
  LogNull unwanted;
  if (!info.loadFileInfoUtf8(path, log ? *log : unwanted)) {
    ok = false;
    return 0;
  }
  return info.m_size;
}

// A path with a NUL is cut there; those that come from outside are asked about it before.
long long FileSys::fileSizeX_64(const XString& path, LogBase* log, bool& ok) {
  return fileSizeUtf8_64(path.getUtf8(), log, ok);
}

// A path of any length: the buffer grows until it fits. A directory that was removed has no path, and that is
// no failure here.
void FileSys::getCurrentDir(XString& out) {
  out.clear();
  // ERANGE alone means that the buffer is too small. Linux has no longest path for this call.
  for (std::vector<char> buffer(4096);; buffer.resize(buffer.size() * 2)) {
    if (::getcwd(buffer.data(), buffer.size())) {
      out.setFromUtf8(buffer.data());
      return;
    }
    if (errno != ERANGE) return;
  }
}

}  // namespace morvane
