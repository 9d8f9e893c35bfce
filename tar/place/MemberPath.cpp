#include "tar/place/MemberPath.h"

#include "runtime/fs/_mvFilePath.h"
#include "runtime/log/LogBase.h"
#include "runtime/progress/ProgressEvent.h"
#include "runtime/progress/TarMemberInfo.h"
#include "tar/format/EntryPath.h"
#include "tar/format/TarHeader.h"

namespace morvane {

void MemberPath::set(const TarHeader& header, const ReadSettings& settings, LogBase& log) {
  // Cut before it is decoded, and decoded without a copy: a name may have many megabytes.
  std::string& entryPath = m_entryPath.buffer();
  entryPath.clear();
  decoder(settings, log)
      .append(leftOfEntryPath(header.m_path.str(), settings.untarDiscardPaths, settings.noAbsolutePaths),
              '\\', '/', entryPath);
  m_dir = settings.untarFromDir;
  m_hasOutputPath = false;
}

const XString& MemberPath::outputPath() const {
  if (!m_hasOutputPath) _mvFilePath::CombineDirAndFilepath(m_dir, m_entryPath, m_outputPath);
  m_hasOutputPath = true;
  return m_outputPath;
}

void giveUpLongText(StringBuffer& text) {
  constexpr unsigned kLong = 1 << 20;
  if (text.getSize() > kLong) text.clear();
}

void announceHeader(ProgressEvent& event, const TarHeader& header, const XString& entryPath,
                    long long headerPosition, const ReadSettings& settings) {
  TarMemberInfo info;
  info.path = header.m_path.getString();
  info.entryPath = entryPath.getUtf8();
  info.linkPath = header.linkPath();
  info.userName = header.userName();
  info.groupName = header.groupName();
  info.typeFlag = header.m_typeFlag;
  info.isDirectory = header.m_isDirectory;
  info.size = header.m_size;
  info.mtime =
      settings.options.fullRead ? header.m_exactMtime.seconds : static_cast<long long>(header.m_mtime);
  info.headerPosition = headerPosition;
  info.mode = header.m_mode;
  info.uid = header.m_uid;
  info.gid = header.m_gid;
  event.onTarHeader(info);
}

}  // namespace morvane
