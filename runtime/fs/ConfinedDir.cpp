// The boundary that members must not cross. Everything is done relative to open directories and by calls that
// fail where something is there already (O_EXCL, mkdir, symlink, link), never by looking first and acting
// then: between the two, another process could exchange what was looked at. What is looked at here decides
// only what is removed by name from one open directory, which can do no harm outside of it.
#include "runtime/fs/ConfinedDir.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "runtime/fs/mvFileInfo.h"

namespace morvane {

namespace {

// O_EXCL makes the file or fails. The other flags are for file systems on which O_EXCL is not exact, as on
// old network ones: the open then does not follow a link, wait for a FIFO's reader or take a terminal.
constexpr int kNewFile = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
// Why something is refused.
constexpr char kPlaceIsTaken[] = "what is in its place may not be removed";
constexpr char kMayNotBeLinked[] = "what it links to may not have another name";

}  // namespace

void ConfinedDir::protect(const mvFileInfo& file) {
  m_hasProtected = true;
  m_protected = {file.m_device, file.m_inode};
}

// By identity, because the archive may be reached under several names: by a hard link or another mount of the
// same file system.
bool ConfinedDir::isProtected(const struct stat& status) const {
  return m_hasProtected && Identity::of(status) == m_protected;
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
    if (m_keepsExisting) return Result::Exists;
    const Result cleared = clearTheWay(place, log);
    if (cleared != Result::Ok) return cleared;
    // The reason for the log, if this was the last try: what was removed is there once more.
    errno = EEXIST;
  }
  return failed(kCannotCreate, path, log);
}

ConfinedDir::Result ConfinedDir::createFile(const std::string& path, unsigned mode, OsFile& file,
                                            LogBase& log) {
  if (!isConfinable(path)) return Result::Refused;
  // Nearly every file has its parents and nothing in its way: one call does it all. Whatever it failed for is
  // met again below, and told there.
  file.reset(createBeneath(path, kNewFile, mode));
  if (file.isOpen()) return Result::Ok;
  Place place;
  const Result opened = openParentOf(path, place, log);
  if (opened != Result::Ok) return opened;
  return makeExclusively(place, path, log, [&](int parent, const char* leaf) {
    file.reset(osOpenAt(parent, leaf, kNewFile, mode));
    return file.fd();
  });
}

int ConfinedDir::createNew(const std::string& path, unsigned mode) {
  return createBeneath(path, kNewFile, mode);
}

// Opens what has just been made. In a directory that somebody else may write, another thing may have come in
// its place, and nothing must be set of that: it has to be of the kind that was made, without another name,
// and the process's own.
ConfinedDir::Result ConfinedDir::openMade(const Place& place, unsigned type, unsigned long long device,
                                          const std::string& path, OsFile& made, LogBase& log) {
  // It is opened with O_PATH, because any other open of a FIFO or device waits for somebody or has effects.
  made.reset(osOpenAt(place.parent.fd(), place.leaf.c_str(), O_PATH | O_NOFOLLOW));
  struct stat status, named;
  if (!made.isOpen() || made.status(status) != 0) return failed(kCannotCreate, path, log);
  // Names are counted as the path is looked up again: another name of something else could have been put here
  // for the moment of the open, and be gone by the time of the first look.
  const bool isNamed = fstatat(place.parent.fd(), place.leaf.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0;
  const bool isIt = isNamed && Identity::of(named) == Identity::of(status) && named.st_nlink == 1 &&
                    (status.st_mode & S_IFMT) == type &&
                    ((type != S_IFCHR && type != S_IFBLK) || status.st_rdev == device);
  const bool isOurs = status.st_uid == geteuid();
  if (isIt && isOurs) return Result::Ok;
  made.close();
  // Of its kind, but another's: as for directories, the file system may give everything to one owner.
  if (isIt) return Result::Ok;
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

// No link on the way is followed, as for a link that is to be made.
bool ConfinedDir::lookAt(const std::string& path, struct stat& status) {
  Place place;
  return isConfinable(path) && openExistingParentOf(path, place, Passing::NoLinks) &&
         fstatat(place.parent.fd(), place.leaf.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

bool ConfinedDir::isThere(const std::string& path) {
  struct stat status;
  return lookAt(path, status);
}

bool ConfinedDir::isOneFile(const std::string& path, const std::string& other) {
  struct stat one, another;
  return lookAt(path, one) && lookAt(other, another) && !S_ISDIR(one.st_mode) &&
         Identity::of(one) == Identity::of(another);
}

// The target is found before parents of the new name are made, so that a link to nothing leaves no
// directories behind. A directory cannot have a second name, and one of the archive itself would let the next
// member write into what is being read. Where the file system has no link for the two, the caller copies.
ConfinedDir::Linked ConfinedDir::makeHardLink(const std::string& path, const std::string& target,
                                              LogBase& log) {
  if (!isConfinable(path) || !isConfinable(target)) return Linked::Refused;
  Place from;
  if (!openExistingParentOf(target, from, Passing::NoLinks) || from.leaf.empty()) {
    if (from.leaf.empty()) setRefusal(kMayNotBeLinked);
    if (from.leaf.empty() || isRefused(errno)) return Linked::Refused;
    return errno == ENOENT ? Linked::Missing : (failed(kCannotCreate, path, log), Linked::Failed);
  }
  struct stat old, there;
  if (fstatat(from.parent.fd(), from.leaf.c_str(), &old, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? Linked::Missing : (failed(kCannotCreate, path, log), Linked::Failed);
  }
  if (S_ISDIR(old.st_mode) || isProtected(old)) {
    setRefusal(kMayNotBeLinked);
    return Linked::Refused;
  }
  Place place;
  const Result opened = openParentOf(path, place, log);
  if (opened != Result::Ok) return opened == Result::Refused ? Linked::Refused : Linked::Failed;
  // A second name that is there already must not be removed: it may be the only one that is left.
  if (!place.leaf.empty() &&
      fstatat(place.parent.fd(), place.leaf.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 &&
      Identity::of(there) == Identity::of(old)) {
    return Linked::Ok;
  }
  bool cannot = false;
  const Result result = makeExclusively(place, path, log, [&](int parent, const char* leaf) {
    // Without AT_SYMLINK_FOLLOW: a link that has come in the target's place since gets the name for itself,
    // and what it points at gets none.
    const int made = linkat(from.parent.fd(), from.leaf.c_str(), parent, leaf, 0);
    // EXDEV: another file system. EPERM: one without links, or a file that only its owner may link to.
    // EMLINK: it has as many names as it may.
    cannot = made != 0 && (errno == EXDEV || errno == EPERM || errno == EMLINK);
    // 0 ends the tries without a line in the log, because the caller can still copy.
    return cannot ? 0 : made;
  });
  if (cannot) return Linked::CannotLink;
  switch (result) {
    case Result::Ok:
      return Linked::Ok;
    case Result::Refused:
      return Linked::Refused;
    case Result::Exists:
      return Linked::Exists;
    case Result::Failed:
      break;
  }
  return Linked::Failed;
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
  forgetGroup();  // what goes may be the directory that was looked at, and a link come in its place
  // Not even to make room for a member of the archive's own name. The words count only where the result is
  // Refused.
  setRefusal(kPlaceIsTaken);
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
    // The member "." may have metadata for the target. It counts as one that was there, even if open has made
    // it.
    made.isKnown = notesParents() && statusOfTarget(status) == 0;
    if (made.isKnown) made.identity = Identity::of(status);
    return Result::Ok;
  }
  const int parent = place.parent.fd();
  const char* const leaf = place.leaf.c_str();
  for (int tries = 0; tries < kTriesWhileChanging; ++tries) {
    made.isNew = mkdirat(parent, leaf, mode) == 0;
    if (!made.isNew && errno != EEXIST) break;
    if (made.isNew && !notesParents()) return Result::Ok;  // nobody asks which it is
    struct stat status;
    if (fstatat(parent, leaf, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) continue;  // somebody was faster to remove it
      if (made.isNew) return unmade(parent, leaf, path, log);
      break;
    }
    if (S_ISDIR(status.st_mode)) {
      made.identity = Identity::of(status);
      made.isForeign = made.isNew && status.st_uid != geteuid();
      made.isKnown = !made.isForeign;
      noteGroupOf(path, status);
      return Result::Ok;
    }
    if (S_ISLNK(status.st_mode) && isDirectoryInside(place)) return Result::Ok;
    if (m_keepsExisting) return Result::Exists;
    const Result cleared = clearTheWay(place, log);
    if (cleared != Result::Ok) return cleared;
    errno = EEXIST;
  }
  return failed(kCannotMakeDirectory, path, log);
}

}  // namespace morvane
