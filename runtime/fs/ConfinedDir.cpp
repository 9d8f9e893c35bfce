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
  forgetParents();
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

ConfinedDir::Result ConfinedDir::failed(const char* message, const Parts& parts, LogBase& log) {
  logOsError(log, message, joined(parts, 0, parts.size()).c_str(), errno);
  return Result::Failed;
}

ConfinedDir::Result ConfinedDir::failed(const char* message, std::string_view path, LogBase& log) {
  const int error = errno;
  Parts parts;
  splitParts(path, parts);
  errno = error;
  return failed(message, parts, log);
}

ConfinedDir::Result ConfinedDir::createFile(std::string_view path, OsFile& file, LogBase& log) {
  std::string leaf;
  const Result parent = openParentOf(path, leaf, log);
  if (parent != Result::Ok) return parent;
  if (leaf.empty()) {
    errno = EISDIR;
    return failed("Failed to create file.", path, log);
  }
  constexpr int kExclusive = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  for (int tries = 0; tries < kTriesWhileChanging; ++tries) {
    file.reset(osOpenAt(m_parent.dir.fd(), leaf.c_str(), kExclusive, 0666));
    if (file.isOpen()) return Result::Ok;
    if (errno == ENOENT && !m_parentIsFresh) {
      const Result reopened = reopenParentOf(path, leaf, log);
      if (reopened != Result::Ok) return reopened;
      continue;
    }
    if (errno != EEXIST) break;
    const Result cleared = clearTheWay(leaf, log);
    if (cleared != Result::Ok) return cleared;
  }
  return failed("Failed to create file.", path, log);
}

// Removes what stands where a file is to be made. A directory kept from before may have been reached through
// it.
ConfinedDir::Result ConfinedDir::clearTheWay(const std::string& leaf, LogBase& log) {
  m_parentBefore = KeptDir();
  struct stat status;
  if (fstatat(m_parent.dir.fd(), leaf.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? Result::Ok : failed("Failed to examine what is in the way.", leaf, log);
  }
  if (isProtected(status)) return Result::Refused;
  const bool isDirectory = S_ISDIR(status.st_mode);
  if (unlinkat(m_parent.dir.fd(), leaf.c_str(), isDirectory ? AT_REMOVEDIR : 0) == 0 || errno == ENOENT)
    return Result::Ok;
  if (isDirectory && (errno == ENOTEMPTY || errno == EEXIST)) return Result::Refused;
  return failed("Failed to remove what is in the way.", leaf, log);
}

ConfinedDir::Result ConfinedDir::makeDirectory(std::string_view path, LogBase& log) {
  std::string leaf;
  const Result parent = openParentOf(path, leaf, log);
  if (parent != Result::Ok || leaf.empty()) return parent;  // without a leaf it is the target itself
  for (int tries = 0; tries < kTriesWhileChanging; ++tries) {
    if (mkdirat(m_parent.dir.fd(), leaf.c_str(), 0777) == 0) return Result::Ok;
    if (errno == ENOENT && !m_parentIsFresh) {
      const Result reopened = reopenParentOf(path, leaf, log);
      if (reopened != Result::Ok) return reopened;
      continue;
    }
    if (errno != EEXIST) break;
    struct stat status;
    if (fstatat(m_parent.dir.fd(), leaf.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (S_ISDIR(status.st_mode)) return Result::Ok;
    if (S_ISLNK(status.st_mode) && m_links == Links::InsideTarget && !m_partByPart) {
      Parts whole = m_parent.parts;
      whole.push_back(leaf);
      if (const OsFile inside(openBeneath(whole, whole.size())); inside.isOpen()) return Result::Ok;
    }
    const Result cleared = clearTheWay(leaf, log);
    if (cleared != Result::Ok) return cleared;
  }
  return failed("Failed to create directory.", path, log);
}

// Whether the path is the kept parent's, as it was spelled before, with a plain name behind it: most files
// follow another one in their directory.
bool ConfinedDir::isKeptParentOf(std::string_view path) const {
  const std::string& spelling = m_parent.spelling;
  if (!m_parent.dir.isOpen() || spelling.empty() || path.size() <= spelling.size() + 1) return false;
  if (path.compare(0, spelling.size(), spelling) != 0 || path[spelling.size()] != '/') return false;
  const std::string_view leaf = path.substr(spelling.size() + 1);
  return leaf != "." && leaf != ".." && leaf.find('/') == std::string_view::npos &&
         leaf.find('\0') == std::string_view::npos;
}

// Opens the directory that the path's last part is in; that part is the leaf, empty for the target itself.
ConfinedDir::Result ConfinedDir::openParentOf(std::string_view path, std::string& leaf, LogBase& log) {
  m_parentIsFresh = false;
  if (isKeptParentOf(path)) {
    leaf = path.substr(m_parent.spelling.size() + 1);
    return Result::Ok;
  }
  Parts parts;
  if (!splitParts(path, parts)) return Result::Refused;
  leaf.clear();
  if (parts.empty()) return Result::Ok;
  leaf = parts.back();
  parts.pop_back();
  const Result opened = openParent(parts, log);
  const size_t end = path.size() - std::min(path.size(), leaf.size() + 1);
  if (opened == Result::Ok && path.substr(end + 1) == leaf) m_parent.spelling = path.substr(0, end);
  return opened;
}

void ConfinedDir::forgetParents() {
  m_parent = KeptDir();
  m_parentBefore = KeptDir();
}

// For a kept parent that somebody has removed.
ConfinedDir::Result ConfinedDir::reopenParentOf(std::string_view path, std::string& leaf, LogBase& log) {
  forgetParents();
  return openParentOf(path, leaf, log);
}

// Opens the directory that the parts name into m_parent.
ConfinedDir::Result ConfinedDir::openParent(const Parts& parts, LogBase& log) {
  if (m_parent.dir.isOpen() && parts == m_parent.parts) return Result::Ok;
  if (m_parentBefore.dir.isOpen() && parts == m_parentBefore.parts) {
    std::swap(m_parent, m_parentBefore);
    return Result::Ok;
  }
  OsFile opened(m_partByPart ? -1 : openBeneath(parts, parts.size()));
  if (opened.isOpen()) {
    keepParent(std::move(opened), parts);
    return Result::Ok;
  }
  if (!m_partByPart && errno != ENOENT) {
    return leavesTheTarget(errno) ? Result::Refused : failed("Failed to open directory.", parts, log);
  }
  return walkToParent(parts, log);
}

void ConfinedDir::keepParent(OsFile dir, const Parts& parts) {
  m_parentBefore = std::move(m_parent);
  m_parent = KeptDir{std::move(dir), parts, ""};
  m_parentIsFresh = true;
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
  keepParent(std::move(reached), parts);
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
