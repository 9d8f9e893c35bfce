#include "runtime/fs/ConfinedDir.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "runtime/fs/DirAutoCreate.h"
#include "runtime/fs/mvFileInfo.h"

namespace morvane {

namespace {

constexpr int kPathOnly = O_PATH | O_DIRECTORY;
constexpr int kTriesWhileChanging = 8;

// False for a path that must be refused: absolute, or with a ".." part or a NUL. Empty parts and "." are left
// out.
bool splitParts(std::string_view path, std::vector<std::string>& parts) {
  if (path.find('\0') != std::string_view::npos || (!path.empty() && path.front() == '/')) return false;
  for (size_t start = 0; start < path.size();) {
    const size_t end = std::min(path.find('/', start), path.size());
    const std::string_view part = path.substr(start, end - start);
    start = end + 1;
    if (part == "..") return false;
    if (!part.empty() && part != ".") parts.emplace_back(part);
  }
  return true;
}

std::string joined(const std::vector<std::string>& parts, size_t from, size_t to) {
  std::string path;
  for (size_t i = from; i < to; ++i) (path.empty() ? path : path += '/') += parts[i];
  return path;
}

int openat2(int from, const char* path, unsigned long long resolve) {
  open_how how{};
  how.flags = kPathOnly;
  how.resolve = resolve;
  return static_cast<int>(::syscall(SYS_openat2, from, path, &how, sizeof how));
}

bool leavesTheTarget(int error) { return error == EXDEV || error == ELOOP || error == ENOTDIR; }

}  // namespace

bool ConfinedDir::open(const char* target, Links links, LogBase& log) {
  m_links = links;
  forgetParent();
  m_target.reset(osOpen(target, kPathOnly));
  if (!m_target.isOpen() && errno == ENOENT && DirAutoCreate::ensureDirUtf8(target, log)) {
    m_target.reset(osOpen(target, kPathOnly));
  }
  if (!m_target.isOpen()) logOsError(log, "Failed to open the target directory.", target, errno);
  return m_target.isOpen();
}

void ConfinedDir::protect(const mvFileInfo& file) {
  m_hasProtected = true;
  m_protectedDevice = file.m_device;
  m_protectedInode = file.m_inode;
}

bool ConfinedDir::isProtected(const struct stat& status) const {
  return m_hasProtected && status.st_dev == m_protectedDevice && status.st_ino == m_protectedInode;
}

void ConfinedDir::forgetParent() {
  m_parent.close();
  m_parentParts.clear();
}

ConfinedDir::Result ConfinedDir::failed(const char* message, const Parts& parts, LogBase& log) {
  logOsError(log, message, joined(parts, 0, parts.size()).c_str(), errno);
  return Result::Failed;
}

ConfinedDir::Result ConfinedDir::createFile(std::string_view path, OsFile& file, LogBase& log) {
  Parts parts;
  if (!splitParts(path, parts)) return Result::Refused;
  if (parts.empty()) {
    errno = EISDIR;
    return failed("Failed to create file.", parts, log);
  }
  const std::string leaf = parts.back();
  parts.pop_back();
  const Result parent = openParent(parts, log);
  if (parent != Result::Ok) return parent;
  parts.push_back(leaf);
  constexpr int kExclusive = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  for (int tries = 0; tries < kTriesWhileChanging; ++tries) {
    file.reset(osOpenAt(m_parent.fd(), leaf.c_str(), kExclusive, 0666));
    if (file.isOpen()) return Result::Ok;
    if (errno != EEXIST) break;
    const Result cleared = clearTheWay(leaf, log);
    if (cleared != Result::Ok) return cleared;
  }
  return failed("Failed to create file.", parts, log);
}

// Removes what stands where a file is to be made.
ConfinedDir::Result ConfinedDir::clearTheWay(const std::string& leaf, LogBase& log) {
  struct stat status;
  if (fstatat(m_parent.fd(), leaf.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? Result::Ok : failed("Failed to examine what is in the way.", {leaf}, log);
  }
  if (isProtected(status)) return Result::Refused;
  const bool isDirectory = S_ISDIR(status.st_mode);
  if (unlinkat(m_parent.fd(), leaf.c_str(), isDirectory ? AT_REMOVEDIR : 0) == 0 || errno == ENOENT)
    return Result::Ok;
  if (isDirectory && (errno == ENOTEMPTY || errno == EEXIST)) return Result::Refused;
  return failed("Failed to remove what is in the way.", {leaf}, log);
}

ConfinedDir::Result ConfinedDir::makeDirectory(std::string_view path, LogBase& log) {
  Parts parts;
  if (!splitParts(path, parts)) return Result::Refused;
  if (parts.empty()) return Result::Ok;  // the target itself
  const Parts whole = parts;
  const std::string leaf = parts.back();
  parts.pop_back();
  const Result parent = openParent(parts, log);
  if (parent != Result::Ok) return parent;
  for (int tries = 0; tries < kTriesWhileChanging; ++tries) {
    if (mkdirat(m_parent.fd(), leaf.c_str(), 0777) == 0) return Result::Ok;
    if (errno != EEXIST) break;
    struct stat status;
    if (fstatat(m_parent.fd(), leaf.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (S_ISDIR(status.st_mode)) return Result::Ok;
    if (S_ISLNK(status.st_mode) && m_links == Links::InsideTarget && !m_partByPart) {
      if (const OsFile inside(openBeneath(whole, whole.size())); inside.isOpen()) return Result::Ok;
    }
    const Result cleared = clearTheWay(leaf, log);
    if (cleared != Result::Ok) return cleared;
  }
  return failed("Failed to create directory.", whole, log);
}

// Opens the directory that the parts name into m_parent.
ConfinedDir::Result ConfinedDir::openParent(const Parts& parts, LogBase& log) {
  if (m_parent.isOpen() && parts == m_parentParts) return Result::Ok;
  OsFile opened(m_partByPart ? -1 : openBeneath(parts, parts.size()));
  if (opened.isOpen()) {
    m_parent = std::move(opened);
    m_parentParts = parts;
    return Result::Ok;
  }
  if (!m_partByPart && errno != ENOENT) {
    return leavesTheTarget(errno) ? Result::Refused : failed("Failed to open directory.", parts, log);
  }
  return walkToParent(parts, log);
}

// Part by part from the target on, making what is missing. A link on the way is passed only as the kernel
// resolves it beneath the target.
ConfinedDir::Result ConfinedDir::walkToParent(const Parts& parts, LogBase& log) {
  OsFile reached(osOpenAt(m_target.fd(), ".", kPathOnly));
  for (size_t i = 0; reached.isOpen() && i < parts.size(); ++i) {
    const char* const part = parts[i].c_str();
    OsFile next(osOpenAt(reached.fd(), part, kPathOnly | O_NOFOLLOW));
    if (!next.isOpen() && errno == ENOENT) {
      if (mkdirat(reached.fd(), part, 0777) != 0 && errno != EEXIST) {
        return failed("Failed to create directory.", parts, log);
      }
      next.reset(osOpenAt(reached.fd(), part, kPathOnly | O_NOFOLLOW));
    }
    if (!next.isOpen() && leavesTheTarget(errno)) {
      if (m_partByPart || m_links == Links::None) return Result::Refused;
      next.reset(openBeneath(parts, i + 1));
      // A link to nothing is refused too: making what it names might be making it elsewhere.
      if (!next.isOpen() && (leavesTheTarget(errno) || errno == ENOENT)) return Result::Refused;
    }
    reached = std::move(next);
  }
  if (!reached.isOpen()) return failed("Failed to open directory.", parts, log);
  m_parent = std::move(reached);
  m_parentParts = parts;
  return Result::Ok;
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
    const int opened =
        openResolved(reached.isOpen() ? reached.fd() : m_target.fd(), joined(parts, start, end));
    if (opened < 0) return -1;
    reached.reset(opened);
    start = end;
  }
  return reached.release();
}

int ConfinedDir::openResolved(int from, const std::string& path) {
  unsigned long long resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  if (m_links == Links::None) resolve |= RESOLVE_NO_SYMLINKS;
  int fd = -1;
  for (int tries = 0; tries < kTriesWhileChanging; ++tries) {
    fd = openat2(from, path.c_str(), resolve);
    if (fd >= 0 || errno != EAGAIN) break;
  }
  // Old kernels, and containers that forbid what they do not know.
  if (fd < 0 && (errno == ENOSYS || errno == EPERM)) {
    m_partByPart = true;
    errno = ENOENT;  // the way part by part decides
  }
  return fd;
}

}  // namespace morvane
