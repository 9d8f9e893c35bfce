// Directories with their missing parents. The usual case is that one directory is missing or none, so the
// whole path is tried first; only where its parent is missing is it walked part by part.
#include "runtime/fs/DirAutoCreate.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "runtime/fs/OsFile.h"
#include "runtime/log/LogBase.h"
#include "runtime/text/StringBuffer.h"

namespace morvane {

namespace {

// The umask takes from it what the process's user does not want.
constexpr mode_t kDirectoryMode = 0777;

constexpr char kCannotMake[] = "Failed to create directory.";

// errno is set on both ways: the caller may have a line of its own to write.
bool failed(LogBase& log, DirAutoCreate::Telling telling, const char* dir, int error) {
  const bool tells = telling == DirAutoCreate::Telling::Always || log.verbose();
  if (tells) {
    logOsError(log, kCannotMake, dir, error);
  } else {
    log.noteCause(kCannotMake, dir, std::strerror(error));
    errno = error;
  }
  return false;
}

// Makes each part of the path that is missing, from the first on, holding on to the directory reached so far.
// The result is 0 or an errno. Parts are made and opened relative to the one before: so a path may be longer
// than the system takes at once. An existing link to a directory is followed, as by mkdir -p.
int makeEachPart(const std::string& dir) {
  OsFile reached;
  if (dir[0] == '/') {
    reached.reset(osOpen("/", O_PATH | O_DIRECTORY));
    // Without it the parts would be made below the current directory.
    if (!reached.isOpen()) return errno;
  }
  for (size_t start = 0; start < dir.size();) {
    const size_t end = std::min(dir.find('/', start), dir.size());
    // Doubled slashes have nothing between them.
    if (end > start) {
      const std::string part = dir.substr(start, end - start);
      const int from = reached.isOpen() ? reached.fd() : AT_FDCWD;
      if (mkdirat(from, part.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
        // A part that is there already may lie in a directory nobody may write to; opening it decides.
        const int error = errno;
        struct stat status;
        if (fstatat(from, part.c_str(), &status, 0) != 0) return error;
      }
      // O_PATH needs no right to read the directory, only to pass through it.
      const int opened = osOpenAt(from, part.c_str(), O_PATH | O_DIRECTORY);
      if (opened < 0) return errno;
      reached.reset(opened);
    }
    start = end + 1;
  }
  return 0;
}

}  // namespace

// An EEXIST may be a directory, which is what was wanted, or something else in its place; only a look tells.
// The look follows links.
bool DirAutoCreate::ensureDirUtf8(const char* dir, LogBase& log, Telling telling) {
  if (*dir == '\0') return failed(log, telling, dir, ENOENT);
  if (osMakeDirectory(dir, kDirectoryMode) == 0) return true;
  int error = errno;
  // A parent is missing, or a link on the way leads to nothing, which fails again part by part.
  if (error == ENOENT) {
    error = makeEachPart(dir);
    return error == 0 || failed(log, telling, dir, error);
  }
  // Not by EEXIST alone: on a read-only file system, or where nobody may write, mkdir may fail for that
  // before it notices that the directory is there.
  struct stat status;
  if (osStatus(dir, status, true) == 0) {
    if (S_ISDIR(status.st_mode)) return true;
    // "Not a directory" says what is wrong; "File exists" would sound like success.
    if (error == EEXIST) error = ENOTDIR;
  }
  return failed(log, telling, dir, error);
}

// A path without a slash names no directory, and there is nothing to make.
bool DirAutoCreate::ensureFileUtf8(const char* path, StringBuffer& parent, LogBase& log, Telling telling) {
  const std::string text(path);
  size_t end = text.rfind('/');
  parent.weakClear();
  if (end == std::string::npos) return true;
  if (end == 0) end = 1;  // directly below the root
  parent = text.substr(0, end);
  return ensureDirUtf8(parent.getString(), log, telling);
}

}  // namespace morvane
