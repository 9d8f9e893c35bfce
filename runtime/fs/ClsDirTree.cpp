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

#include "runtime/log/LogBase.h"
#include "runtime/text/XString.h"

namespace morvane {

namespace {

constexpr char kCannotRead[] = "Failed to read directory.";
// The levels nearest to the current entry stay open; those above are closed, and opened again on the way
// back. Deeper trees are rare, and most processes may have 1,024 files open.
constexpr size_t kOpenLevels = 32;
constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY;

bool isSelfOrParent(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

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
  base.directory.reset(osOpen(m_baseDir.c_str(), kOpenDirectory));
  int error = errno;
  if (!base.directory.isOpen() || !readDirectory(base.directory.fd(), base, error)) {
    return failedToRead(log, error);
  }
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
  int error = 0;
  const int noFollow = m_followsLinks ? 0 : O_NOFOLLOW;
  m_prepared.directory.reset(osOpenAt(currentDirectory(), currentName(), kOpenDirectory | noFollow));
  error = errno;
  m_hasPrepared =
      m_prepared.directory.isOpen() && readDirectory(m_prepared.directory.fd(), m_prepared, error);
  if (m_hasPrepared && m_followsLinks && isOnTheWay(m_prepared)) {
    m_hasPrepared = false;
    error = ELOOP;
  }
  m_passBy = !m_hasPrepared;
  if (m_hasPrepared) return true;
  // Said here and not by failedToRead, because the walk goes on.
  m_failedPath = fullPathOf(m_relativePath);
  logOsError(log, kCannotRead, m_failedPath.c_str(), error);
  return false;
}

// What was prepared is used up here, whether the directory has entries or not: the next one must be read for
// itself. A failure that nobody prepared for ends the walk.
bool ClsDirTree::enterCurrent(LogBase& log) {
  if (!m_hasPrepared && !prepareToEnter(log)) {
    m_levels.clear();
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
  if (!level.directory.isOpen()) return failedToRead(log, errno);
  if (level.directory.status(status) != 0) return failedToRead(log, errno);
  if (status.st_dev != level.device || status.st_ino != level.inode) return failedToRead(log, ESTALE);
  return true;
}

// Device and inode, because a name tells nothing where links are followed.
bool ClsDirTree::isOnTheWay(const Level& level) const {
  return std::any_of(m_levels.begin(), m_levels.end(), [&level](const Level& each) {
    return each.device == level.device && each.inode == level.inode;
  });
}

// The parent of what a link leads to is not where the link is, so that there is no way back through it.
void ClsDirTree::closeFarLevels() {
  if (m_followsLinks || m_levels.size() <= kOpenLevels) return;
  m_levels[m_levels.size() - kOpenLevels - 1].directory.close();
}

// Read to its end before the first entry is used: the order wants that, and what the application does to the
// directory meanwhile cannot make entries come twice. getdents64 itself, and not readdir, because a broken
// read is then told from the end, and the descriptor stays the level's. In `names` each entry is its type,
// its name, a NUL; entries are offsets, because the string moves while it grows.
bool ClsDirTree::readDirectory(int fd, Level& level, int& error) {
  struct stat status;
  if (fstat(fd, &status) != 0) {
    error = errno;
    return false;
  }
  level.device = status.st_dev;
  level.inode = status.st_ino;
  alignas(dirent64) char buffer[32 * 1024];
  while (true) {
    const ssize_t filled = getdents64(fd, buffer, sizeof buffer);
    if (filled < 0) {
      error = errno;
      return false;
    }
    if (filled == 0) break;
    for (ssize_t at = 0; at < filled;) {
      const auto* const entry = reinterpret_cast<const dirent64*>(buffer + at);
      at += entry->d_reclen;
      if (isSelfOrParent(entry->d_name)) continue;
      level.entries.push_back(level.names.size());
      level.names.push_back(static_cast<char>(entry->d_type));
      level.names.append(entry->d_name).push_back('\0');
    }
  }
  // By bytes, whatever the locale: the order of an archive must not depend on who makes it.
  const char* const names = level.names.data();
  std::sort(level.entries.begin(), level.entries.end(),
            [names](size_t a, size_t b) { return std::strcmp(names + a + 1, names + b + 1) < 0; });
  return true;
}

// The path of the directory stays in the string; only the last name is exchanged.
void ClsDirTree::takeName() {
  m_relativePath.resize(m_levels.back().parentLength);
  m_relativePath += currentName();
}

// Behind the type byte.
const char* ClsDirTree::currentName() const {
  const Level& level = m_levels.back();
  return level.names.data() + level.entries[level.current] + 1;
}

// A type that is not told may be a directory's, and so may a link that is followed.
const char* ClsDirTree::nameAhead(size_t n, bool& isRegular) const {
  const Level& level = m_levels.back();
  if (n >= level.entries.size() - level.current || get_IsDirectory()) return nullptr;
  const char* const entry = level.names.data() + level.entries[level.current + n];
  const auto type = static_cast<unsigned char>(*entry);
  if (type == DT_DIR || type == DT_UNKNOWN || (m_followsLinks && type == DT_LNK)) return nullptr;
  isRegular = type == DT_REG;
  return entry + 1;
}

// The type that the directory gives, or a look at the entry where the file system gives none. An entry that
// cannot be looked at keeps the type it had, and whoever opens it learns the reason.
unsigned char ClsDirTree::currentType() const {
  const Level& level = m_levels.back();
  const auto type = static_cast<unsigned char>(level.names[level.entries[level.current]]);
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

// The path is taken before the levels go, since it is made of them.
bool ClsDirTree::failedToRead(LogBase& log, int error) {
  m_failedPath = m_levels.empty() ? m_baseDir : fullPathOf(m_relativePath);
  m_levels.clear();
  logOsError(log, kCannotRead, m_failedPath.c_str(), error);
  return false;
}

}  // namespace morvane
