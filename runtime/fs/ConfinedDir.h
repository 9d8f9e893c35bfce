// Files and directories created beneath one directory, and nowhere else.
//
// The target is opened once. Every member is resolved anew by the kernel beneath it (openat2), parents and
// new file in one call, so there is no moment between looking and using in which a link could be slipped in,
// and a directory that somebody moves out of the target is not followed by the members that come later. Where
// the kernel has no openat2, parents are opened part by part and no link is passed at all.
#pragma once

#include <string>
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
  Result createFile(const std::string& path, OsFile& file, LogBase& log);
  // Makes a directory, its missing parents first. A directory that is there stays; so does a link to one
  // inside the target where links are allowed; anything else is removed.
  Result makeDirectory(const std::string& path, LogBase& log);
  // The system's reason (an errno) behind the last Failed.
  int lastError() const { return m_lastError; }

 private:
  using Parts = std::vector<std::string>;

  // Where a member goes: the open directory it is in, and its name there.
  struct Place {
    OsFile parent;
    Parts parts;  // of the parent, from the target on
    std::string leaf;
  };

  Result openParentOf(const std::string& path, Place& place, LogBase& log);
  Result walkToParent(Place& place, LogBase& log);
  int createBeneath(const std::string& path);
  int openBeneath(const Parts& parts, size_t count);
  int openResolved(int from, const char* path, int flags, unsigned mode);
  Result clearTheWay(const Place& place, LogBase& log);
  bool isProtected(const struct stat& status) const;
  Result failed(const char* message, const std::string& path, LogBase& log);

  OsFile m_target;
  Links m_links = Links::None;
  bool m_partByPart = false;
  int m_lastError = 0;
  bool m_hasProtected = false;
  unsigned long long m_protectedDevice = 0, m_protectedInode = 0;
};

}  // namespace morvane
