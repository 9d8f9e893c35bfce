#include "tar/write/SourceFile.h"

#include <cerrno>

#include "runtime/log/LogNull.h"

namespace morvane {

bool SourceFile::examine(const SourcePlace& place, bool mayOpen, mvFileInfo& info, LogBase& log) {
  close();
  const char* const path = place.fullPath.getUtf8();
  if (place.directory < 0) return info.loadFileInfoUtf8(path, log);
  if (place.isRegular && mayOpen) {
    OsFile file(osOpenSource(place.directory, place.name));
    struct stat status;
    if (file.isOpen() && file.status(status) == 0 && S_ISREG(status.st_mode)) {
      info.setFromStatus(status);
      m_data.adoptForCopy(std::move(file), path, info.m_size);
      m_open = true;
      return true;
    }
  }
  return info.loadFileInfoAt(place.directory, place.name, path, log);
}

bool SourceFile::open(const SourcePlace& place, const mvFileInfo& info, LogBase& log) {
  if (m_open) return true;
  const char* const path = place.fullPath.getUtf8();
  OsFile file(place.directory < 0 ? osOpenSource(path) : osOpenSource(place.directory, place.name));
  if (!file.isOpen()) {
    logOsError(log, "Failed to open file.", path, errno);
    return false;
  }
  m_data.adoptForCopy(std::move(file), path, info.m_size);
  m_open = true;
  return true;
}

bool SourceFile::readFirst(LogBase& log) {
  const char* bytes = nullptr;
  unsigned got = 0;
  return m_data.peekBytes(1, bytes, got, nullptr, log);
}

long long SourceFile::sizeNow() {
  mvFileInfo info;
  LogNull unwanted;
  return m_data.getFileInfo(info, unwanted) ? info.m_size : -1;
}

void SourceFile::close() {
  if (m_open) m_data.close();
  m_open = false;
}

}  // namespace morvane
