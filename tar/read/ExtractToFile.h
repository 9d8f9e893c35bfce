// The data of one member, copied from where the source stands into a file, which is then settled.
#pragma once

#include <memory>

#include "tar/place/SettleFile.h"

namespace morvane {

class OutputFile;
class XString;
class _mvDataSource;

constexpr char kCannotCreateOutputFile[] = "Failed to create OutputFile";

// Copies exactly `size` bytes through the caller's buffer. `file` is the new file, or null to have it made at
// `path`. The times are set also when the copy failed; the partly written file stays. No mode, owner or group
// is applied.
FileEnd extractToFile(_mvDataSource& source, const XString& path, std::unique_ptr<OutputFile> file,
                      const MemberTimes& times, long long size, char* buffer, unsigned bufferSize,
                      const Io& io);

}  // namespace morvane
