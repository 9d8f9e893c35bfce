// The end of a member's file: what is buffered goes to the disk, what is set through the open file is set,
// the file is closed, and each of it is looked at.
#pragma once

#include "runtime/io/Io.h"
#include "runtime/io/OutputFile.h"

namespace morvane {

class MorvaneFileTime;

// Each may be null: not known. Without a modification time none is set. Pointers are borrowed for the call.
struct MemberTimes {
  // Times are UTC, to the nanosecond.
  const MorvaneFileTime* creation = nullptr;  // nothing can be done with it here
  const MorvaneFileTime* access = nullptr;    // not known: as `accessStays` says
  const MorvaneFileTime* modification = nullptr;
  bool accessStays = false;  // an access time that is not known is left alone; else it is the modification's
};

// Through the open file. False, with the reason in the log, when they cannot be set. True too where there is
// nothing to be set. The system's call has no creation time.
bool setFileTimes(OutputFile& file, const MemberTimes& times, LogBase& log);

// How a file ended. A run goes on with a file that is whole or has failed alone, and ends with any other. The
// default is a file that is not whole.
struct FileEnd {
  // Flushed and closed without a failure.
  bool isWhole = false;  // all data arrived on the disk
  // They did not, for a reason of the file's own (see OutputFile::dropAfterOwnFailure); whoever copied into
  // it is past its data all the same.
  bool hasFailedAlone = false;
  bool timesAreSet = true;  // or none were given
};

// `isComplete`: whether all data were handed to the file. Of one that is not, the flush in front of `set` is
// left out, and the file is not whole. `set(file)` sets what is to be set, between the last byte and the
// close, when nobody can put another file in its place; it tells whether the times are set. Why something
// failed is in the log. The monitor is asked while buffers are flushed.
template <class Set>
FileEnd settleFile(OutputFile& file, bool isComplete, const Io& io, Set set) {
  FileEnd end;
  const bool flushed = isComplete && file.flush(io.monitor, io.log);
  end.timesAreSet = set(file);
  end.isWhole = file.closeHandle(&io.log, io.monitor) && flushed;
  end.hasFailedAlone = isComplete && file.hasFailedAlone();
  return end;
}

}  // namespace morvane
