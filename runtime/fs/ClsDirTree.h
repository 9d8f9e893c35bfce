// Walks a directory tree, depth first: a directory before its contents, the names of one directory in the
// order of their bytes, the base directory itself not among them. Symbolic links are entries, never entered;
// only the base may be one.
//
//   std::unique_ptr<ClsDirTree> tree(ClsDirTree::createNewCls());
//   tree->put_BaseDir("src");
//   tree->put_Recurse(true);
//   for (bool ok = tree->beginIterate(log); ok && !tree->get_DoneIterating(); ok =
//   tree->advancePosition(log)) { ... }
//
// Memory: the names of the directories on the way to the current entry. Open files: some dozens, however
// deep. Neither depth nor the length of a path is limited. One walk at a time, on one thread.
#pragma once

#include <string>
#include <vector>

#include "runtime/base/Export.h"
#include "runtime/fs/DirListing.h"

namespace morvane {

class LogBase;
class XString;

// The directory that failed and the position are asked for between calls; an entry's name and descriptor stay
// valid until the walk goes on.
class MORVANE_API ClsDirTree {
 public:
  static ClsDirTree* createNewCls();  // null when there is no memory

  // Set before beginIterate; the path is taken as the system's bytes, relative to the process's directory.
  void put_BaseDir(const XString& dir);
  // Whether directories are entered; not by default, and then the walk lists one directory.
  void put_Recurse(bool recurse) { m_recurse = recurse; }
  // Links are what they point at, directories entered: one that leads back to a directory that the walk is in
  // cannot be read (ELOOP). The levels of such a walk stay open, so its depth is limited by the open files
  // that the process may have.
  void put_FollowLinks(bool follow) { m_followsLinks = follow; }

  // Reads the base directory and stands on the first entry. False, with the reason in the log, when it cannot
  // be read.
  bool beginIterate(LogBase& log);
  // True before the first beginIterate, too. The position must not be asked for then.
  bool get_DoneIterating() const { return m_levels.empty(); }
  // Goes on to the next entry, into the current one when that is a directory. False, with the name in the
  // log, when a directory on the way cannot be read; the walk is then over.
  bool advancePosition(LogBase& log);

  // The directory that could not be read, after a failure.
  const std::string& failedPath() const { return m_failedPath; }

  // Of the current entry. A symbolic link is no directory, wherever it points, and is not entered.
  bool get_IsDirectory() const;
  bool isRegularFile() const;  // as far as the directory says so without a look at the file
  void get_RelativePath(XString& out) const;
  void get_FullUncPath(XString& out) const;  // the base as given, one "/", the relative path
  // The open directory that holds the current entry, and the entry's name in it.
  int currentDirectory() const { return m_levels.back().directory.fd(); }
  const char* currentName() const;
  // How many directories the walk is in, 1 for the base; their names, the base's at 0; which of the last
  // one's the current entry is.
  size_t depth() const { return m_levels.size(); }
  const DirListing& listing(size_t level) const { return m_levels[level]; }
  size_t currentIndex() const { return m_levels.back().current; }
  bool followsLinks() const { return m_followsLinks; }

  // Reads the current directory now instead of when the walk enters it, to know beforehand whether that
  // works. After a failure, which is logged, the walk passes the directory by.
  bool prepareToEnter(LogBase& log);
  // The same with what somebody else has read of it.
  void prepareWith(DirListing&& listing);
  // Whether that was done for the current entry, with whatever result.
  bool isPrepared() const { return m_hasPrepared || m_passBy; }
  // Makes the walk go on without entering the current entry.
  void passBy() {
    m_passBy = true;
    m_hasPrepared = false;
  }

 private:
  // A directory on the way, which is closed while the walk is far below.
  struct Level : DirListing {
    size_t current = 0;
    size_t parentLength = 0;  // of m_relativePath without this level's entry
  };

  // Makes the current directory's contents the last level, unless it is empty. False, logged, ends the walk.
  bool enterCurrent(LogBase& log);
  // Gives the last level up and opens its parent again where that was closed. False, logged, ends the walk.
  bool leaveLevel(LogBase& log);
  bool reopenDirectory(Level& level, int child, LogBase& log);
  // Closes the one level that has come to be too far above the current entry.
  void closeFarLevels();
  // Puts the current entry's name behind its directory's path.
  void takeName();
  unsigned char currentType() const;
  // Whether the walk is in that directory already, which only a followed link can bring about.
  bool isOnTheWay(const DirListing& directory) const;
  std::string fullPathOf(const std::string& relative) const;
  bool failedToRead(LogBase& log, int error);
  void end();

  // As given, slashes at its end included.
  std::string m_baseDir;
  bool m_recurse = false;
  bool m_followsLinks = false;
  std::vector<Level> m_levels;
  std::vector<Level> m_ended;  // of a walk that failed: open until another fails
  // Of the current entry, below the base; it begins without a slash.
  std::string m_relativePath;
  std::string m_failedPath;
  Level m_prepared;  // the current directory's contents, when prepareToEnter has read them
  bool m_hasPrepared = false;
  // Of the current entry; both are forgotten when the walk goes on.
  bool m_passBy = false;
};

}  // namespace morvane
