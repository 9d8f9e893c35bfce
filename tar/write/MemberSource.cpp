#include "tar/write/MemberSource.h"

#include "tar/format/TarBlock.h"
#include "tar/format/TarNumber.h"

namespace morvane {

namespace {

bool isScriptPath(std::string_view path) {
  for (const std::string_view ending : {".sh", ".csh", ".bash", ".bsh"}) {
    if (path.size() >= ending.size() && path.substr(path.size() - ending.size()) == ending) return true;
  }
  return false;
}

// A property is a number of any size; of one that has more digits than its field the low ones are stored.
unsigned storedDigits(int property) { return static_cast<unsigned>(property) & kMostOctal; }

int modeOf(const mvFileInfo& info, const WriteSettings& settings, std::string_view path) {
  if (info.m_isDirectory) return settings.dirMode;
  return isScriptPath(path) ? settings.scriptFileMode : settings.fileMode;
}

}  // namespace

void normalisePath(XString& path, bool isDirectory) {
  path.replaceAllOccurancesUtf8("\\", "/", false);
  if (isDirectory && !path.endsWithUtf8("/", false)) path.appendUtf8("/");
}

void describeMember(const mvFileInfo& info, const WriteSettings& settings, XString& pathInTar,
                    Member& member) {
  normalisePath(pathInTar, info.m_isDirectory);
  member.path = pathInTar.str();
  member.isDirectory = info.m_isDirectory;
  member.typeFlag = info.m_isDirectory ? kTypeDirectory : kTypeRegular;
  member.size = info.m_isDirectory ? 0 : info.m_size;
  member.mode = storedDigits(modeOf(info, settings, pathInTar.str()));
  member.uid = storedDigits(settings.userId);
  member.gid = storedDigits(settings.groupId);
  member.userName.assign(settings.userName, 0, kUserNameField.width - 1);
  member.groupName.assign(settings.groupName, 0, kGroupNameField.width - 1);
  // Whole seconds of 32 bits: what is outside their range is brought to its end.
  member.mtime = {info.m_lastModified.toUnixTime32(), 0, true};
}

}  // namespace morvane
