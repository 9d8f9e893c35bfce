#include "runtime/fs/ConfinedDir.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include "runtime/fs/DirAutoCreate.h"
#include "runtime/fs/mvFileInfo.h"

namespace morvane {

namespace {

constexpr int kPathOnly = O_PATH | O_DIRECTORY;
constexpr int kNewFile = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
constexpr unsigned kFileMode = 0666, kDirectoryMode = 0777;
constexpr int kTriesWhileChanging = 8;
constexpr char kCannotCreate[] = "Failed to create file.";
constexpr char kCannotMakeDirectory[] = "Failed to create directory.";
constexpr char kCannotOpenDirectory[] = "Failed to open directory.";

// False for a path that must be refused: absolute, or with a ".." part or a NUL.
bool isConfinable(const std::string& path) {
  if (path.find('\0') != std::string::npos || (!path.empty() && path.front() == '/')) return false;
  for (size_t at = path.find(".."); at != std::string::npos; at = path.find("..", at + 1)) {
    const bool starts = at == 0 || path[at - 1] == '/';
    if (starts && (at + 2 == path.size() || path[at + 2] == '/')) return false;
  }
  return true;
}

// Empty parts and "." are left out.
std::vector<std::string> partsOf(const std::string& path) {
  std::vector<std::string> parts;
  for (size_t start = 0; start < path.size();) {
    const size_t end = std::min(path.find('/', start), path.size());
    const std::string part = path.substr(start, end - start);
    start = end + 1;
    if (!part.empty() && part != ".") parts.push_back(part);
  }
  return parts;
}

std::string joined(const std::vector<std::string>& parts, size_t from, size_t to) {
  std::string path;
  for (size_t i = from; i < to; ++i) (path.empty() ? path : path += '/') += parts[i];
  return path;
}

int openat2(int from, const char* path, int flags, unsigned mode, unsigned long long resolve) {
  open_how how{};
  // A program that another thread starts meanwhile must not inherit the descriptor.
  how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
  how.mode = mode;
  how.resolve = resolve;
  return static_cast<int>(::syscall(SYS_openat2, from, path, &how, sizeof how));
}

bool leavesTheTarget(int error) { return error == EXDEV || error == ELOOP || error == ENOTDIR; }

}  // namespace

bool ConfinedDir::open(const char* target, Links links, LogBase& log) {
  m_links = links;
  m_target.reset(osOpen(target, kPathOnly));
  if (!m_target.isOpen() && errno == ENOENT && DirAutoCreate::ensureDirUtf8(target, log)) {
    m_target.reset(osOpen(target, kPathOnly));
  }
  if (!m_target.isOpen()) {
    failed("Failed to open the target directory.", target, log);
    return false;
  }
  // Old kernels, and containers that forbid what they do not know. Asked here, where EPERM has no other
  // meaning.
  const OsFile probe(openResolved(m_target.fd(), ".", kPathOnly, 0));
  m_partByPart = m_partByPart || (!probe.isOpen() && (errno == ENOSYS || errno == EPERM));
  return true;
}

void ConfinedDir::protect(const mvFileInfo& file) {
  m_hasProtected = true;
  m_protectedDevice = file.m_device;
  m_protectedInode = file.m_inode;
}

bool ConfinedDir::isProtected(const struct stat& status) const {
  return m_hasProtected && status.st_dev == m_protectedDevice && status.st_ino == m_protectedInode;
}

ConfinedDir::Result ConfinedDir::failed(const char* message, const std::string& path, LogBase& log) {
  m_lastError = errno;
  logOsError(log, message, path.c_str(), m_lastError);
  return Result::Failed;
}

ConfinedDir::Result ConfinedDir::createFile(const std::string& path, OsFile& file, LogBase& log) {
  if (!isConfinable(path)) return Result::Refused;
  // Nearly every file has its parents and nothing in its way: one call does it all.
  file.reset(createBeneath(path));
  if (file.isOpen()) return Result::Ok;
  Place place;
  const Result opened = openParentOf(path, place, log);
  if (opened != Result::Ok) return opened;
  errno = EISDIR;
  for (int tries = 0; !place.leaf.empty() && tries < kTriesWhileChanging; ++tries) {
    file.reset(osOpenAt(place.parent.fd(), place.leaf.c_str(), kNewFile, kFileMode));
    if (file.isOpen()) return Result::Ok;
    if (errno != EEXIST) break;
    const Result cleared = clearTheWay(place, log);
    if (cleared != Result::Ok) return cleared;
    errno = EEXIST;
  }
  return failed(kCannotCreate, path, log);
}

// Removes what stands where a member is to be made.
ConfinedDir::Result ConfinedDir::clearTheWay(const Place& place, LogBase& log) {
  const int parent = place.parent.fd();
  const char* const leaf = place.leaf.c_str();
  struct stat status;
  if (fstatat(parent, leaf, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? Result::Ok : failed("Failed to examine what is in the way.", place.leaf, log);
  }
  if (isProtected(status)) return Result::Refused;
  const bool isDirectory = S_ISDIR(status.st_mode);
  if (unlinkat(parent, leaf, isDirectory ? AT_REMOVEDIR : 0) == 0 || errno == ENOENT) return Result::Ok;
  if (isDirectory && (errno == ENOTEMPTY || errno == EEXIST)) return Result::Refused;
  return failed("Failed to remove what is in the way.", place.leaf, log);
}

ConfinedDir::Result ConfinedDir::makeDirectory(const std::string& path, LogBase& log) {
  if (!isConfinable(path)) return Result::Refused;
  Place place;
  const Result opened = openParentOf(path, place, log);
  if (opened != Result::Ok || place.leaf.empty()) return opened;  // without a leaf it is the target itself
  const char* const leaf = place.leaf.c_str();
  for (int tries = 0; tries < kTriesWhileChanging; ++tries) {
    if (mkdirat(place.parent.fd(), leaf, kDirectoryMode) == 0) return Result::Ok;
    if (errno != EEXIST) break;
    struct stat status;
    if (fstatat(place.parent.fd(), leaf, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (S_ISDIR(status.st_mode)) return Result::Ok;
    if (S_ISLNK(status.st_mode) && m_links == Links::InsideTarget && !m_partByPart) {
      Parts whole = place.parts;
      whole.push_back(place.leaf);
      if (const OsFile inside(openBeneath(whole, whole.size())); inside.isOpen()) return Result::Ok;
    }
    const Result cleared = clearTheWay(place, log);
    if (cleared != Result::Ok) return cleared;
    errno = EEXIST;
  }
  return failed(kCannotMakeDirectory, path, log);
}

// Opens the directory that the path's last part is in; that part is the leaf, empty for the target itself.
ConfinedDir::Result ConfinedDir::openParentOf(const std::string& path, Place& place, LogBase& log) {
  place.parts = partsOf(path);
  if (place.parts.empty()) return Result::Ok;
  place.leaf = std::move(place.parts.back());
  place.parts.pop_back();
  if (!m_partByPart) {
    place.parent.reset(openBeneath(place.parts, place.parts.size()));
    if (place.parent.isOpen()) return Result::Ok;
    if (leavesTheTarget(errno)) return Result::Refused;
    if (errno != ENOENT) return failed(kCannotOpenDirectory, path, log);
  }
  return walkToParent(place, log);
}

// Part by part from the target on, making what is missing. A link on the way is passed only as the kernel
// resolves it beneath the target.
ConfinedDir::Result ConfinedDir::walkToParent(Place& place, LogBase& log) {
  const Parts& parts = place.parts;
  OsFile reached(osOpenAt(m_target.fd(), ".", kPathOnly));
  for (size_t i = 0; reached.isOpen() && i < parts.size(); ++i) {
    const char* const part = parts[i].c_str();
    OsFile next(osOpenAt(reached.fd(), part, kPathOnly | O_NOFOLLOW));
    if (!next.isOpen() && errno == ENOENT) {
      if (mkdirat(reached.fd(), part, kDirectoryMode) != 0 && errno != EEXIST) {
        return failed(kCannotMakeDirectory, joined(parts, 0, parts.size()), log);
      }
      next.reset(osOpenAt(reached.fd(), part, kPathOnly | O_NOFOLLOW));
    }
    if (!next.isOpen() && leavesTheTarget(errno)) {
      if (m_partByPart || m_links == Links::None) return Result::Refused;
      next.reset(openBeneath(parts, i + 1));
      // A link to nothing is refused too: making what it names might be making it elsewhere.
      if (!next.isOpen() && (leavesTheTarget(errno) || errno == ENOENT)) return Result::Refused;
    }
    const int error = errno;
    reached = std::move(next);
    errno = error;  // of the open, not of the close
  }
  if (!reached.isOpen()) return failed(kCannotOpenDirectory, joined(parts, 0, parts.size()), log);
  place.parent = std::move(reached);
  return Result::Ok;
}

// A new file whose parents are there; -1 with errno when anything about it needs a closer look.
int ConfinedDir::createBeneath(const std::string& path) {
  if (!m_partByPart && path.size() < PATH_MAX) {
    return openResolved(m_target.fd(), path.c_str(), kNewFile, kFileMode);
  }
  errno = ENOENT;
  return -1;
}

// The directory that the first `count` parts name, resolved beneath the target; -1 with errno.
int ConfinedDir::openBeneath(const Parts& parts, size_t count) {
  if (count == 0) return osOpenAt(m_target.fd(), ".", kPathOnly);
  OsFile reached;
  for (size_t start = 0; start < count;) {
    size_t end = start, length = 0;
    while (end < count && length + parts[end].size() + 1 < PATH_MAX) length += parts[end++].size() + 1;
    if (end == start) {
      errno = ENAMETOOLONG;
      return -1;
    }
    const int from = reached.isOpen() ? reached.fd() : m_target.fd();
    const int opened = openResolved(from, joined(parts, start, end).c_str(), kPathOnly, 0);
    if (opened < 0) return -1;
    reached.reset(opened);
    start = end;
  }
  return reached.release();
}

// EAGAIN: something on the way was renamed meanwhile. EINTR: a signal came.
int ConfinedDir::openResolved(int from, const char* path, int flags, unsigned mode) {
  unsigned long long resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  if (m_links == Links::None) resolve |= RESOLVE_NO_SYMLINKS;
  int fd = -1;
  for (int tries = 0; tries < kTriesWhileChanging;) {
    fd = openat2(from, path, flags, mode, resolve);
    if (fd >= 0 || (errno != EAGAIN && errno != EINTR)) break;
    if (errno == EAGAIN) ++tries;
  }
  return fd;
}

}  // namespace morvane
