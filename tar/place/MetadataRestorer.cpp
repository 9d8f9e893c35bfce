// What was extracted gets back what it was. Everything goes through a descriptor of what the run made, so
// that nobody can have the run change another file by putting it in the place of this one. What cannot be
// kept is noted and never fails the run: data without their owner are better than none.
#include "tar/place/MetadataRestorer.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "runtime/base/ScopeExit.h"
#include "runtime/fs/AccessList.h"
#include "runtime/fs/MorvaneFileTime.h"
#include "runtime/io/Io.h"
#include "tar/format/EntryPath.h"
#include "tar/place/RunLimits.h"

namespace morvane {

namespace {

// Beside an access list the system shows its mask in the group's bits.
constexpr unsigned kGroupBits = 070;
// What the attributes of all directories that wait to be settled may take together: more than any honest tree
// has, and no more than a process can spare.
constexpr size_t kMostKeptBytes = 64 << 20;

// One that the system has no room for is no id here: cut, it would be somebody else's.
unsigned systemId(long long id) {
  return id < FileMetadata::kNoId ? static_cast<unsigned>(id) : FileMetadata::kNoId;
}

}  // namespace

// What is not restored needs no ids.
void MetadataRestorer::begin(const TarOptions& options) {
  m_parts = options.restore;
  m_byId = options.ownerById;
  m_settlesExisting = options.settlesExistingDirectories && m_parts.fullMode;
  m_directories.clear();
  m_newParents.clear();
  m_keptBytes = 0;
  m_notKept.clear();
  m_umask.reset();
  if (m_parts.owner) FileMetadata::ownIds(m_ownUid, m_ownGid);
}

// A file of the user's own needs no other owner afterwards. By names where they count, as they will be set.
// Where owners are not restored every file counts as such.
bool MetadataRestorer::isOurs(const Member& member) {
  return !m_parts.owner || (uidOf(member) == m_ownUid && gidOf(member) == m_ownGid);
}

// Whether anything has to be set before the file may have its mode. A file that is open to others before it
// has its owner, or its list, could be read by those who were never to see it.
bool MetadataRestorer::setsAfterwards(const Member& member) {
  return !isOurs(member) || (m_parts.fullMode && (member.mode & FileMetadata::kSetIds) != 0) ||
         (m_parts.xattr && (!member.accessList.empty() || !member.attributes.empty()));
}

// A mode for the owner alone is the same to every group.
bool MetadataRestorer::asksForGroup(const Member& member) const {
  constexpr unsigned kOfOthers = 077;
  return m_parts.mode && m_parts.owner && (member.mode & kOfOthers) != 0;
}

// Its own mode at once spares a call for each ordinary file: the system has then taken off what the umask, or
// the directory's own default list, takes off. A group that comes from the directory may not read what is not
// its own.
unsigned MetadataRestorer::modeToMake(const Member& member, bool groupIsOwn) {
  constexpr unsigned kOwnerOnly = 0600, kUsual = 0666;
  if (!m_parts.mode) return kUsual;
  const bool waits = setsAfterwards(member) || (asksForGroup(member) && !groupIsOwn);
  m_isMadeWithItsMode = !m_parts.fullMode && !waits;
  return waits ? kOwnerOnly : member.mode & FileMetadata::kPermissions;
}

// Directories are made with a mode of the run's, special files with one that depends on Restore.
bool MetadataRestorer::wasMadeWithItsMode(const Member& member) const {
  return m_isMadeWithItsMode && !member.isDirectory && !member.isSpecial();
}

// Of several failures of one kind the first is told, so that members are counted and not failures.
void MetadataRestorer::Settling::note(NotKept::Kind kind, int error) {
  const unsigned bit = 1u << static_cast<unsigned>(kind);
  if ((noted & bit) == 0) notKept.note(kind, entryPath, error, io);
  noted |= bit;
}

// A step that fails is noted, and the next ones are taken all the same. One look at what is there spares most
// files two calls. Links have no mode of their own.
void MetadataRestorer::settle(int fd, const Member& member, const XString& entryPath, const Io& io) {
  Settling now{fd, member, entryPath, io, m_notKept, plan(member)};
  FileSettlement& given = now.given;
  if (given.setsOwner || given.setsMode) FileMetadata::look(fd, now.status);
  const int owner = given.giveOwner(fd, now.status);
  if (owner != 0) now.note(NotKept::Kind::Owner, owner);
  if (m_parts.xattr) setUserAttributes(now);
  if (!member.isSymbolicLink()) setMode(now, owner == 0);
  // Behind owner and mode, since chown takes capabilities away.
  if (m_parts.all) setAttributes(now, FileMetadata::isSecurityAttribute);
  const int times = given.giveTimes(fd);
  if (times != 0) now.note(NotKept::Kind::Times, times);
}

// A name goes before a number unless OwnerById says otherwise, since numbers mean different people on
// different systems. A name that is not known here leaves the number. An id that is out of the system's range
// becomes the one that nobody has, and giveOwner refuses that.
unsigned MetadataRestorer::uidOf(const Member& member) {
  if (m_byId || member.userName.empty()) return systemId(member.uid);
  return m_users.userId(member.userName).value_or(systemId(member.uid));
}

unsigned MetadataRestorer::gidOf(const Member& member) {
  if (m_byId || member.groupName.empty()) return systemId(member.gid);
  return m_users.groupId(member.groupName).value_or(systemId(member.gid));
}

// Set-id bits only on what belongs to the owner that the archive states: on anybody else's file they would be
// a program that runs as somebody whom nobody meant. Beside an access list the group bits are the list's mask
// and stay, because the list would lose the rights that its mask gives. Without its list the group would get
// what the mask gives to others; it has what the list's own entry for it says.
void MetadataRestorer::setMode(Settling& now, bool ownerIsKept) {
  if (!now.given.setsMode) return;
  const FileMetadata::Status& status = now.status;
  unsigned& mode = now.given.mode;
  const bool hasSetIds = (mode & FileMetadata::kSetIds) != 0;
  // Nobody decided that against the member: the system did not say whose it is, or what its mask is.
  if (!status.isKnown && (hasSetIds || now.hasList)) now.note(NotKept::Kind::Mode, status.error);
  if (!status.isKnown && now.hasList) return;
  const bool isOwners =
      hasSetIds && status.isKnown && status.uid == uidOf(now.member) && status.gid == gidOf(now.member);
  if (!ownerIsKept || !isOwners) mode &= ~FileMetadata::kSetIds;
  if (now.hasList) mode = (mode & ~kGroupBits) | (status.mode & kGroupBits);
  if (now.lacksList) mode &= ~kGroupBits | owningGroupBits(now.member.accessList);
  // A directory that has it from the one it is in keeps it, as every new directory does.
  if (now.member.isDirectory && !m_parts.fullMode && status.isKnown) mode |= status.mode & S_ISGID;
  const int error = now.given.giveMode(now.fd, status);
  if (error != 0) now.note(NotKept::Kind::Mode, error);
}

// One that is refused does not keep the others from being set: a file system may know some name spaces only.
void MetadataRestorer::setAttributes(Settling& now, bool (*isMeant)(const std::string& name)) {
  for (const MemberAttribute& attribute : now.member.attributes) {
    if (!isMeant(attribute.name)) continue;
    const int error = FileMetadata::setAttribute(now.fd, attribute.name, attribute.value);
    if (error != 0) now.note(NotKept::Kind::Attributes, error);
  }
}

// Lists go before the mode, which they change. Default lists are directories' alone.
void MetadataRestorer::setUserAttributes(Settling& now) {
  const Member& member = now.member;
  if (member.lacksAttributes) now.note(NotKept::Kind::Attributes, E2BIG);
  setAttributes(now, FileMetadata::isUserAttribute);
  if (!member.accessList.empty()) {
    now.hasList = setAccessList(now, FileMetadata::kAccessList, member.accessList, now.lacksList);
    FileMetadata::look(now.fd, now.status);
  }
  bool isUnset = false;  // noted, and nothing follows from it
  if (member.isDirectory && !member.defaultAccessList.empty())
    setAccessList(now, FileMetadata::kDefaultList, member.defaultAccessList, isUnset);
}

// The system's bytes become the text of archives, and the usual way back is taken. What cannot be read is
// noted when the copy is settled.
void MetadataRestorer::takeAttributesOf(int fd, Member& member) {
  if (!m_parts.xattr) return;
  FileMetadata::Attributes attributes;
  if (FileMetadata::readAttributes(fd, m_parts.all, attributes) == 0)
    member.takeAttributes(attributes, m_users);
  else
    member.lacksAttributes = true;
}

// A list without a mask says what the mode says: the system makes one of it, and the umask holds for that. A
// text that is no list is noted as if the system had refused it.
bool MetadataRestorer::setAccessList(Settling& now, const char* name, const std::string& text,
                                     bool& isUnset) {
  const std::optional<std::string> bytes = accessListBytes(text, m_byId, m_users);
  const int error = bytes ? FileMetadata::setAttribute(now.fd, name, *bytes) : EINVAL;
  if (error != 0) now.note(NotKept::Kind::Attributes, error);
  isUnset = error != 0;
  return error == 0 && isExtendedAccessList(*bytes);
}

// An access time that the archive does not have stays what extraction made it.
timespec MetadataRestorer::accessTimeOf(const Member& member) {
  timespec access{};
  access.tv_nsec = UTIME_OMIT;
  return member.atime.known ? member.atime.fileTime().toTimespec() : access;
}

// Only what FileSettlement can do without a word: an id that is none of the system's has to be told of.
bool MetadataRestorer::isPlain(const Member& member) {
  const bool hasMore = !member.attributes.empty() || !member.accessList.empty() || member.lacksAttributes;
  const bool hasSetId = (member.mode & FileMetadata::kSetIds) != 0;
  if (((m_parts.xattr || m_parts.all) && hasMore) || (m_parts.fullMode && hasSetId)) return false;
  return !m_parts.owner || (uidOf(member) != FileMetadata::kNoId && gidOf(member) != FileMetadata::kNoId);
}

// It costs reading a file of /proc, so that runs that only list do without.
unsigned MetadataRestorer::umask() {
  if (!m_umask) m_umask = FileMetadata::umask();
  return *m_umask;
}

// The umask is taken off here, because chmod heeds none, unlike the call that makes a file. A link has no
// mode of its own.
FileSettlement MetadataRestorer::plan(const Member& member) {
  FileSettlement settlement;
  settlement.setsOwner = m_parts.owner;
  settlement.uid = m_parts.owner ? uidOf(member) : 0;
  settlement.gid = m_parts.owner ? gidOf(member) : 0;
  settlement.setsMode = m_parts.mode && !member.isSymbolicLink() && !wasMadeWithItsMode(member);
  settlement.mode = member.mode & FileMetadata::kAllBits;
  if (!m_parts.fullMode) settlement.mode &= FileMetadata::kPermissions & ~umask();
  settlement.setsTimes = m_parts.time;
  settlement.access = accessTimeOf(member);
  settlement.modification = member.mtime.fileTime().toTimespec();
  return settlement;
}

void MetadataRestorer::noteParents(const std::vector<ConfinedDir::NewParent>& parents) {
  for (const ConfinedDir::NewParent& parent : parents) m_newParents.insert(parent.identity);
}

// A directory that stood there before the run is not the run's to change, unless a full mode was asked for
// along with it (settlesExistingDirectories). A second member of the same directory replaces what the first
// one said, as a later member does.
void MetadataRestorer::noteDirectory(const ConfinedDir::MadeDirectory& made, const Member& member,
                                     const std::string& path) {
  // What a link leads to is not the run's to change.
  if (!made.isKnown && !made.isForeign) return;
  const bool isOurs = made.isNew || m_settlesExisting || m_newParents.count(made.identity) > 0 ||
                      m_directories.count(made.identity) > 0;
  if (!isOurs) return;
  Directory& kept = m_directories[made.identity];
  // A second member of the same directory leaves that as it is.
  if (made.isNew) kept.isForeign = made.isForeign;
  kept.path = cleanPath(path);
  kept.mode = member.mode;
  // Looked up now, so that names need not be kept until the end; and only where anybody asks, because the
  // system may load libraries for the first name.
  const bool countsOwner = m_parts.owner || (m_parts.fullMode && (member.mode & FileMetadata::kSetIds) != 0);
  kept.uid = countsOwner ? uidOf(member) : FileMetadata::kNoId;
  kept.gid = countsOwner ? gidOf(member) : FileMetadata::kNoId;
  kept.mtime = member.mtime;
  kept.atime = member.atime;
  if (m_parts.xattr || m_parts.all) keepAttributes(member, kept);
}

// What would be too much with the others' is left off, and that is noted when the directory is settled.
void MetadataRestorer::keepAttributes(const Member& member, Directory& kept) {
  if (kept.more) m_keptBytes -= kept.more->bytes;
  kept.more.reset();
  kept.lacksAttributes = member.lacksAttributes;
  size_t bytes = member.accessList.size() + member.defaultAccessList.size();
  for (const MemberAttribute& each : member.attributes)
    bytes += sizeof each + each.name.size() + each.value.size();
  if (bytes == 0) return;
  kept.lacksAttributes |= bytes > kMostKeptBytes - m_keptBytes;
  if (bytes > kMostKeptBytes - m_keptBytes) return;
  m_keptBytes += bytes;
  kept.more = std::make_unique<Directory::More>();
  *kept.more = {member.attributes, member.accessList, member.defaultAccessList, bytes};
}

// As the member that settle takes. Its owner is known by number, so that it has no names. Its attributes are
// moved out, for takeBack to return them: a copy could be megabytes.
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
  member.lacksAttributes = kept.lacksAttributes;
  if (!kept.more) return member;
  member.attributes = std::move(kept.more->attributes);
  member.accessList = std::move(kept.more->accessList);
  member.defaultAccessList = std::move(kept.more->defaultAccessList);
  return member;
}

void MetadataRestorer::takeBack(Member& directory, Directory& kept) {
  if (!kept.more) return;
  kept.more->attributes = std::move(directory.attributes);
  kept.more->accessList = std::move(directory.accessList);
  kept.more->defaultAccessList = std::move(directory.defaultAccessList);
}

// For a new directory that is not the process's own (ConfinedDir::MadeDirectory). Nobody but its owner could
// use it as it was made. It gets no more than any new directory has, because it may be somebody else's; and
// it is open as itself, so that no other gets that.
void MetadataRestorer::settleForeign(int fd, const Member& directory, const XString& entryPath,
                                     const Io& io) {
  if (!m_parts.mode) return;
  const unsigned mode = directory.mode & FileMetadata::kPermissions & ~umask();
  const int error = FileMetadata::setMode(fd, mode);
  m_notKept.note(NotKept::Kind::Mode, entryPath, error != 0 ? error : EPERM, io);
}

// Deepest first: setting the mode of a directory may close the way to those in it. Each is opened anew by its
// path, for no run could keep thousands of them open, and left alone if it is no more the one that was made.
void MetadataRestorer::settleDirectories(ConfinedDir& target, const Io& io) {
  // The map is sorted by identity, and pointers into it stay good.
  std::vector<std::pair<const ConfinedDir::Identity, Directory>*> order;
  order.reserve(m_directories.size());
  for (auto& each : m_directories) order.push_back(&each);
  std::sort(order.begin(), order.end(),
            [](const auto* a, const auto* b) { return depthOf(a->second.path) > depthOf(b->second.path); });
  for (auto* each : order) {
    Member directory = memberOf(each->second);
    const XString entryPath(directory.path);
    // O_NONBLOCK, because a FIFO may stand there by now; O_DIRECTORY refuses it.
    const OsFile file(target.openExisting(directory.path, O_RDONLY | O_DIRECTORY | O_NONBLOCK,
                                          ConfinedDir::Passing::LinksAsMade));
    struct stat status;
    const bool isThere = file.isOpen() && file.status(status) == 0;
    const int error = errno;  // of the one or the other, where it is not there
    if (isThere && status.st_dev == each->first.device && status.st_ino == each->first.inode) {
      // A callback that throws ends the run, and what is left is settled without it, this one once more: with
      // a mode and no access list its group would get what the list's mask gives.
      const ScopeExit keep([&] { takeBack(directory, each->second); });
      each->second.isForeign ? settleForeign(file.fd(), directory, entryPath, io)
                             : settle(file.fd(), directory, entryPath, io);
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
  m_keptBytes = 0;
}

}  // namespace morvane
