// One directory tree, walked entry by entry: what the archive's writer and the counting pass before it have
// in common.
//
//   SourceWalk walk;
//   for (bool ok = walk.begin(root, false, log); ok && !walk.isDone(); ok = walk.advance(log)) { ...
//   walk.place()
//   ... }
#pragma once

#include "runtime/fs/ClsDirTree.h"
#include "tar/write/DirRoot.h"
#include "tar/write/SourceFile.h"

namespace morvane {

// One walk at a time, on one thread.
class SourceWalk {
 public:
  // False, with the reason in the log, when the root cannot be read.
  bool begin(const DirRoot& root, bool followsLinks, LogBase& log);
  bool isDone() const { return m_tree.get_DoneIterating(); }
  // Goes on to the next entry. False, with the reason in the log, when a directory on the way cannot be read.
  bool advance(LogBase& log) { return m_tree.advancePosition(log); }

  // Where the current entry is; valid until the walk goes on.
  SourcePlace place();
  // What it is called in the archive: the root's prefix and `dirPrefix`, each if there is one, in front of
  // its path in the tree.
  void nameMember(const XString& dirPrefix, XString& pathInTar) const;

  // Passing by, and looking before entering, are the tree's.
  ClsDirTree& tree() { return m_tree; }

 private:
  ClsDirTree m_tree;
  std::string m_prefix;
  bool m_followsLinks = false;
  XString m_fullPath;
};

// Puts a directory in front of a path.
void prependPart(const std::string& part, XString& path);

}  // namespace morvane
