// The boundary that members must not cross. Everything is done relative to open directories and by calls that
// fail where something is there already (O_EXCL, mkdir, symlink, link), never by looking first and acting
// then: between the two, another process could exchange what was looked at. What is looked at here decides
// only what is removed by name from one open directory, which can do no harm outside of it.
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

// A directory on the way needs no right to be read, only to be passed.
constexpr int kPathOnly = O_PATH | O_DIRECTORY;
constexpr int kNewFile = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
constexpr unsigned kParentMode = 0777;
// Somebody who renames or recreates things in the target all the time makes a member fail, not the run hang.
constexpr int kTriesWhileChanging = 8;
constexpr char kCannotCreate[] = "Failed to create file.";
constexpr char kCannotMakeDirectory[] = "Failed to create directory.";
constexpr char kCannotOpenDirectory[] = "Failed to open directory.";
// Why something is refused.
constexpr char kPathLeaves[] = "its path leaves the target";
constexpr char kWayIsClosed[] = "a link or file on its way may not be passed";
constexpr char kPlaceIsTaken[] = "what is in its place may not be removed";
constexpr char kMayNotBeLinked[] = "what it links to may not have another name";

// False for a path that must be refused: absolute, or with a ".." part or a NUL.
bool staysBeneath(const std::string& path) {
  if (path.find('\0') != std::string::npos || (!path.empty() && path.front() == '/')) return false;
  for (size_t at = path.find(".."); at != std::string::npos; at = path.find("..", at + 1)) {
    const bool starts = at == 0 || path[at - 1] == '/';
    if (starts && (at + 2 == path.size() || path[at + 2] == '/')) return false;
  }
  return true;
}

// Empty parts and "." are left out. A path that ends in ".." has been refused where it must stay beneath the
// target.
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

ConfinedDir::Identity identityOf(const struct stat& status) { return {status.st_dev, status.st_ino}; }

}  // namespace

bool ConfinedDir::open(const char* target, Links links, LogBase& log) {
  m_links = links;
  m_newParents.clear();
  m_target.reset(osOpen(target, kPathOnly));
  if (!m_target.isOpen() && errno == ENOENT && DirAutoCreate::ensureDirUtf8(target, log)) {
    m_target.reset(osOpen(target, kPathOnly));
  }
  if (!m_target.isOpen()) {
    failed("Failed to open the target directory.", target, log);
    return false;
  }
  struct stat status;
  m_handsOnGroup = m_target.status(status) != 0 || (status.st_mode & S_ISGID) != 0;
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

// By identity, because the archive may be reached under several names: by a hard link or another mount of the
// same file system.
bool ConfinedDir::isProtected(const struct stat& status) const {
  return m_hasProtected && status.st_dev == m_protectedDevice && status.st_ino == m_protectedInode;
}

// The reason first: what is logged may change errno.
ConfinedDir::Result ConfinedDir::failed(const char* message, const std::string& path, LogBase& log) {
  m_lastError = errno;
  logOsError(log, message, path.c_str(), m_lastError);
  return Result::Failed;
}

// EXDEV: the kernel's word for a path that leads out. ELOOP: a link where none may be passed. ENOTDIR: a file
// on the way, or a link where a directory was to be opened; which of the two makes no difference to the
// member, which cannot be put there.
bool ConfinedDir::isRefused(int error) {
  m_refusal = error == EXDEV ? kPathLeaves : kWayIsClosed;
  return error == EXDEV || error == ELOOP || error == ENOTDIR;
}

// A directory that was made and cannot be looked at goes again: who comes back to it would take it for one of
// before the run.
ConfinedDir::Result ConfinedDir::unmade(int parent, const char* leaf, const std::string& path, LogBase& log) {
  const Result result = failed(kCannotMakeDirectory, path, log);
  unlinkat(parent, leaf, AT_REMOVEDIR);
  return result;
}

// False for a path that must be refused.
bool ConfinedDir::isConfinable(const std::string& path) {
  m_refusal = kPathLeaves;
  if (m_links == Links::Anywhere) return path.find('\0') == std::string::npos;
  return staysBeneath(path);
}

// Where a path starts: the target, or, where paths may leave it, the root for an absolute one. -1 with errno.
int ConfinedDir::baseOf(const std::string& path) {
  if (m_links != Links::Anywhere || path.empty() || path.front() != '/') return m_target.fd();
  if (!m_root.isOpen()) m_root.reset(osOpen("/", kPathOnly));
  return m_root.fd();
}

// Makes a leaf by a call that fails where something is there, which is then removed. `make` returns -1 with
// errno on failure.
template <class Make>
ConfinedDir::Result ConfinedDir::makeExclusively(const Place& place, const std::string& path, LogBase& log,
                                                 Make make) {
  errno = EISDIR;  // a path without a leaf is the target itself
  for (int tries = 0; !place.leaf.empty() && tries < kTriesWhileChanging; ++tries) {
    if (make(place.parent.fd(), place.leaf.c_str()) >= 0) return Result::Ok;
    if (errno != EEXIST) break;
    const Result cleared = clearTheWay(place, log);
    if (cleared != Result::Ok) return cleared;
    errno = EEXIST;
  }
  return failed(kCannotCreate, path, log);
}

ConfinedDir::Result ConfinedDir::createFile(const std::string& path, unsigned mode, OsFile& file,
                                            LogBase& log) {
  if (!isConfinable(path)) return Result::Refused;
  // Nearly every file has its parents and nothing in its way: one call does it all.
  file.reset(createBeneath(path, mode));
  if (file.isOpen()) return Result::Ok;
  Place place;
  const Result opened = openParentOf(path, place, log);
  if (opened != Result::Ok) return opened;
  return makeExclusively(place, path, log, [&](int parent, const char* leaf) {
    file.reset(osOpenAt(parent, leaf, kNewFile, mode));
    return file.fd();
  });
}

// Opens what has just been made. In a directory that somebody else may write, another thing may have come in
// its place, and nothing must be set of that: it has to be of the kind that was made, the process's own, and
// without another name.
ConfinedDir::Result ConfinedDir::openMade(const Place& place, unsigned type, unsigned long long device,
                                          const std::string& path, OsFile& made, LogBase& log) {
  made.reset(osOpenAt(place.parent.fd(), place.leaf.c_str(), O_PATH | O_NOFOLLOW));
  struct stat status, named;
  if (!made.isOpen() || made.status(status) != 0) return failed(kCannotCreate, path, log);
  // Names are counted as the path is looked up again: another name of something else could have been put here
  // for the moment of the open, and be gone by the time of the first look.
  const bool isNamed = fstatat(place.parent.fd(), place.leaf.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0;
  const bool isIt = isNamed && identityOf(named) == identityOf(status) && named.st_nlink == 1 &&
                    (status.st_mode & S_IFMT) == type && status.st_uid == geteuid() &&
                    ((type != S_IFCHR && type != S_IFBLK) || status.st_rdev == device);
  if (isIt) return Result::Ok;
  made.close();
  errno = ESTALE;
  return failed(kCannotCreate, path, log);
}

// What has no data: made by its name, and then opened by it.
template <class Make>
ConfinedDir::Result ConfinedDir::makeNamed(const std::string& path, unsigned type, unsigned long long device,
                                           OsFile& made, LogBase& log, Make make) {
  if (!isConfinable(path)) return Result::Refused;
  Place place;
  const Result opened = openParentOf(path, place, log);
  if (opened != Result::Ok) return opened;
  const Result result = makeExclusively(place, path, log, make);
  return result == Result::Ok ? openMade(place, type, device, path, made, log) : result;
}

// The text is stored as it is. It may lead anywhere, because links are judged when a later member would pass
// one, and not when they are made.
ConfinedDir::Result ConfinedDir::makeSymbolicLink(const std::string& path, const std::string& text,
                                                  OsFile& made, LogBase& log) {
  return makeNamed(path, S_IFLNK, 0, made, log,
                   [&](int parent, const char* leaf) { return symlinkat(text.c_str(), parent, leaf); });
}

// `mode` has the type. A device needs a privilege, and without it the reason is the system's.
ConfinedDir::Result ConfinedDir::makeNode(const std::string& path, unsigned mode, unsigned long long device,
                                          OsFile& made, LogBase& log) {
  return makeNamed(path, mode & S_IFMT, device, made, log,
                   [&](int parent, const char* leaf) { return mknodat(parent, leaf, mode, device); });
}

// The target is found before parents of the new name are made, so that a link to nothing leaves no
// directories behind. A directory cannot have a second name, and one of the archive itself would let the next
// member write into what is being read. Where the file system has no link for the two, the caller copies.
ConfinedDir::Linked ConfinedDir::makeHardLink(const std::string& path, const std::string& target,
                                              LogBase& log) {
  if (!isConfinable(path) || !isConfinable(target)) return Linked::Refused;
  Place from;
  if (!openExistingParentOf(target, from, Passing::NoLinks) || from.leaf.empty()) {
    if (from.leaf.empty()) m_refusal = kMayNotBeLinked;
    if (from.leaf.empty() || isRefused(errno)) return Linked::Refused;
    return errno == ENOENT ? Linked::Missing : (failed(kCannotCreate, path, log), Linked::Failed);
  }
  struct stat old, there;
  if (fstatat(from.parent.fd(), from.leaf.c_str(), &old, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? Linked::Missing : (failed(kCannotCreate, path, log), Linked::Failed);
  }
  if (S_ISDIR(old.st_mode) || isProtected(old)) {
    m_refusal = kMayNotBeLinked;
    return Linked::Refused;
  }
  Place place;
  const Result opened = openParentOf(path, place, log);
  if (opened != Result::Ok) return opened == Result::Refused ? Linked::Refused : Linked::Failed;
  // A second name that is there already must not be removed: it may be the only one that is left.
  if (!place.leaf.empty() &&
      fstatat(place.parent.fd(), place.leaf.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 &&
      identityOf(there) == identityOf(old)) {
    return Linked::Ok;
  }
  bool cannot = false;
  const Result result = makeExclusively(place, path, log, [&](int parent, const char* leaf) {
    const int made = linkat(from.parent.fd(), from.leaf.c_str(), parent, leaf, 0);
    // EXDEV: another file system. EPERM: one without links, or a file that only its owner may link to.
    // EMLINK: it has as many names as it may.
    cannot = made != 0 && (errno == EXDEV || errno == EPERM || errno == EMLINK);
    return cannot ? 0 : made;
  });
  if (cannot) return Linked::CannotLink;
  return result == Result::Ok ? Linked::Ok : result == Result::Refused ? Linked::Refused : Linked::Failed;
}

int ConfinedDir::openExisting(const std::string& path, int flags, Passing passing) {
  Place place;
  if (!isConfinable(path) || !openExistingParentOf(path, place, passing)) return -1;
  if (place.leaf.empty()) return osOpenAt(place.parent.fd(), ".", flags);
  return osOpenAt(place.parent.fd(), place.leaf.c_str(), flags | O_NOFOLLOW);
}

// The parent of something that is to be there already: nothing is made. False with errno.
bool ConfinedDir::openExistingParentOf(const std::string& path, Place& place, Passing passing) {
  place.parts = partsOf(path);
  place.base = baseOf(path);
  if (!place.parts.empty()) {
    place.leaf = std::move(place.parts.back());
    place.parts.pop_back();
  }
  if (m_links == Links::Anywhere || !m_partByPart) {
    const int lastFlags = passing == Passing::NoLinks ? O_NOFOLLOW : 0;
    place.parent.reset(openBeneath(place.base, place.parts, place.parts.size(), lastFlags));
    return place.parent.isOpen();
  }
  place.parent.reset(osOpenAt(place.base, ".", kPathOnly));
  for (size_t i = 0; place.parent.isOpen() && i < place.parts.size(); ++i) {
    OsFile next(osOpenAt(place.parent.fd(), place.parts[i].c_str(), kPathOnly | O_NOFOLLOW));
    const int error = errno;
    place.parent = std::move(next);
    errno = error;
  }
  return place.parent.isOpen();
}

// Removes what stands where a member is to be made. unlinkat never follows a link and never removes a
// directory that has something in it: nothing below a name is lost that was not itself in the way. A file
// that has gone by itself is no failure.
ConfinedDir::Result ConfinedDir::clearTheWay(const Place& place, LogBase& log) {
  const int parent = place.parent.fd();
  const char* const leaf = place.leaf.c_str();
  struct stat status;
  if (fstatat(parent, leaf, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? Result::Ok : failed("Failed to examine what is in the way.", place.leaf, log);
  }
  // Not even to make room for a member of the archive's own name.
  m_refusal = kPlaceIsTaken;
  if (isProtected(status)) return Result::Refused;
  const bool isDirectory = S_ISDIR(status.st_mode);
  if (unlinkat(parent, leaf, isDirectory ? AT_REMOVEDIR : 0) == 0 || errno == ENOENT) return Result::Ok;
  // Two words of one system for a directory that has something in it.
  if (isDirectory && (errno == ENOTEMPTY || errno == EEXIST)) return Result::Refused;
  return failed("Failed to remove what is in the way.", place.leaf, log);
}

// A directory that is there is used as it is, and so is a link to one that members may pass: administrators
// move directories to other disks that way. Any other thing in its place is removed and mkdir tried again.
// Whether a new one is looked at depends on whether anybody asks for its identity: for most runs that would
// be a call wasted on each directory.
ConfinedDir::Result ConfinedDir::makeDirectory(const std::string& path, unsigned mode, MadeDirectory& made,
                                               LogBase& log) {
  made = MadeDirectory();
  if (!isConfinable(path)) return Result::Refused;
  Place place;
  const Result opened = openParentOf(path, place, log);
  if (opened != Result::Ok) return opened;
  if (place.leaf.empty()) {  // it is the target itself
    struct stat status;
    made.isKnown = m_notesParents && m_target.status(status) == 0;
    if (made.isKnown) made.identity = identityOf(status);
    return Result::Ok;
  }
  const int parent = place.parent.fd();
  const char* const leaf = place.leaf.c_str();
  for (int tries = 0; tries < kTriesWhileChanging; ++tries) {
    made.isNew = mkdirat(parent, leaf, mode) == 0;
    if (!made.isNew && errno != EEXIST) break;
    if (made.isNew && !m_notesParents) return Result::Ok;  // nobody asks which it is
    struct stat status;
    if (fstatat(parent, leaf, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) continue;  // somebody was faster to remove it
      if (made.isNew) return unmade(parent, leaf, path, log);
      break;
    }
    if (S_ISDIR(status.st_mode)) {
      made.identity = identityOf(status);
      // One that was moved into its place meanwhile is not what was made.
      made.isKnown = !made.isNew || status.st_uid == geteuid();
      m_handsOnGroup |= (status.st_mode & S_ISGID) != 0;
      return Result::Ok;
    }
    if (S_ISLNK(status.st_mode) && isDirectoryInside(place)) return Result::Ok;
    const Result cleared = clearTheWay(place, log);
    if (cleared != Result::Ok) return cleared;
    errno = EEXIST;
  }
  return failed(kCannotMakeDirectory, path, log);
}

// Whether a link leads to a directory that members may be put into. Without openat2 nobody can say where a
// link leads without passing it, so none is.
bool ConfinedDir::isDirectoryInside(const Place& place) {
  if (m_links == Links::None || (m_partByPart && m_links != Links::Anywhere)) return false;
  Parts whole = place.parts;
  whole.push_back(place.leaf);
  return OsFile(openBeneath(place.base, whole, whole.size(), 0)).isOpen();
}

// Opens the directory that the path's last part is in; that part is the leaf, empty for the target itself.
// For the target itself nothing is opened, and the parent must not be asked for. The parents of most members
// exist, so the whole path is tried first, in one call.
ConfinedDir::Result ConfinedDir::openParentOf(const std::string& path, Place& place, LogBase& log) {
  place.parts = partsOf(path);
  place.base = baseOf(path);
  if (place.parts.empty()) return Result::Ok;
  place.leaf = std::move(place.parts.back());
  place.parts.pop_back();
  if (!m_partByPart || m_links == Links::Anywhere) {
    place.parent.reset(openBeneath(place.base, place.parts, place.parts.size(), 0));
    if (place.parent.isOpen()) return Result::Ok;
    if (isRefused(errno)) return Result::Refused;
    if (errno != ENOENT) return failed(kCannotOpenDirectory, path, log);
  }
  return walkToParent(place, log);
}

// Part by part from the base on, making what is missing. A link on the way is passed only as the kernel
// resolves it beneath the target, or where members may lie anywhere. Such a link is resolved again from the
// base, because it may lead up and down again without leaving the target, which the kernel could not see from
// the directory reached so far.
ConfinedDir::Result ConfinedDir::walkToParent(Place& place, LogBase& log) {
  const Parts& parts = place.parts;
  OsFile reached(osOpenAt(place.base, ".", kPathOnly));
  const int noFollow = m_links == Links::Anywhere ? 0 : O_NOFOLLOW;
  for (size_t i = 0; reached.isOpen() && i < parts.size(); ++i) {
    const char* const part = parts[i].c_str();
    OsFile next(osOpenAt(reached.fd(), part, kPathOnly | noFollow));
    if (!next.isOpen() && errno == ENOENT) {
      const bool made = mkdirat(reached.fd(), part, kParentMode) == 0;
      if (!made && errno != EEXIST) {
        return failed(kCannotMakeDirectory, joined(parts, 0, parts.size()), log);
      }
      next.reset(osOpenAt(reached.fd(), part, kPathOnly | noFollow));
      struct stat status;
      if (made && m_notesParents && next.isOpen()) {
        if (next.status(status) != 0) return unmade(reached.fd(), part, joined(parts, 0, parts.size()), log);
        m_newParents.push_back(identityOf(status));
      }
    }
    if (!next.isOpen() && isRefused(errno)) {
      if (m_partByPart || m_links != Links::InsideTarget) return Result::Refused;
      next.reset(openBeneath(place.base, parts, i + 1, 0));
      // A link to nothing is refused too: making what it names might be making it elsewhere.
      if (!next.isOpen() && (isRefused(errno) || errno == ENOENT)) return Result::Refused;
    }
    const int error = errno;
    reached = std::move(next);
    errno = error;  // of the open, not of the close
  }
  if (!reached.isOpen()) return failed(kCannotOpenDirectory, joined(parts, 0, parts.size()), log);
  place.parent = std::move(reached);
  return Result::Ok;
}

// A new file whose parents are there; -1 with errno when anything about it needs a closer look. The kernel
// resolves the parents and creates the file in one step: there is no moment in which a part of the path could
// be exchanged.
int ConfinedDir::createBeneath(const std::string& path, unsigned mode) {
  if (!m_partByPart && path.size() < PATH_MAX) {
    return openResolved(m_target.fd(), path.c_str(), kNewFile, mode);
  }
  errno = ENOENT;
  return -1;
}

// The directory that the first `count` parts name, resolved beneath the base; with O_NOFOLLOW as the last
// flags no link is passed at all. -1 with errno. A path that is longer than the kernel takes is opened in
// pieces of whole parts, each beneath the one before. A link in a later piece that leads up past its
// beginning is refused then, although it might stay in the target: that is the safe side, and such paths have
// no links in practice.
int ConfinedDir::openBeneath(int base, const Parts& parts, size_t count, int lastFlags) {
  if (count == 0) return osOpenAt(base, ".", kPathOnly);
  OsFile reached;
  for (size_t start = 0; start < count;) {
    size_t end = start, length = 0;
    while (end < count && length + parts[end].size() + 1 < PATH_MAX) length += parts[end++].size() + 1;
    if (end == start) {
      errno = ENAMETOOLONG;
      return -1;
    }
    const int from = reached.isOpen() ? reached.fd() : base;
    const std::string piece = joined(parts, start, end);
    const int opened = openResolved(from, piece.c_str(), kPathOnly | lastFlags, 0, lastFlags == 0);
    if (opened < 0) return -1;
    reached.reset(opened);
    start = end;
  }
  return reached.release();
}

// EAGAIN: something on the way was renamed meanwhile. EINTR: a signal came. The first are counted, because
// somebody may keep on renaming; signals end by themselves. Magic links are those of /proc, which lead to
// open files wherever these are.
int ConfinedDir::openResolved(int from, const char* path, int flags, unsigned mode, bool passesLinks) {
  // Without bounds there is nothing for the newer call to keep, and the older one is there on every system.
  if (m_links == Links::Anywhere) return osOpenAt(from, path, flags, mode);
  unsigned long long resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  if (m_links == Links::None || !passesLinks) resolve |= RESOLVE_NO_SYMLINKS;
  int fd = -1;
  for (int tries = 0; tries < kTriesWhileChanging;) {
    fd = openat2(from, path, flags, mode, resolve);
    if (fd >= 0 || (errno != EAGAIN && errno != EINTR)) break;
    if (errno == EAGAIN) ++tries;
  }
  return fd;
}

}  // namespace morvane
