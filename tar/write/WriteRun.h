// What every step of writing an archive needs: the properties, where bytes go, whom to ask and tell.
#pragma once

#include <string>

#include "runtime/io/Io.h"
#include "runtime/text/XString.h"
#include "tar/format/FormatLimits.h"
#include "tar/settings/NameFilter.h"
#include "tar/settings/TarOptions.h"
#include "tar/write/ArchiveOutput.h"

namespace morvane {

// The properties of ClsTar that concern writing, as plain values with the same defaults. Modes are permission
// bits, ids decimal numbers; what does not fit a field loses its high digits there. The door takes them, and
// a run keeps a copy (LiveSettings).
struct WriteSettings {
  // Gnu is the component's default.
  WriteFormat format = WriteFormat::Gnu;
  int dirMode = 0755, fileMode = 0644, scriptFileMode = 0755;
  int userId = 1000, groupId = 1000;
  // The texts of the header, whole here.
  std::string userName, groupName;
  // In front of every name but those that the application chose itself. Without a slash at its end.
  XString dirPrefix;
  // MustMatch and MustNotMatch, over local paths.
  NameFilter filter;
  // Milliseconds between two questions whether to abort; 0: none inside of a member.
  int abortCheckMs = 100;
  // The words for writing; those for reading have no meaning here.
  TarOptions options;
};

// Borrowed for the length of a write: the settings are the run's and change between members, the archive is
// the component's. Each step holds a reference to it. It must not outlive any of them.
struct WriteRun {
  // As of the last refresh of the writer that owns them.
  const WriteSettings& settings;
  ArchiveOutput& archive;
  Io io;

  // False when the archive's output refuses the bytes or the application aborts.
  [[nodiscard]] bool put(const unsigned char* data, unsigned n) {
    return archive.writeOut_pm(data, n, settings.abortCheckMs != 0, io);
  }
  // The text of a record or map, which is far below 4 GiB.
  [[nodiscard]] bool put(const std::string& data) {
    return put(reinterpret_cast<const unsigned char*>(data.data()), static_cast<unsigned>(data.size()));
  }
  // n zero bytes, 0 or more. The same failures as for any other bytes.
  [[nodiscard]] bool putZeros(long long n);
};

}  // namespace morvane
