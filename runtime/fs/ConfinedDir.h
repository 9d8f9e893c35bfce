// Files, directories, links and special files created beneath one directory, and nowhere else.
//
// Each is made by a call that fails where something is there, in the open directory that ConfinedWalk has
// come to. For a file whose parents are there, finding the way and making it are one call.
#pragma once

#include <string>

#include "runtime/fs/ConfinedWalk.h"

namespace morvane {

struct mvFileInfo;

// For one run on one thread, but for createNew and removeNew: while another thread may be in these, the
// directory is not opened anew, moved or told of other rules. A failure leaves the reason in the log; a
// refusal logs nothing, because the caller has the member's own words for it. What was made on the way to
// something that failed stays.
class ConfinedDir : public ConfinedWalk {
 public:
  // A file that must not be replaced: the archive being read. Of device and inode; one at a time.
  void protect(const mvFileInfo& file);

  // Whether what stands in the way is kept, and the member not made: then the answer is Exists. Off at first.
  void keepExisting(bool keep) { m_keepsExisting = keep; }

  // All of these take a relative path, its parts separated by "/", and make its missing parents first. What
  // stands in the way is removed, a link or FIFO as itself; a full directory and the protected file are
  // refused. Modes are those of the system's calls: the umask is taken off.

  // Makes an empty file for writing. `file` is open for writing only, and the caller's. A link or file of
  // that name is replaced, never written through.
  Result createFile(const std::string& path, unsigned mode, OsFile& file, LogBase& log);
  // Makes one where its parents are there and nothing is in the way: a descriptor, or -1 for anything else.
  // Logs nothing and may be called by several threads at a time, for paths that `mayBeMade`.
  int createNew(const std::string& path, unsigned mode);
  // Takes such a file back.
  void removeNew(const std::string& path) { removeBeneath(path); }
  bool mayBeMade(const std::string& path) { return isConfinable(path); }
  // Makes a directory. A directory that is there stays; so does a link to one inside the target where links
  // are allowed. `made` tells which it is, and whether it is new; it is left alone for the target itself.
  struct MadeDirectory {
    Identity identity;
    bool isNew = false;
    bool isKnown = false;  // false for the target itself, for what a link leads to, and for a foreign one
    // New, and not the process's own: the file system gives everything to one owner, or another directory was
    // moved into its place. The identity is known.
    bool isForeign = false;
  };
  Result makeDirectory(const std::string& path, unsigned mode, MadeDirectory& made, LogBase& log);
  // Makes a symbolic link with a text that is not looked at, or a FIFO or device (`mode` with its type).
  // `made` is a descriptor of it that can do nothing but name it (O_PATH). It is closed where the new thing
  // is not the process's own (see isForeign): nothing may be set of that.
  Result makeSymbolicLink(const std::string& path, const std::string& text, OsFile& made, LogBase& log);
  Result makeNode(const std::string& path, unsigned mode, unsigned long long device, OsFile& made,
                  LogBase& log);
  enum class Linked {
    Ok,
    Refused,     // one of the two leaves the target, or the target is a directory
    Missing,     // there is no such target
    Exists,      // the new name is taken, and what has it is to be kept
    CannotLink,  // the file system will not: the target may be opened and copied
    Failed,
  };
  // Gives what the path `target` names another name. No link is followed as the target itself, nor on the way
  // to it unless members may lie anywhere; on the way to the new name they are as for any member. A name that
  // already belongs to the same file is Ok.
  Linked makeHardLink(const std::string& path, const std::string& target, LogBase& log);
  // Whether there is anything of that path, a link included. No link on the way is followed.
  bool isThere(const std::string& path);
  // Whether both paths are there and name one file, which is no directory.
  bool isOneFile(const std::string& path, const std::string& other);

 private:
  // What is there, by itself. False where nothing is.
  bool lookAt(const std::string& path, struct stat& status);
  // Opens what has just been made, and makes sure that it is that. `device` counts for devices alone. Closed
  // again where it is foreign.
  Result openMade(const Place& place, unsigned type, unsigned long long device, const std::string& path,
                  OsFile& made, LogBase& log);
  // Makes a leaf by `make`, once the way is clear.
  template <class Make>
  Result makeExclusively(const Place& place, const std::string& path, LogBase& log, Make make);
  template <class Make>
  // Makes the parents, the leaf by `make`, and opens it: what links and special files have in common.
  Result makeNamed(const std::string& path, unsigned type, unsigned long long device, OsFile& made,
                   LogBase& log, Make make);
  // Removes what has the leaf's name, unless that is protected or a directory with something in it.
  Result clearTheWay(const Place& place, LogBase& log);
  // Whether it is the file that protect named.
  bool isProtected(const struct stat& status) const;

  bool m_keepsExisting = false;
  bool m_hasProtected = false;
  Identity m_protected;
};

}  // namespace morvane
