// The way of a path: stored bytes, path rules, decoding, the place below UntarFromDir. Back slashes become
// slashes as archives written on Windows have them, always, so that no rule can be got around with the other
// kind.
#include "tar/place/MemberPath.h"

#include "runtime/fs/_mvFilePath.h"
#include "runtime/log/LogBase.h"
#include "runtime/progress/ProgressEvent.h"
#include "runtime/progress/TarMemberInfo.h"
#include "tar/format/EntryPath.h"
#include "tar/format/Member.h"
#include "tar/format/ShownMember.h"

namespace morvane {

void MemberPath::set(const Member& member, const ReadSettings& settings, LogBase& log) {
  // Cut before it is decoded, and decoded without a copy: a name may have many megabytes.
  applyRules(member.path, settings, log, m_entryPath.buffer());
  // A copy, because a callback may set the property while this member is under way.
  m_dir = settings.untarFromDir;
  m_hasOutputPath = false;
}

// The rules look at stored bytes. They need slashes only, which every character set that is read keeps as
// they are; what becomes absolute by decoding is left to the confined target.
void MemberPath::applyRules(const std::string& stored, const ReadSettings& settings, LogBase& log,
                            std::string& path) {
  path.clear();
  decoder(settings, log)
      .append(leftOfEntryPath(stored, settings.untarDiscardPaths, settings.noAbsolutePaths), '\\', '/', path);
}

// Hard links name a member, so that the same rules lead to where that member was put.
std::string MemberPath::targetOf(const std::string& linkPath, const ReadSettings& settings, LogBase& log) {
  std::string path;
  applyRules(linkPath, settings, log, path);
  return path;
}

// The event's path is UTF-8 already and is not decoded. Rules hold for it as for a stored one: an application
// that passes a name on from elsewhere gets the same protection.
void MemberPath::rename(const std::string& path, const ReadSettings& settings) {
  m_entryPath = std::string(leftOfEntryPath(path, settings.untarDiscardPaths, settings.noAbsolutePaths));
  m_entryPath.replaceAllOccurancesUtf8("\\", "/", false);
  m_hasOutputPath = false;
}

// It is UTF-8 by now, and is not decoded a second time.
void MemberPath::setAgain(const std::string& entryPath) {
  m_entryPath = entryPath;
  m_hasOutputPath = false;
}

// Members that are only listed or filtered out never need it.
const XString& MemberPath::outputPath() const {
  if (!m_hasOutputPath) _mvFilePath::CombineDirAndFilepath(m_dir, m_entryPath, m_outputPath);
  m_hasOutputPath = true;
  return m_outputPath;
}

// A string keeps its room when it is cleared; only exchanging it for another gives that back.
void giveUpLongText(std::string& text) {
  constexpr size_t kLong = 1 << 20;
  if (text.size() > kLong) std::string().swap(text);
}

// Pointers into the member, good for the callback only. The path is the stored one in its own character set;
// entryPath is what the rules made of it.
void announceHeader(ProgressEvent& event, const Member& member, const XString& entryPath) {
  TarMemberInfo info;
  info.path = member.path.c_str();
  info.entryPath = entryPath.getUtf8();
  info.linkPath = member.linkPath.c_str();
  info.userName = member.userName.c_str();
  info.groupName = member.groupName.c_str();
  info.typeFlag = member.typeFlag;
  info.isDirectory = member.isDirectory;
  info.size = member.size;
  info.mtime = member.mtime.seconds;
  info.headerPosition = member.headerPosition;
  info.mode = member.mode;
  info.uid = shownId(member.uid);
  info.gid = shownId(member.gid);
  info.exactUid = member.uid;
  info.exactGid = member.gid;
  info.mtimeNanoseconds = member.mtime.nanoseconds;
  info.deviceMajor = member.deviceMajor;
  info.deviceMinor = member.deviceMinor;
  info.realSize = member.sparse.isSparse() ? member.sparse.realSize() : member.size;
  event.onTarHeader(info);
}

}  // namespace morvane
