// Gives what was extracted its owner, mode, times and attributes back (the word Restore): files as they are
// closed, links and special files as they are made, directories at the end of the run, because what is put
// into them would change their times and may need them to be writable.
//
// Always through a descriptor of what the run itself made. Order: owner (which takes set-id bits and
// capabilities away), attributes and access lists, mode, the security attributes, times.
// Called by MemberPlacer alone. It knows no path rules and removes nothing; where a descriptor leads is
// ConfinedDir's affair.
#pragma once

#include <map>
#include <memory>
#include <set>

#include "runtime/fs/ConfinedDir.h"
#include "runtime/fs/FileMetadata.h"
#include "runtime/fs/UserDatabase.h"
#include "tar/format/Member.h"
#include "tar/place/FileSettlement.h"
#include "tar/place/NotKept.h"
#include "tar/settings/TarOptions.h"

namespace morvane {

// One object for one run after another, on one thread; workers get plain values of it (FileSettlement) and
// ask nothing. Failures are noted in notKept(), never returned: they do not end a run. Behind begin it is
// asked only where something is restored.
class MetadataRestorer {
 public:
  // Before a run. Only with something to restore is anything asked of the system. What an earlier run noted
  // is forgotten.
  void begin(const TarOptions& options);
  const KeptParts& parts() const { return m_parts; }

  // The mode to make a member's file with: its own, less the umask, which the system takes off, where nothing
  // else has to be set before it; else one for the owner alone. `groupIsOwn`: it is made with the process's
  // group; whether that counts, asksForGroup says. It holds for one member, the one that is made next.
  bool asksForGroup(const Member& member) const;
  unsigned modeToMake(const Member& member, bool groupIsOwn);
  // The mode to make a directory with, until it is settled.
  unsigned directoryModeToMake() const { return m_parts.mode ? 0700 : 0777; }

  // Whether a file gets no more than owner, mode and times, and none of them out of the ordinary; and what
  // these are, to be set by whoever closes it. The second behind modeToMake of the same member. Names may be
  // looked up for it, which the system's database answers once for each.
  bool isPlain(const Member& member);
  FileSettlement plan(const Member& member);
  // Gives a member the attributes and access lists of a file that is there, as far as they are restored: for
  // a copy of it.
  void takeAttributesOf(int fd, Member& member);
  // Sets everything of a file, link or special file that is open as `fd`. `entryPath` is for messages. Of a
  // directory, the descriptor must be an ordinary one; a link's may be O_PATH. Called behind the last byte,
  // because a write would change the times again.
  void settle(int fd, const Member& member, const XString& entryPath, const Io& io);
  // Notes a directory that a member made, or means again. `path` is below the target. What is needed of the
  // member is copied. One that was there before the run is not noted, unless such ones are to be settled too.
  // The last member of a directory decides.
  void noteDirectory(const ConfinedDir::MadeDirectory& made, const Member& member, const std::string& path);
  // Directories that were made on the way to members count as made by the run. To be told before a member
  // that such a directory is noted.
  void noteParents(const std::vector<ConfinedDir::NewParent>& parents);
  // Settles all of them, deepest first. One that is no more the one that was made is passed over. Then
  // nothing is noted any more. `target` is the directory that all of them were made in. It may be called
  // again.
  void settleDirectories(ConfinedDir& target, const Io& io);

  NotKept& notKept() { return m_notKept; }

 private:
  // What is kept of a directory until the end of the run: there may be millions, so nothing else of its
  // member.
  struct Directory {
    // POSIX access lists as text, as the archive has them.
    struct More {
      std::vector<MemberAttribute> attributes;
      std::string accessList, defaultAccessList;
      size_t bytes = 0;  // what it counts for in m_keptBytes
    };
    std::string path;
    unsigned mode = 0, uid = 0, gid = 0;
    TarTime mtime, atime;
    bool lacksAttributes = false;
    bool isForeign = false;      // see ConfinedDir::MadeDirectory
    std::unique_ptr<More> more;  // few have any
  };
  // What is being settled, and how far it has come.
  struct Settling {
    const int fd;
    const Member& member;
    const XString& entryPath;
    const Io& io;
    NotKept& notKept;
    FileSettlement given;
    FileMetadata::Status status = {};  // what is there; looked at where owner or mode are set
    bool hasList = false;              // it has got an access list that says more than a mode
    bool lacksList = false;            // it was to get one, and has none
    unsigned noted = 0;                // kinds of what is not kept, a bit each

    void note(NotKept::Kind kind, int error);
  };
  // It takes the attributes out of what is kept.
  static Member memberOf(const Directory& kept);
  // What memberOf has moved out.
  static void takeBack(Member& directory, Directory& kept);
  // Whether its owner is the one that new files of the process get; whether something has to be set before
  // its mode; whether the system was given its mode when it was made.
  bool isOurs(const Member& member);
  bool setsAfterwards(const Member& member);
  bool wasMadeWithItsMode(const Member& member) const;
  // Each sets one part and notes what the system would not. `ownerIsKept` false takes the set-id bits off.
  // `isMeant` chooses attributes by their names.
  void setMode(Settling& now, bool ownerIsKept);
  void setAttributes(Settling& now, bool (*isMeant)(const std::string& name));
  void setUserAttributes(Settling& now);
  // Whether it is a list that says more than a mode.
  bool setAccessList(Settling& now, const char* name, const std::string& text, bool& isUnset);
  // For one that is not the process's own: a mode and nothing else, and a note of it.
  void settleForeign(int fd, const Member& directory, const XString& entryPath, const Io& io);
  // Copies them for the end of the run: all of a directory's, or none where they would be too much.
  void keepAttributes(const Member& member, Directory& kept);
  // UTIME_OMIT where the archive has none.
  static timespec accessTimeOf(const Member& member);
  unsigned umask();
  // Of this system, by name or number. kNoId for a number that the system has no room for.
  unsigned uidOf(const Member& member);
  unsigned gidOf(const Member& member);

  // From the option words, taken when the run begins: a callback cannot change halfway what is restored.
  KeptParts m_parts;
  // Existing directories are settled only with a full mode.
  bool m_byId = false;
  bool m_settlesExisting = false;
  // Asked once a run, and only where they are needed.
  std::optional<unsigned> m_umask;
  unsigned m_ownUid = 0, m_ownGid = 0;
  UserDatabase m_users;
  NotKept m_notKept;
  bool m_isMadeWithItsMode = false;  // the file that was made last
  // Those that the run made on the way, and those that have members: their paths and what to give them. By
  // device and inode, because one directory may come under several names.
  std::map<ConfinedDir::Identity, Directory> m_directories;
  std::set<ConfinedDir::Identity> m_newParents;
  size_t m_keptBytes = 0;  // of their attributes
};

}  // namespace morvane
