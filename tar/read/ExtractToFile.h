// The data of one member, copied from where the source stands into a file, which is then settled.
#pragma once

#include <functional>
#include <memory>

#include "tar/place/SettleFile.h"

namespace morvane {

class OutputFile;
class XString;
class _mvDataSource;

constexpr char kCannotCreateOutputFile[] = "Failed to create OutputFile";

// Where the data go: a file, or what lies in front of one.
struct FileToFill {
  std::unique_ptr<_mvOutput> out;
  OutputFile* file = nullptr;
};

// Ends a filled file; see MemberPlacer::settle.
using Settle = std::function<FileEnd(FileToFill& to, bool isComplete)>;

// Copies exactly `size` bytes through the caller's buffer, and has the file settled, also when the copy
// failed; the partly written file stays. `times` are for the log.
FileEnd extractToFile(_mvDataSource& source, FileToFill to, const MemberTimes& times, long long size,
                      char* buffer, unsigned bufferSize, const Io& io, const Settle& settle);

// The same into a new file at a path, which gets the times. No mode, owner or group is applied.
FileEnd extractToNewFile(_mvDataSource& source, const XString& path, const MemberTimes& times, long long size,
                         char* buffer, unsigned bufferSize, const Io& io);

}  // namespace morvane
