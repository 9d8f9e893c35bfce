// Files, directories, links and special files created beneath one directory, and nowhere else.
//
// The target is opened once. Every member is resolved anew by the kernel beneath it (openat2), parents and
// new file in one call, so there is no moment between looking and using in which a link could be slipped in,
// and a directory that somebody moves out of the target is not followed by the members that come later. Where
// the kernel has no openat2, parents are opened part by part and no link is passed at all.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "runtime/fs/OsFile.h"

namespace morvane {

struct mvFileInfo;

// For one run on one thread. A failure leaves the reason in the log; a refusal logs nothing, because the
// caller has the member's own words for it. What was made on the way to something that failed stays.
class ConfinedDir {
 public:
  enum class Links {
    InsideTarget,  // links on the way to a member are passed where they stay in the target
    None,          // none is passed
    Anywhere,      // members may lie outside of the target, too; what is created is still created exclusively
  };
  // Refused: the path, a link on it or what stands in its place is not allowed. Failed: the system would not.
  enum class Result { Ok, Refused, Failed };

  // Which file of which file system something is, whatever it is called.
  struct Identity {
    unsigned long long device = 0, inode = 0;
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
  // A file that must not be replaced: the archive being read. Of device and inode; one at a time.
  void protect(const mvFileInfo& file);
  // For tests of the way that old kernels get.
  void withoutOpenat2() { m_partByPart = true; }

  // All of these take a relative path, its parts separated by "/", and make its missing parents first. What
  // stands in the way is removed, a link or FIFO as itself; a full directory and the protected file are
  // refused. Modes are those of the system's calls: the umask is taken off.

  // Makes an empty file for writing. `file` is open for writing only, and the caller's. A link or file of
  // that name is replaced, never written through.
  Result createFile(const std::string& path, unsigned mode, OsFile& file, LogBase& log);
  // Makes a directory. A directory that is there stays; so does a link to one inside the target where links
  // are allowed. `made` tells which it is, and whether it is new; it is left alone for the target itself.
  struct MadeDirectory {
    Identity identity;
    bool isNew = false;
    bool isKnown = false;  // false for the target itself, and for what a link leads to
  };
  Result makeDirectory(const std::string& path, unsigned mode, MadeDirectory& made, LogBase& log);
  // Makes a symbolic link with a text that is not looked at, or a FIFO or device (`mode` with its type).
  // `made` is a descriptor of it that can do nothing but name it (O_PATH).
  Result makeSymbolicLink(const std::string& path, const std::string& text, OsFile& made, LogBase& log);
  Result makeNode(const std::string& path, unsigned mode, unsigned long long device, OsFile& made,
                  LogBase& log);
  // Gives what the path `target` names another name. No link is followed on the way to either, nor as the
  // target itself.
  enum class Linked {
    Ok,
    Refused,     // one of the two leaves the target, or the target is a directory
    Missing,     // there is no such target
    CannotLink,  // the file system will not: the target may be opened and copied
    Failed,
  };
  // Gives what the path `target` names another name. No link is followed as the target itself, nor on the way
  // to it unless members may lie anywhere; on the way to the new name they are as for any member. A name that
  // already belongs to the same file is Ok.
  Linked makeHardLink(const std::string& path, const std::string& target, LogBase& log);

  // Opens a file or directory that is there, never a link as itself. -1 with errno. On the way to it links
  // are passed as they are for what is made, or not at all.
  enum class Passing { LinksAsMade, NoLinks };
  int openExisting(const std::string& path, int flags, Passing passing = Passing::NoLinks);
  // Whether a new file may get its group from a directory instead of from the process, as far as was seen.
  bool handsOnGroup() const { return m_handsOnGroup; }

  // Directories that were made on the way to others, since they were last taken.
  std::vector<Identity> takeNewParents() { return std::exchange(m_newParents, {}); }
  // Whether those are to be noted, which costs a look at each. Off at first; then the identity of new
  // directories is unknown.
  void noteNewParents(bool note) { m_notesParents = note; }

  // The system's reason (an errno) behind the last Failed. Of no meaning after another result.
  int lastError() const { return m_lastError; }
  // What the last Refused was for, in words for people.
  const char* lastRefusal() const { return m_refusal; }

 private:
  using Parts = std::vector<std::string>;

  // Where a member goes: the open directory it is in, and its name there. For the target itself the leaf is
  // empty and `parent` may be closed.
  struct Place {
    OsFile parent;
    int base = -1;  // where the parts start: the target, or the root
    Parts parts;    // of the parent, from the base on
    std::string leaf;
  };

  // The first two make what is missing on the way; the third only opens.
  Result openParentOf(const std::string& path, Place& place, LogBase& log);
  Result walkToParent(Place& place, LogBase& log);
  bool openExistingParentOf(const std::string& path, Place& place, Passing passing);
  Result openMade(const Place& place, unsigned type, unsigned long long device, const std::string& path,
                  OsFile& made, LogBase& log);
  bool isConfinable(const std::string& path);
  bool isRefused(int error);
  int baseOf(const std::string& path);
  // Makes a leaf by `make`, once the way is clear.
  template <class Make>
  Result makeExclusively(const Place& place, const std::string& path, LogBase& log, Make make);
  // Whether the leaf is a link that leads to a directory which members may be put into.
  template <class Make>
  Result makeNamed(const std::string& path, unsigned type, unsigned long long device, OsFile& made,
                   LogBase& log, Make make);
  bool isDirectoryInside(const Place& place);
  // The system's calls, bounded as m_links says: a descriptor, or -1 with errno.
  int createBeneath(const std::string& path, unsigned mode);
  int openBeneath(int base, const Parts& parts, size_t count, int lastFlags);
  int openResolved(int from, const char* path, int flags, unsigned mode, bool passesLinks = true);
  // Removes what has the leaf's name, unless that is protected or a directory with something in it.
  Result clearTheWay(const Place& place, LogBase& log);
  bool isProtected(const struct stat& status) const;
  Result failed(const char* message, const std::string& path, LogBase& log);
  Result unmade(int parent, const char* leaf, const std::string& path, LogBase& log);

  // Opened with O_PATH: enough to start from, and no right to read is needed.
  OsFile m_target;
  OsFile m_root;  // where absolute paths start, with Links::Anywhere
  Links m_links = Links::None;
  // Set where the kernel has no openat2, and for tests of that way.
  bool m_partByPart = false;
  // An errno.
  int m_lastError = 0;
  const char* m_refusal = "";
  bool m_notesParents = false;
  bool m_handsOnGroup = false;
  // Only while noteNewParents asks for them.
  std::vector<Identity> m_newParents;
  bool m_hasProtected = false;
  unsigned long long m_protectedDevice = 0, m_protectedInode = 0;
};

}  // namespace morvane
