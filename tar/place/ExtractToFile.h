// The data of one member written to a file, and the file's times set.
#pragma once

#include <memory>

#include "runtime/io/OutputFile.h"

namespace morvane {

class LogBase;
class MorvaneFileTime;
class ProgressMonitor;
class XString;
class _mvDataSource;

struct MemberTimes {
  const MorvaneFileTime* creation = nullptr;  // each may be null: not known
  const MorvaneFileTime* access = nullptr;
  const MorvaneFileTime* modification = nullptr;
};

struct Extraction {
  bool isWhole = false;  // all data arrived on the disk
  bool hasFailedAlone =
      false;  // they did not for a reason of the file's own; the source is past them all the same
  bool timesAreSet = true;  // or none were given
};

// Copies exactly `size` bytes from the source, which stands at the first of them, through the caller's
// buffer. `file` is the new file, or null to have it made at `path`. The times are set also when the copy
// failed; the partly written file stays. No mode, owner or group is applied.
Extraction extractToFile(_mvDataSource& source, const XString& path, std::unique_ptr<OutputFile> file,
                         const MemberTimes& times, long long size, char* buffer, unsigned bufferSize,
                         LogBase& log, ProgressMonitor* pm);

}  // namespace morvane
