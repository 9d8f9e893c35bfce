// A header has two sources of truth: the properties, which make the same archive of the same names on any
// machine, and the file itself where Store asks for it. The first is the default. Each part that is stored
// replaces what the properties said, so that the order here is: properties, parts, what makes an archive
// reproducible.
#include "tar/write/MemberSource.h"

#include <sys/stat.h>

#include <algorithm>

#include "runtime/fs/AccessList.h"
#include "runtime/fs/FileMetadata.h"
#include "runtime/log/LogNull.h"
#include "tar/format/TarBlock.h"
#include "tar/format/TarNumber.h"

namespace morvane {

namespace {

// By the end of the name and not by the file's bits, which the properties ignore. Case counts. The list is
// the whole of it: other languages' scripts get FileMode.
bool isScriptPath(std::string_view path) {
  for (const std::string_view ending : {".sh", ".csh", ".bash", ".bsh"}) {
    if (path.size() >= ending.size() && path.substr(path.size() - ending.size()) == ending) return true;
  }
  return false;
}

// A property is a number of any size; of one that has more digits than its field the low ones are stored.
unsigned storedDigits(int property) { return static_cast<unsigned>(property) & kMostOctal; }

// A link is a file to the properties, since it is archived as one.
int modeOf(const mvFileInfo& info, const WriteSettings& settings, std::string_view path) {
  if (info.m_isDirectory) return settings.dirMode;
  return isScriptPath(path) ? settings.scriptFileMode : settings.fileMode;
}

std::pair<unsigned long long, unsigned long long> identityOf(const mvFileInfo& info) {
  return {info.m_device, info.m_inode};
}

// The same for every machine and every time at which the tree may be packed. Only that a file can be run is
// kept, and its time where it is no later than the latest; attributes and holes depend on the file system and
// are left out by the caller.
void makeReproducible(const mvFileInfo& info, long long latest, Member& member) {
  constexpr unsigned kOwnerMayRun = 0100;
  const bool runs = info.m_isDirectory || (info.m_mode & kOwnerMayRun) != 0;
  member.mode = runs ? 0755 : 0644;
  member.uid = member.gid = 0;
  member.userName.clear();
  member.groupName.clear();
  member.mtime = {std::min(info.m_lastModified.seconds(), latest), 0, true};
}

}  // namespace

// The slash at its end tells a directory to readers that know no type for it.
void normalisePath(XString& path, bool isDirectory) {
  path.replaceAllOccurancesUtf8("\\", "/", false);
  if (isDirectory && !path.endsWithUtf8("/", false)) path.appendUtf8("/");
}

// Names of users are cut to what the header's field holds with its NUL, 31 bytes.
void describeMember(const mvFileInfo& info, const WriteSettings& settings, XString& pathInTar,
                    Member& member) {
  normalisePath(pathInTar, info.m_isDirectory);
  member.path = pathInTar.str();
  member.linkPath.clear();
  member.isDirectory = info.m_isDirectory;
  member.typeFlag = info.m_isDirectory ? kTypeDirectory : kTypeRegular;
  member.size = info.m_isDirectory ? 0 : info.m_size;
  member.deviceMajor = member.deviceMinor = 0;
  member.mode = storedDigits(modeOf(info, settings, pathInTar.str()));
  member.uid = storedDigits(settings.userId);
  member.gid = storedDigits(settings.groupId);
  member.userName.assign(settings.userName, 0, kUserNameField.width - 1);
  member.groupName.assign(settings.groupName, 0, kGroupNameField.width - 1);
  // Whole seconds of 32 bits: what is outside their range is brought to its end.
  member.mtime = {info.m_lastModified.toUnixTime32(), 0, true};
  member.sparse.clear();
  member.attributes.clear();
  member.accessList.clear();
  member.defaultAccessList.clear();
}

// A hard link has neither data nor attributes of its own. Holes come last because they change the size.
bool MemberSource::describe(const SourcePlace& place, const mvFileInfo& info, const WriteSettings& settings,
                            SourceFile& file, XString& pathInTar, Member& member, const Io& io) {
  describeMember(info, settings, pathInTar, member);
  const KeptParts& parts = settings.options.store;
  // -1 without the word.
  const long long latest = settings.options.reproducible;
  if (place.memory) {
    if (latest >= 0) makeReproducible(info, latest, member);
    return true;
  }
  if (parts.mode) member.mode = info.m_mode & FileMetadata::kAllBits;
  if (parts.owner) takeOwner(info, settings, member);
  if (parts.time) member.mtime = {info.m_lastModified.seconds(), info.m_lastModified.nanoseconds(), true};
  // What is neither file, directory nor link: a FIFO, a device, or a socket, which has been left out before.
  if (parts.special && !info.m_isRegularFile && !info.m_isDirectory && !info.m_isSymbolicLink) {
    member.typeFlag = S_ISCHR(info.m_mode)   ? kTypeCharacterDevice
                      : S_ISBLK(info.m_mode) ? kTypeBlockDevice
                                             : kTypeFifo;
    member.deviceMajor = member.isDevice() ? info.m_deviceMajor : 0;
    member.deviceMinor = member.isDevice() ? info.m_deviceMinor : 0;
  }
  if (latest >= 0) makeReproducible(info, latest, member);
  if (parts.link && !takeLink(place, info, member, io)) return false;
  // Neither attributes nor holes are the same on every machine.
  if (member.isHardLink() || latest >= 0) return true;
  if (parts.xattr && !takeAttributes(place, info, file, member, io)) return false;
  return !parts.sparse || takeHoles(place, info, settings, file, member);
}

// A user without a name is a number alone. Names are cleared, because the properties have put theirs there.
void MemberSource::takeOwner(const mvFileInfo& info, const WriteSettings& settings, Member& member) {
  member.uid = info.m_uid;
  member.gid = info.m_gid;
  member.userName.clear();
  member.groupName.clear();
  if (settings.options.ownerById) return;
  member.userName = m_users.userName(info.m_uid);
  member.groupName = m_users.groupName(info.m_gid);
}

// A further name of a file that is in the archive is a link to the first; only such a one is looked for, as
// most files have one name.
bool MemberSource::takeLink(const SourcePlace& place, const mvFileInfo& info, Member& member, const Io& io) {
  if (info.m_isSymbolicLink) {
    member.typeFlag = kTypeSymbolicLink;
    member.mode |= 0777;  // what every system shows for one
    if (!SourceFile::readLink(place, member.linkPath, io.log)) return false;
  }
  if (info.m_isDirectory || info.m_linkCount < 2) return true;
  // By device and inode, since one tree may reach over several file systems.
  const auto first = m_firstNames.find(identityOf(info));
  // The same name once more is stored once more: a link to itself would be a link to nothing.
  if (first == m_firstNames.end() || first->second == member.path) return true;
  member.typeFlag = kTypeHardLink;
  member.linkPath = first->second;
  member.size = 0;
  return true;
}

// Only what was written can be linked to, under the path that it got: events may have changed it. A link's
// own path is not noted; further names link to the first.
void MemberSource::noteWritten(const mvFileInfo& info, const WriteSettings& settings, const Member& member) {
  if (!settings.options.store.link || info.m_isDirectory || info.m_linkCount < 2) return;
  if (!member.isHardLink()) m_firstNames[identityOf(info)] = member.path;
}

// Links and special files have some, too: labels, and lists on FIFOs. A link that is archived as an empty
// file has none.
bool MemberSource::takeAttributes(const SourcePlace& place, const mvFileInfo& info, SourceFile& file,
                                  Member& member, const Io& io) {
  if (info.m_isSymbolicLink && !member.isSymbolicLink()) return true;
  FileMetadata::Attributes attributes;
  if (!file.readAttributes(place, attributes, io.log)) return false;
  member.takeAttributes(attributes, m_users);
  return true;
}

// Only a file that takes less room than its size is looked through. Formats: ustar has no form for them;
// GNU's has a type of its own; pax puts the map as text in front of the data, and its bytes count in the
// member's size.
bool MemberSource::takeHoles(const SourcePlace& place, const mvFileInfo& info, const WriteSettings& settings,
                             SourceFile& file, Member& member) {
  const bool mayHaveHoles = info.m_isRegularFile && info.m_size > 0 && info.m_storedSize < info.m_size;
  // Room that a compressing file system saves looks like holes here; the search then finds none.
  if (!mayHaveHoles || settings.format == WriteFormat::Ustar) return true;
  LogNull unwanted;
  // What cannot be opened is said when its data are wanted.
  if (!file.open(place, info, unwanted)) return true;
  file.findRanges(info.m_size, member.sparse);
  if (!member.sparse.isSparse()) return true;
  const bool isPax = settings.format == WriteFormat::Pax;
  if (!isPax) member.typeFlag = kTypeSparse;
  const size_t mapSize = isPax ? sparseMapText(member.sparse).size() : 0;
  member.size = static_cast<long long>(mapSize) + member.sparse.storedSize();
  return true;
}

}  // namespace morvane
