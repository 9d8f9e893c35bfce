// What every step of writing an archive needs: the properties, and where bytes, messages and events go.
#pragma once

#include <string>

#include "runtime/log/LogBase.h"
#include "runtime/progress/ProgressMonitor.h"
#include "runtime/text/XString.h"
#include "tar/settings/NameFilter.h"
#include "tar/settings/TarOptions.h"
#include "tar/write/ArchiveOutput.h"

namespace morvane {

enum class WriteFormat { Gnu, Pax, Ustar };

struct WriteSettings {
  WriteFormat format = WriteFormat::Gnu;
  int dirMode = 0755, fileMode = 0644, scriptFileMode = 0755;
  int userId = 1000, groupId = 1000;
  std::string userName, groupName;
  XString dirPrefix;
  NameFilter filter;
  int abortCheckMs = 100;
  TarOptions options;
};

struct WriteRun {
  const WriteSettings& settings;
  ArchiveOutput& archive;
  LogBase& log;
  ProgressMonitor* pm;   // may be null
  ProgressEvent* event;  // may be null

  [[nodiscard]] bool put(const unsigned char* data, unsigned n) {
    return archive.writeOut_pm(data, n, settings.abortCheckMs != 0, pm, log);
  }
  // n zero bytes, 0 or more.
  [[nodiscard]] bool putZeros(long long n);
};

}  // namespace morvane
