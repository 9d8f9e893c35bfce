// The walk holds one level for each directory on the way down: its names, read at once and sorted, and its
// descriptor. Entries are opened and examined relative to that descriptor, never by a whole path, so that a
// directory that is renamed or replaced on the way cannot lead the walk elsewhere, and depth has no limit.
#include "runtime/fs/ClsDirTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "runtime/log/LogBase.h"
#include "runtime/text/XString.h"

namespace morvane {

namespace {

constexpr char kCannotRead[] = "Failed to read directory.";
// The levels nearest to the current entry stay open; those above are closed, and opened again on the way
// back. Deeper trees are rare, and most processes may have 1,024 files open.
constexpr size_t kOpenLevels = 32;
constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY;

}  // namespace

// The objects of the runtime are made without exceptions, like those of the public interface.
ClsDirTree* ClsDirTree::createNewCls() { return new (std::nothrow) ClsDirTree(); }

void ClsDirTree::put_BaseDir(const XString& dir) { m_baseDir = dir.str(); }

// The base is opened as the path says, through a link too: the caller named it. An empty base has no first
// entry, and the walk is done before it begins.
bool ClsDirTree::beginIterate(LogBase& log) {
  m_levels.clear();
  m_relativePath.clear();
  m_hasPrepared = m_passBy = false;
  Level base;
  if (const int error = base.read(m_baseDir.c_str()); error != 0) return failedToRead(log, error);
  if (base.entries.empty()) return true;
  m_levels.push_back(std::move(base));
  takeName();
  return true;
}

// Down if the current entry is a directory to be entered, else to its next sibling, else up until there is
// one. A directory that turns out empty adds no level and is passed like a file.
bool ClsDirTree::advancePosition(LogBase& log) {
  if (m_levels.empty()) return true;
  const bool enter = m_recurse && !m_passBy && get_IsDirectory();
  m_passBy = false;
  if (enter) {
    const size_t depth = m_levels.size();
    if (!enterCurrent(log)) return false;
    if (m_levels.size() > depth) return true;
  }
  while (++m_levels.back().current == m_levels.back().entries.size()) {
    if (!leaveLevel(log)) return false;
    if (m_levels.empty()) return true;
  }
  takeName();
  return true;
}

// The entry was a directory when its parent was read. O_NOFOLLOW keeps the walk out of a link that has taken
// its place since. With links followed, a directory that is already on the way would be entered for ever;
// without them none can lie within itself.
bool ClsDirTree::prepareToEnter(LogBase& log) {
  m_prepared = Level();
  int error = m_prepared.readIn(currentDirectory(), currentName(), m_followsLinks);
  if (error == 0 && m_followsLinks && isOnTheWay(m_prepared)) error = ELOOP;
  m_hasPrepared = error == 0;
  m_passBy = !m_hasPrepared;
  if (m_hasPrepared) return true;
  // Said here and not by failedToRead, because the walk goes on.
  m_failedPath = fullPathOf(m_relativePath);
  logOsError(log, kCannotRead, m_failedPath.c_str(), error);
  return false;
}

// Directories are not read ahead where links are followed, so that no loop has to be looked for here.
void ClsDirTree::prepareWith(DirListing&& listing) {
  m_prepared = Level{std::move(listing)};
  m_hasPrepared = true;
}

// What was prepared is used up here, whether the directory has entries or not: the next one must be read for
// itself. A failure that nobody prepared for ends the walk.
bool ClsDirTree::enterCurrent(LogBase& log) {
  if (!m_hasPrepared && !prepareToEnter(log)) {
    end();
    return false;
  }
  m_hasPrepared = false;
  if (m_prepared.entries.empty()) {
    m_prepared = Level();
    return true;
  }
  m_relativePath += '/';
  m_prepared.parentLength = m_relativePath.size();
  m_levels.push_back(std::move(m_prepared));
  m_prepared = Level();
  closeFarLevels();
  takeName();
  return true;
}

// The level that is left is always open, because only far ones were closed; so the way back to its parent
// leads through its descriptor.
bool ClsDirTree::leaveLevel(LogBase& log) {
  const Level child = std::move(m_levels.back());
  m_levels.pop_back();
  if (m_levels.empty()) return true;
  m_relativePath.resize(child.parentLength - 1);
  Level& parent = m_levels.back();
  return parent.directory.isOpen() || reopenDirectory(parent, child.directory.fd(), log);
}

// Through the child, whose parent it was when the walk came down; only if it still is. A directory that was
// moved elsewhere meanwhile would otherwise let the walk go on in a tree that nobody asked for.
bool ClsDirTree::reopenDirectory(Level& level, int child, LogBase& log) {
  level.directory.reset(osOpenAt(child, "..", kOpenDirectory));
  struct stat status;
  const bool isSeen = level.directory.isOpen() && level.directory.status(status) == 0;
  const int error = isSeen ? ESTALE : errno;
  if (isSeen && status.st_dev == level.device && status.st_ino == level.inode) return true;
  // The path is still the child's. Of the parent's own entries it is all up to the slash; the base has none.
  m_relativePath.resize(level.parentLength > 0 ? level.parentLength - 1 : 0);
  return failedToRead(log, error);
}

// Device and inode, because a name tells nothing where links are followed.
bool ClsDirTree::isOnTheWay(const DirListing& directory) const {
  return std::any_of(m_levels.begin(), m_levels.end(), [&directory](const Level& each) {
    return each.device == directory.device && each.inode == directory.inode;
  });
}

// The parent of what a link leads to is not where the link is, so that there is no way back through it.
void ClsDirTree::closeFarLevels() {
  if (m_followsLinks || m_levels.size() <= kOpenLevels) return;
  m_levels[m_levels.size() - kOpenLevels - 1].directory.close();
}

// The path of the directory stays in the string; only the last name is exchanged.
void ClsDirTree::takeName() {
  m_relativePath.resize(m_levels.back().parentLength);
  m_relativePath += currentName();
}

const char* ClsDirTree::currentName() const { return m_levels.back().nameOf(currentIndex()); }

// The type that the directory gives, or a look at the entry where the file system gives none. An entry that
// cannot be looked at keeps the type it had, and whoever opens it learns the reason.
unsigned char ClsDirTree::currentType() const {
  const unsigned char type = m_levels.back().typeOf(currentIndex());
  // A link that is followed is what it leads to, which the directory does not tell.
  const bool isFollowed = m_followsLinks && type == DT_LNK;
  if (type != DT_UNKNOWN && !isFollowed) return type;
  struct stat status;
  const int flags = m_followsLinks ? 0 : AT_SYMLINK_NOFOLLOW;
  if (fstatat(currentDirectory(), currentName(), &status, flags) != 0) return type;
  return static_cast<unsigned char>(IFTODT(status.st_mode));
}

bool ClsDirTree::isRegularFile() const { return currentType() == DT_REG; }

bool ClsDirTree::get_IsDirectory() const { return currentType() == DT_DIR; }

void ClsDirTree::get_RelativePath(XString& out) const { out = m_relativePath; }

// For events and messages only: files are opened through currentDirectory().
void ClsDirTree::get_FullUncPath(XString& out) const { out = fullPathOf(m_relativePath); }

// "/" as the base gives "/name", and slashes at the end of the base do not double.
std::string ClsDirTree::fullPathOf(const std::string& relative) const {
  const size_t end = m_baseDir.find_last_not_of('/');
  std::string path = m_baseDir.substr(0, end == std::string::npos ? 0 : end + 1);
  path += '/';
  return path += relative;
}

// The directories of a walk that failed stay open, because a thread that reads ahead of it may still be
// opening files relative to them.
void ClsDirTree::end() { m_ended = std::exchange(m_levels, {}); }

// The path is taken before the levels go, since it is made of them.
bool ClsDirTree::failedToRead(LogBase& log, int error) {
  m_failedPath = m_relativePath.empty() ? m_baseDir : fullPathOf(m_relativePath);
  end();
  logOsError(log, kCannotRead, m_failedPath.c_str(), error);
  return false;
}

}  // namespace morvane
