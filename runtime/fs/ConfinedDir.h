// Files and directories created beneath one directory, and nowhere else.
//
// The target is opened once. Every parent is resolved by the kernel beneath it (openat2), every file made
// exclusively, so there is no moment between looking and using in which a link could be slipped in. Where the
// kernel has no openat2, parents are opened part by part and no link is passed at all.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "runtime/fs/OsFile.h"

namespace morvane {

struct mvFileInfo;

class ConfinedDir {
 public:
  enum class Links { InsideTarget, None };
  enum class Result { Ok, Refused, Failed };

  // Opens the target, which is made first when it is missing. Links in the target's own path are the caller's
  // choice.
  bool open(const char* target, Links links, LogBase& log);
  bool isOpen() const { return m_target.isOpen(); }
  // A file that must not be replaced: the archive being read.
  void protect(const mvFileInfo& file);
  // For tests of the way that old kernels get.
  void withoutOpenat2() { m_partByPart = true; }

  // Makes an empty file for writing, its missing parents first. What was there is removed, a link or FIFO as
  // itself; a full directory and the protected file are refused. The path is relative, its parts separated by
  // "/".
  Result createFile(std::string_view path, OsFile& file, LogBase& log);
  // Makes a directory, its missing parents first. A directory that is there stays; so does a link to one
  // inside the target where links are allowed; anything else is removed.
  Result makeDirectory(std::string_view path, LogBase& log);

 private:
  using Parts = std::vector<std::string>;

  // A directory that was opened, and what it is called.
  struct KeptDir {
    OsFile dir;
    Parts parts;
    std::string spelling;  // the path it was asked for by, empty when not known
  };

  bool isKeptParentOf(std::string_view path) const;
  Result openParentOf(std::string_view path, std::string& leaf, LogBase& log);
  Result reopenParentOf(std::string_view path, std::string& leaf, LogBase& log);
  Result openParent(const Parts& parts, LogBase& log);
  void forgetParents();
  void keepParent(OsFile dir, const Parts& parts);
  Result walkToParent(const Parts& parts, LogBase& log);
  int openBeneath(const Parts& parts, size_t count);
  int openResolved(int from, const std::string& path);
  Result clearTheWay(const std::string& leaf, LogBase& log);
  bool isProtected(const struct stat& status) const;
  Result failed(const char* message, std::string_view path, LogBase& log);
  Result failed(const char* message, const Parts& parts, LogBase& log);

  OsFile m_target;
  Links m_links = Links::None;
  bool m_partByPart = false;
  // The last parent, and the one before it: a walk goes back and forth between a directory and the one it is
  // in. Closed when none is kept; the target itself is m_target.
  KeptDir m_parent, m_parentBefore;
  bool m_parentIsFresh = false;  // it was opened for this call
  bool m_hasProtected = false;
  unsigned long long m_protectedDevice = 0, m_protectedInode = 0;
};

}  // namespace morvane
