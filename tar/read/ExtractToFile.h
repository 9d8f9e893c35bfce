// The data of one member, copied from where the source stands into a file, which is then settled.
#pragma once

#include <functional>
#include <memory>

#include "tar/place/SettleFile.h"

namespace morvane {

class OutputFile;
class XString;
class _mvDataSource;

// A line that both ways to make a file end with; readers of logs look for it.
constexpr char kCannotCreateOutputFile[] = "Failed to create OutputFile";

// Where the data go: a file, or what lies in front of one. It owns the output; `file` lies in or behind it
// and goes with it.
struct FileToFill {
  std::unique_ptr<_mvOutput> out;
  OutputFile* file = nullptr;
};

// Ends a filled file; see MemberPlacer::settle. It is called once, whether the data came whole or not, and
// closes the file.
using Settle = std::function<FileEnd(FileToFill& to, bool isComplete)>;

// Copies exactly `size` bytes through the caller's buffer, and has the file settled, also when the copy
// failed; the partly written file stays. `times` are for the log. Sizes are bytes; the buffer must be there
// and may be of any size above 0. `io` has the log, and the monitor that is asked whether to abort with each
// piece.
FileEnd extractToFile(_mvDataSource& source, FileToFill to, const MemberTimes& times, long long size,
                      char* buffer, unsigned bufferSize, const Io& io, const Settle& settle);

// The same into a new file at a path, which gets the times. No mode, owner or group is applied. A file that
// is there is truncated and a link at the path's end followed, as the path is the caller's own. Its directory
// must be there.
FileEnd extractToNewFile(_mvDataSource& source, const XString& path, const MemberTimes& times, long long size,
                         char* buffer, unsigned bufferSize, const Io& io);

}  // namespace morvane
