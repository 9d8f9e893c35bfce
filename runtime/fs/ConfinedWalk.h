// The way from a target directory down to a member: opened, and made where it is missing, without ever
// leaving the target.
//
// The target is opened once. Every path is resolved anew by the kernel beneath it (openat2), so there is no
// moment between looking and using in which a link could be slipped in, and a directory that somebody moves
// out of the target is not followed by the members that come later. Where the kernel has no openat2, parents
// are opened part by part and no link is passed at all.
#pragma once

#include <climits>
#include <string>
#include <utility>
#include <vector>

#include "runtime/fs/OsFile.h"

namespace morvane {

// What ConfinedDir makes things with; it adds nothing at the end of a way but opens what is there. A failure
// leaves the reason in the log where there is one to take, else in errno; a refusal logs nothing.
class ConfinedWalk {
 public:
  enum class Links {
    InsideTarget,  // links on the way to a member are passed where they stay in the target
    None,          // none is passed
    Anywhere,      // members may lie outside of the target, too; what is created is still created exclusively
  };
  // Refused: the path, a link on it or what stands in its place is not allowed. Exists: something is there,
  // and is to be kept. Failed: the system would not.
  enum class Result { Ok, Refused, Exists, Failed };

  // Which file of which file system something is, whatever it is called.
  struct Identity {
    unsigned long long device = 0, inode = 0;
    static Identity of(const struct stat& status) { return {status.st_dev, status.st_ino}; }
    bool operator<(const Identity& other) const {
      return device != other.device ? device < other.device : inode < other.inode;
    }
    bool operator==(const Identity& other) const { return device == other.device && inode == other.inode; }
  };

  // Opens the target, which is made first when it is missing. Links in the target's own path are the caller's
  // choice. False, with the reason in the log, when it cannot be opened or made. `target` is the system's
  // bytes, of any length.
  bool open(const char* target, Links links, LogBase& log);
  bool isOpen() const { return m_target.isOpen(); }
  // Whether a new file takes one call, as createBeneath does it; else it takes several, in order.
  bool createsAtOnce() const { return !m_partByPart; }
  // For tests of the way that old kernels get.
  void withoutOpenat2() { m_partByPart = true; }

  // Which links are passed on the way to something that is there.
  enum class Passing { LinksAsMade, NoLinks };
  // Opens a file or directory that is there. -1 with errno. A link at the end is never followed: it is a
  // failure, or, where the flags have O_PATH, opened as itself. On the way links are passed as they are for
  // what is made, or not at all.
  int openExisting(const std::string& path, int flags, Passing passing = Passing::NoLinks);
  // Whether a file that is made at this path gets the group that the process has. It may get its directory's
  // instead: by the set-group-id bit, or because the file system is mounted so. False where that cannot be
  // told, as of a directory that is still to be made.
  bool givesOwnGroup(const std::string& path);

  // Directories that were made on the way to others, since they were last taken. The path is below the
  // target; empty for one that is outside, or whose path is longer than the system takes at once.
  struct NewParent {
    Identity identity;
    std::string path;
  };
  std::vector<NewParent> takeNewParents() { return std::exchange(m_newParents, {}); }
  // Whether there is nothing in the target. False where that cannot be told.
  bool isEmpty() const;
  // Whether those are to be noted, which costs a look at each. Off at first; then the identity of new
  // directories is unknown.
  void noteNewParents(bool note) { m_notesParents = note; }

  // The system's reason (an errno) behind the last Failed. Of no meaning after another result.
  int lastError() const { return m_lastError; }
  // What the last Refused was for, in words for people.
  const char* lastRefusal() const { return m_refusal; }

 protected:
  using Parts = std::vector<std::string>;

  // Where a member goes: the open directory it is in, and its name there. For the target itself the leaf is
  // empty and `parent` may be closed.
  struct Place {
    OsFile parent;
    int base = -1;  // where the parts start: the target, or the root
    Parts parts;    // of the parent, from the base on
    std::string leaf;
  };

  // Somebody who renames or recreates things in the target all the time makes a member fail, not the run
  // hang.
  static constexpr int kTriesWhileChanging = 8;
  static constexpr char kCannotMakeDirectory[] = "Failed to create directory.";

  // False for a path that must be refused.
  bool isConfinable(const std::string& path);
  // The first makes what is missing on the way; the second only opens, false with errno.
  Result openParentOf(const std::string& path, Place& place, LogBase& log);
  bool openExistingParentOf(const std::string& path, Place& place, Passing passing);
  // A new file whose parents are there: a descriptor, or -1 with errno when anything about it needs a closer
  // look. `flags` are those of the open. Changes nothing in this object, and so may be called by several
  // threads at a time.
  int createBeneath(const std::string& path, int flags, unsigned mode);
  // Removes a file by its name, where its parents can be opened; says nothing. What createBeneath has made
  // several threads may remove, too.
  void removeBeneath(const std::string& path);
  // Whether the leaf is a link that leads to a directory which members may be put into.
  bool isDirectoryInside(const Place& place);
  // Whether an errno says that a way led out of the target, or could not be passed as a directory.
  bool isRefused(int error);
  // Logs the message with the path and errno, which lastError then gives.
  Result failed(const char* message, const std::string& path, LogBase& log);
  // The same for a directory that was made and cannot be looked at. It goes again, because who comes back to
  // it would take it for one of before the run.
  Result unmade(int parent, const char* leaf, const std::string& path, LogBase& log);

  void setRefusal(const char* why) { m_refusal = why; }
  bool notesParents() const { return m_notesParents; }
  int statusOfTarget(struct stat& status) const { return m_target.status(status); }
  // A directory that files may be made in was looked at, so that givesOwnGroup need not; and its place may
  // have been taken by something else.
  void noteGroupOf(std::string directory, const struct stat& status);
  void forgetGroup() { m_isGroupKnown = false; }

 private:
  // Where a path starts: a descriptor of this object's, never to be closed by the caller.
  int baseOf(const std::string& path);
  // Opens the parent part by part and makes what is missing of it.
  Result walkToParent(Place& place, LogBase& log);
  // Whether the kernel resolves such a path as a whole.
  bool isOneCall(const std::string& path) const { return !m_partByPart && path.size() < PATH_MAX; }
  // The system's calls, bounded as m_links says: a descriptor, or -1 with errno.
  int openBeneath(int base, const Parts& parts, size_t count, int lastFlags);
  int openResolved(int from, const char* path, int flags, unsigned mode, bool passesLinks = true);

  // These three are set by open (and by withoutOpenat2), before any worker is given this object, and then
  // read by workers too (createBeneath, removeBeneath), so that they need no lock. All that stands behind
  // them is the first thread's alone, which changes it while workers are busy.
  //
  // Opened with O_PATH: enough to start from, and no right to read is needed.
  OsFile m_target;
  Links m_links = Links::None;
  // Set where the kernel has no openat2, and for tests of that way.
  bool m_partByPart = false;
  OsFile m_root;  // where absolute paths start, with Links::Anywhere
  // An errno.
  int m_lastError = 0;
  const char* m_refusal = "";
  bool m_notesParents = false;
  // Of one directory, the one that was looked at last: members of a directory come one after the other.
  std::string m_groupDirectory;
  bool m_isGroupKnown = false, m_isGroupOwn = false;
  // Only while noteNewParents asks for them.
  std::vector<NewParent> m_newParents;
};

}  // namespace morvane
