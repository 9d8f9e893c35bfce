// What was extracted gets back what it was. Everything goes through a descriptor of what the run made, so
// that nobody can have the run change another file by putting it in the place of this one. What cannot be
// kept is noted and never fails the run: data without their owner are better than none.
#include "tar/place/MetadataRestorer.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "runtime/fs/AccessList.h"
#include "runtime/fs/MorvaneFileTime.h"
#include "runtime/io/Io.h"
#include "tar/format/EntryPath.h"
#include "tar/place/RunLimits.h"

namespace morvane {

namespace {

// To the system it means "leave the owner as it is".
constexpr unsigned kNoId = 0xFFFFFFFF;

bool startsWith(const std::string& name, std::string_view start) {
  return name.compare(0, start.size(), start) == 0;
}

bool isUserAttribute(const std::string& name) { return startsWith(name, "user."); }

// Those that the superuser alone may set, and that a change of owner takes away.
bool isSecurityAttribute(const std::string& name) {
  return startsWith(name, "security.") || startsWith(name, "trusted.");
}

}  // namespace

// The umask is asked for only where it is needed: it costs reading a file of /proc.
void MetadataRestorer::begin(const TarOptions& options) {
  m_parts = options.restore;
  m_byId = options.ownerById;
  m_settlesExisting = options.settlesExistingDirectories && m_parts.fullMode;
  m_directories.clear();
  m_newParents.clear();
  m_notKept.clear();
  if (m_parts.mode && !m_parts.fullMode) m_umask = FileMetadata::umask();
  if (m_parts.owner) FileMetadata::ownIds(m_ownUid, m_ownGid);
}

// A file of the user's own needs no other owner afterwards. By names where they count, as they will be set.
bool MetadataRestorer::isOurs(const Member& member) {
  return !m_parts.owner || (uidOf(member) == m_ownUid && gidOf(member) == m_ownGid);
}

// Whether anything has to be set before the file may have its mode. A file that is open to others before it
// has its owner, or its list, could be read by those who were never to see it.
bool MetadataRestorer::setsAfterwards(const Member& member) {
  return !isOurs(member) || (m_parts.fullMode && (member.mode & FileMetadata::kSetIds) != 0) ||
         (m_parts.xattr && (!member.accessList.empty() || !member.attributes.empty()));
}

// Its own mode at once spares a call for each ordinary file: the system has then taken off what the umask, or
// the directory's own default list, takes off. A group that comes from the directory may not read what is not
// its own.
unsigned MetadataRestorer::modeToMake(const Member& member, bool groupMayDiffer) {
  constexpr unsigned kOwnerOnly = 0600, kUsual = 0666;
  if (!m_parts.mode) return kUsual;
  const bool waits = setsAfterwards(member) || (m_parts.owner && groupMayDiffer);
  m_isMadeWithItsMode = !m_parts.fullMode && !waits;
  return waits ? kOwnerOnly : member.mode & FileMetadata::kPermissions;
}

// Directories are made with a mode of the run's, special files with one that depends on Restore.
bool MetadataRestorer::wasMadeWithItsMode(const Member& member) const {
  return m_isMadeWithItsMode && !member.isDirectory && !member.isSpecial();
}

// A step that fails is noted, and the next ones are taken all the same.
void MetadataRestorer::settle(int fd, const Member& member, const XString& entryPath, const Io& io) {
  m_hasList = false;
  // One look at what is there spares most files two calls.
  FileMetadata::Status status;
  if (m_parts.owner || (m_parts.mode && !wasMadeWithItsMode(member))) FileMetadata::look(fd, status);
  const bool ownerIsKept = !m_parts.owner || setOwner(fd, member, status, entryPath, io);
  // Links have neither a mode nor attributes that are their own.
  if (!member.isSymbolicLink()) {
    if (m_parts.xattr) setAttributes(fd, member, false, entryPath, io);
    if (m_parts.mode) setMode(fd, member, status, ownerIsKept, entryPath, io);
    if (m_parts.all) setAttributes(fd, member, true, entryPath, io);
  }
  if (m_parts.time) setTimes(fd, member, entryPath, io);
}

// A name goes before a number unless OwnerById says otherwise, since numbers mean different people on
// different systems. A name that is not known here leaves the number.
unsigned MetadataRestorer::uidOf(const Member& member) {
  if (m_byId || member.userName.empty()) return member.uid;
  return m_users.userId(member.userName).value_or(member.uid);
}

unsigned MetadataRestorer::gidOf(const Member& member) {
  if (m_byId || member.groupName.empty()) return member.gid;
  return m_users.groupId(member.groupName).value_or(member.gid);
}

// The number that means "leave it" is refused: the archive would then choose to keep the owner that extracts.
// Status is looked at again behind the change, for the mode that follows.
bool MetadataRestorer::setOwner(int fd, const Member& member, FileMetadata::Status& status,
                                const XString& entryPath, const Io& io) {
  const unsigned uid = uidOf(member), gid = gidOf(member);
  if (status.isKnown && status.uid == uid && status.gid == gid) return true;
  const int error = uid == kNoId || gid == kNoId ? EINVAL : FileMetadata::setOwner(fd, uid, gid);
  if (error != 0) m_notKept.note(NotKept::Kind::Owner, entryPath, error, io);
  FileMetadata::look(fd, status);  // the system may have taken bits of the mode away
  return error == 0;
}

// Set-id bits only on what belongs to the owner that the archive states: on anybody else's file they would be
// a program that runs as somebody whom nobody meant. Comparing first spares the call where the mode is right
// already. A file with a list keeps its group bits, which are the list's mask.
void MetadataRestorer::setMode(int fd, const Member& member, const FileMetadata::Status& status,
                               bool ownerIsKept, const XString& entryPath, const Io& io) {
  unsigned mode = member.mode & FileMetadata::kAllBits;
  if (member.isSpecial()) mode &= ~FileMetadata::kSetIds;  // they mean nothing there
  if (!m_parts.fullMode) {
    mode &= FileMetadata::kPermissions & ~m_umask;
  } else if ((mode & FileMetadata::kSetIds) != 0) {
    const bool isOwners = status.isKnown && status.uid == uidOf(member) && status.gid == gidOf(member);
    if (!ownerIsKept || !isOwners) mode &= ~FileMetadata::kSetIds;
    // Nobody decided that against the member: the system did not say whose it is.
    if (!status.isKnown) m_notKept.note(NotKept::Kind::Mode, entryPath, status.error, io);
  }
  if (status.isKnown && status.mode == mode && !m_hasList) return;
  if (wasMadeWithItsMode(member)) return;
  const int error = m_hasList ? FileMetadata::setModeBesideList(fd, mode) : FileMetadata::setMode(fd, mode);
  if (error != 0) m_notKept.note(NotKept::Kind::Mode, entryPath, error, io);
}

// Called twice, for the two kinds; lists go with the first, before the mode. Default lists are directories'
// alone.
void MetadataRestorer::setAttributes(int fd, const Member& member, bool security, const XString& entryPath,
                                     const Io& io) {
  for (const MemberAttribute& attribute : member.attributes) {
    if (!(security ? isSecurityAttribute : isUserAttribute)(attribute.name)) continue;
    const int error = FileMetadata::setAttribute(fd, attribute.name, attribute.value);
    if (error != 0) m_notKept.note(NotKept::Kind::Attributes, entryPath, error, io);
  }
  if (security) return;
  m_hasList = setAccessList(fd, FileMetadata::kAccessList, member.accessList, entryPath, io);
  if (member.isDirectory) {
    setAccessList(fd, FileMetadata::kDefaultList, member.defaultAccessList, entryPath, io);
  }
}

bool MetadataRestorer::setAccessList(int fd, const char* name, const std::string& text,
                                     const XString& entryPath, const Io& io) {
  if (text.empty()) return false;
  const std::optional<std::string> bytes = accessListBytes(text, m_byId, m_users);
  const int error = bytes ? FileMetadata::setAttribute(fd, name, *bytes) : EINVAL;
  if (error != 0) m_notKept.note(NotKept::Kind::Attributes, entryPath, error, io);
  return error == 0;
}

// An access time that the archive does not have stays what extraction made it.
timespec MetadataRestorer::accessTimeOf(const Member& member) {
  timespec access{};
  access.tv_nsec = UTIME_OMIT;
  return member.atime.known ? member.atime.fileTime().toTimespec() : access;
}

bool MetadataRestorer::isPlain(const Member& member) {
  const bool hasMore = !member.attributes.empty() || !member.accessList.empty();
  const bool hasSetId = (member.mode & FileMetadata::kSetIds) != 0;
  if (((m_parts.xattr || m_parts.all) && hasMore) || (m_parts.fullMode && hasSetId)) return false;
  return !m_parts.owner || (uidOf(member) != kNoId && gidOf(member) != kNoId);
}

FileSettlement MetadataRestorer::plan(const Member& member) {
  FileSettlement settlement;
  settlement.setsOwner = m_parts.owner;
  settlement.uid = m_parts.owner ? uidOf(member) : 0;
  settlement.gid = m_parts.owner ? gidOf(member) : 0;
  settlement.setsMode = m_parts.mode && !wasMadeWithItsMode(member);
  settlement.mode = member.mode & FileMetadata::kAllBits;
  if (!m_parts.fullMode) settlement.mode &= FileMetadata::kPermissions & ~m_umask;
  settlement.setsTimes = m_parts.time;
  settlement.access = accessTimeOf(member);
  settlement.modification = member.mtime.fileTime().toTimespec();
  return settlement;
}

void MetadataRestorer::setTimes(int fd, const Member& member, const XString& entryPath, const Io& io) {
  const int error = FileMetadata::setTimes(fd, accessTimeOf(member), member.mtime.fileTime().toTimespec());
  if (error != 0) m_notKept.note(NotKept::Kind::Times, entryPath, error, io);
}

void MetadataRestorer::noteParents(const std::vector<ConfinedDir::NewParent>& parents) {
  for (const ConfinedDir::NewParent& parent : parents) m_newParents.insert(parent.identity);
}

// A directory that stood there before the run is not the run's to change, unless a full mode was asked for
// along with it (settlesExistingDirectories). A second member of the same directory replaces what the first
// one said, as a later member does.
void MetadataRestorer::noteDirectory(const ConfinedDir::MadeDirectory& made, const Member& member,
                                     const std::string& path) {
  if (!made.isKnown) return;
  const bool isOurs = made.isNew || m_settlesExisting || m_newParents.count(made.identity) > 0 ||
                      m_directories.count(made.identity) > 0;
  if (!isOurs) return;
  Directory& kept = m_directories[made.identity];
  kept.path = cleanPath(path);
  kept.mode = member.mode;
  kept.uid = uidOf(member);
  kept.gid = gidOf(member);
  kept.mtime = member.mtime;
  kept.atime = member.atime;
  kept.more.reset();
  const bool hasMore =
      !member.attributes.empty() || !member.accessList.empty() || !member.defaultAccessList.empty();
  if (!m_parts.xattr || !hasMore) return;
  kept.more = std::make_unique<Directory::More>();
  *kept.more = {member.attributes, member.accessList, member.defaultAccessList};
}

// As the member that settle takes. Its owner is known by number, so that it has no names.
Member MetadataRestorer::memberOf(const Directory& kept) {
  Member member;
  member.path = kept.path;
  member.isDirectory = true;
  member.typeFlag = kTypeDirectory;
  member.mode = kept.mode;
  member.uid = kept.uid;
  member.gid = kept.gid;
  member.mtime = kept.mtime;
  member.atime = kept.atime;
  if (!kept.more) return member;
  member.attributes = std::move(kept.more->attributes);
  member.accessList = std::move(kept.more->accessList);
  member.defaultAccessList = std::move(kept.more->defaultAccessList);
  return member;
}

// Deepest first: setting the mode of a directory may close the way to those in it. Each is opened anew by its
// path, for no run could keep thousands of them open, and left alone if it is no more the one that was made.
void MetadataRestorer::settleDirectories(ConfinedDir& target, const Io& io) {
  std::vector<std::pair<const ConfinedDir::Identity, Directory>*> order;
  order.reserve(m_directories.size());
  for (auto& each : m_directories) order.push_back(&each);
  std::sort(order.begin(), order.end(),
            [](const auto* a, const auto* b) { return depthOf(a->second.path) > depthOf(b->second.path); });
  for (const auto* each : order) {
    const Member directory = memberOf(each->second);
    const XString entryPath(directory.path);
    const OsFile file(target.openExisting(directory.path, O_RDONLY | O_DIRECTORY | O_NONBLOCK,
                                          ConfinedDir::Passing::LinksAsMade));
    struct stat status;
    const bool isThere = file.isOpen() && file.status(status) == 0;
    const int error = errno;  // of the one or the other, where it is not there
    if (isThere && status.st_dev == each->first.device && status.st_ino == each->first.inode) {
      settle(file.fd(), directory, entryPath, io);
      continue;
    }
    // A later member may have taken its place; what cannot be opened is another matter.
    const bool isGone =
        isThere || (!file.isOpen() && (error == ENOENT || error == ENOTDIR || error == ELOOP));
    if (!isGone) m_notKept.note(NotKept::Kind::Mode, entryPath, error, io);
    io.log.LogNotice("The directory is not the one that was made; it is left as it is.");
    io.log.LogDataX("entryPath", entryPath);
  }
  m_directories.clear();
  m_newParents.clear();
}

}  // namespace morvane
