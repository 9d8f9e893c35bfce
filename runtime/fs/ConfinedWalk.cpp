// The walk down to a member: every step is relative to an open directory, bounded by the kernel (openat2) or,
// where it has none of that, by passing no link at all.
#include "runtime/fs/ConfinedWalk.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include "runtime/fs/DirAutoCreate.h"
#include "runtime/fs/DirListing.h"

namespace morvane {

namespace {

// A directory on the way needs no right to be read, only to be passed.
constexpr int kPathOnly = O_PATH | O_DIRECTORY;
constexpr unsigned kParentMode = 0777;
// Why something is refused.
constexpr char kPathLeaves[] = "its path leaves the target";
constexpr char kWayIsClosed[] = "a link or file on its way may not be passed";
constexpr char kCannotOpenDirectory[] = "Failed to open directory.";

// False for a path that must be refused: absolute, or with a ".." part or a NUL. It has to be known
// beforehand, because a way that is made part by part is bounded by O_NOFOLLOW alone, and ".." is no link.
bool staysBeneath(const std::string& path) {
  if (hasNul(path) || (!path.empty() && path.front() == '/')) return false;
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

}  // namespace

// EXDEV: the kernel's word for a path that leads out. ELOOP: a link where none may be passed. ENOTDIR: a file
// on the way, or a link where a directory was to be opened; which of the two makes no difference to the
// member, which cannot be put there.
bool ConfinedWalk::isRefused(int error) {
  m_refusal = error == EXDEV ? kPathLeaves : kWayIsClosed;
  return error == EXDEV || error == ELOOP || error == ENOTDIR;
}

bool ConfinedWalk::open(const char* target, Links links, LogBase& log) {
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
  forgetGroup();
  // Old kernels, and containers that forbid what they do not know. Asked here, where EPERM has no other
  // meaning.
  const OsFile probe(openResolved(m_target.fd(), ".", kPathOnly, 0));
  m_partByPart = m_partByPart || (!probe.isOpen() && (errno == ENOSYS || errno == EPERM));
  return true;
}

// The directory's group tells: a new file has that or the process's, and where the two are one there is no
// question. Links are passed as they will be when the file is made.
bool ConfinedWalk::givesOwnGroup(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string directory = path.substr(0, slash == std::string::npos ? 0 : slash);
  if (m_isGroupKnown && m_groupDirectory == directory) return m_isGroupOwn;
  struct stat status;
  if (directory.empty()) {
    if (statusOfTarget(status) != 0) return false;
  } else {
    const OsFile opened(openExisting(directory, kPathOnly, Passing::LinksAsMade));
    if (!opened.isOpen() || opened.status(status) != 0) return false;
  }
  noteGroupOf(directory, status);
  return m_isGroupOwn;
}

void ConfinedWalk::noteGroupOf(std::string directory, const struct stat& status) {
  while (!directory.empty() && directory.back() == '/') directory.pop_back();
  m_groupDirectory = std::move(directory);
  m_isGroupOwn = status.st_gid == getegid();
  m_isGroupKnown = true;
}

// Of a directory with something in it no more than the first names are read.
bool ConfinedWalk::isEmpty() const {
  DirListing listing;
  return listing.readIn(m_target.fd(), ".", false, 0) == 0 && listing.entries.empty();
}

// The reason first: what is logged may change errno.
ConfinedWalk::Result ConfinedWalk::failed(const char* message, const std::string& path, LogBase& log) {
  m_lastError = errno;
  logOsError(log, message, path.c_str(), m_lastError);
  return Result::Failed;
}

ConfinedWalk::Result ConfinedWalk::unmade(int parent, const char* leaf, const std::string& path,
                                          LogBase& log) {
  const Result result = failed(kCannotMakeDirectory, path, log);
  unlinkat(parent, leaf, AT_REMOVEDIR);
  return result;
}

bool ConfinedWalk::isConfinable(const std::string& path) {
  m_refusal = kPathLeaves;
  if (m_links == Links::Anywhere) return !hasNul(path);
  return staysBeneath(path);
}

// Where a path starts: the target, or, where paths may leave it, the root for an absolute one. -1 with errno.
int ConfinedWalk::baseOf(const std::string& path) {
  if (m_links != Links::Anywhere || path.empty() || path.front() != '/') return m_target.fd();
  if (!m_root.isOpen()) m_root.reset(osOpen("/", kPathOnly));
  return m_root.fd();
}

// In one call where it can be: two opens fewer, which on a network are two answers to wait for. A path that
// ends in a slash or "." would have the kernel follow a link there.
int ConfinedWalk::openExisting(const std::string& path, int flags, Passing passing) {
  if (!isConfinable(path)) return -1;
  const std::string leaf = path.substr(path.rfind('/') + 1);
  if (isOneCall(path) && m_links != Links::Anywhere && !leaf.empty() && leaf != ".")
    return openResolved(m_target.fd(), path.c_str(), flags | O_NOFOLLOW, 0, passing == Passing::LinksAsMade);
  Place place;
  if (!openExistingParentOf(path, place, passing)) return -1;
  if (place.leaf.empty()) return osOpenAt(place.parent.fd(), ".", flags);
  return osOpenAt(place.parent.fd(), place.leaf.c_str(), flags | O_NOFOLLOW);
}

// The parent of something that is to be there already: nothing is made. False with errno.
bool ConfinedWalk::openExistingParentOf(const std::string& path, Place& place, Passing passing) {
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
  // Without openat2 no link is passed. The directory before is closed by the assignment, and errno is to be
  // that of the open.
  for (size_t i = 0; place.parent.isOpen() && i < place.parts.size(); ++i) {
    OsFile next(osOpenAt(place.parent.fd(), place.parts[i].c_str(), kPathOnly | O_NOFOLLOW));
    const int error = errno;
    place.parent = std::move(next);
    errno = error;
  }
  return place.parent.isOpen();
}

// Whether a link leads to a directory that members may be put into. Without openat2 nobody can say where a
// link leads without passing it, so none is.
bool ConfinedWalk::isDirectoryInside(const Place& place) {
  if (m_links == Links::None || (m_partByPart && m_links != Links::Anywhere)) return false;
  Parts whole = place.parts;
  whole.push_back(place.leaf);
  // Whether it opens is the answer; nothing is done with the descriptor.
  return OsFile(openBeneath(place.base, whole, whole.size(), 0)).isOpen();
}

// Opens the directory that the path's last part is in; that part is the leaf, empty for the target itself.
// For the target itself nothing is opened, and the parent must not be asked for. The parents of most members
// exist, so the whole path is tried first, in one call.
ConfinedWalk::Result ConfinedWalk::openParentOf(const std::string& path, Place& place, LogBase& log) {
  place.parts = partsOf(path);
  place.base = baseOf(path);
  if (place.parts.empty()) return Result::Ok;
  place.leaf = std::move(place.parts.back());
  place.parts.pop_back();
  if (!m_partByPart || m_links == Links::Anywhere) {
    place.parent.reset(openBeneath(place.base, place.parts, place.parts.size(), 0));
    if (place.parent.isOpen()) return Result::Ok;
    if (isRefused(errno)) return Result::Refused;
    // Something that is missing can be made. Any other failure would meet the same parts again.
    if (errno != ENOENT) return failed(kCannotOpenDirectory, path, log);
  }
  return walkToParent(place, log);
}

// Part by part from the base on, making what is missing. A link on the way is passed only as the kernel
// resolves it beneath the target, or where members may lie anywhere. Such a link is resolved again from the
// base, because it may lead up and down again without leaving the target, which the kernel could not see from
// the directory reached so far.
ConfinedWalk::Result ConfinedWalk::walkToParent(Place& place, LogBase& log) {
  const Parts& parts = place.parts;
  OsFile reached(osOpenAt(place.base, ".", kPathOnly));
  const int noFollow = m_links == Links::Anywhere ? 0 : O_NOFOLLOW;
  size_t length = 0;  // of the path up to here
  for (size_t i = 0; reached.isOpen() && i < parts.size(); ++i) {
    const char* const part = parts[i].c_str();
    length += parts[i].size() + 1;
    OsFile next(osOpenAt(reached.fd(), part, kPathOnly | noFollow));
    if (!next.isOpen() && errno == ENOENT) {
      const bool made = mkdirat(reached.fd(), part, kParentMode) == 0;
      // With EEXIST somebody else was faster: what is there is opened, and is not noted as the run's own.
      if (!made && errno != EEXIST) {
        return failed(kCannotMakeDirectory, joined(parts, 0, parts.size()), log);
      }
      // Without following, because a link may have taken the new directory's place by now.
      next.reset(osOpenAt(reached.fd(), part, kPathOnly | noFollow));
      struct stat status;
      if (made && m_notesParents && next.isOpen()) {
        if (next.status(status) != 0) return unmade(reached.fd(), part, joined(parts, 0, parts.size()), log);
        // All paths of a deep member together would be the square of its own.
        const bool isTold = place.base == m_target.fd() && length <= PATH_MAX;
        m_newParents.push_back({Identity::of(status), isTold ? joined(parts, 0, i + 1) : std::string()});
      }
    }
    if (!next.isOpen() && isRefused(errno)) {
      // Only the kernel can tell whether a link stays in the target, and only by openat2.
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
int ConfinedWalk::createBeneath(const std::string& path, int flags, unsigned mode) {
  if (isOneCall(path)) {
    return openResolved(m_target.fd(), path.c_str(), flags, mode);
  }
  // The kernel is not asked. Any reason would do: whoever called goes the longer way, which has its own.
  errno = ENOENT;
  return -1;
}

// The parent is resolved anew, as for what is made. Nothing is told of a failure: the file is made again in
// its turn, and what is left of it is then in the way like anything else.
void ConfinedWalk::removeBeneath(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string parent = slash == std::string::npos ? "." : path.substr(0, slash);
  const OsFile opened(isOneCall(parent) ? openResolved(m_target.fd(), parent.c_str(), kPathOnly, 0)
                                        : openExisting(parent, kPathOnly, Passing::LinksAsMade));
  if (opened.isOpen()) unlinkat(opened.fd(), path.c_str() + (slash == std::string::npos ? 0 : slash + 1), 0);
}

// The directory that the first `count` parts name, resolved beneath the base; with O_NOFOLLOW as the last
// flags no link is passed at all. -1 with errno. A path that is longer than the kernel takes is opened in
// pieces of whole parts, each beneath the one before. A link in a later piece that leads up past its
// beginning is refused then, although it might stay in the target: that is the safe side, and such paths have
// no links in practice.
int ConfinedWalk::openBeneath(int base, const Parts& parts, size_t count, int lastFlags) {
  if (count == 0) return osOpenAt(base, ".", kPathOnly);
  OsFile reached;
  for (size_t start = 0; start < count;) {
    size_t end = start, length = 0;
    while (end < count && length + parts[end].size() + 1 < PATH_MAX) length += parts[end++].size() + 1;
    // A single part that is longer than the kernel takes of any path.
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
int ConfinedWalk::openResolved(int from, const char* path, int flags, unsigned mode, bool passesLinks) {
  // Without bounds there is nothing for the newer call to keep, and the older one is there on every system.
  if (m_links == Links::Anywhere) return osOpenAt(from, path, flags, mode);
  unsigned long long resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  if (m_links == Links::None || !passesLinks) resolve |= RESOLVE_NO_SYMLINKS;
  int fd = -1;
  for (int tries = 0; tries < kTriesWhileChanging;) {
    fd = osOpenResolved(from, path, flags, mode, resolve);
    if (fd >= 0 || (errno != EAGAIN && errno != EINTR)) break;
    if (errno == EAGAIN) ++tries;
  }
  return fd;
}

}  // namespace morvane
