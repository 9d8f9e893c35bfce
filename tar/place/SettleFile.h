// The end of a member's file: what is buffered goes to the disk, the times are set, the file is closed, and
// each of it is looked at.
#pragma once

namespace morvane {

class MorvaneFileTime;
class OutputFile;
struct Io;

// Each may be null: not known. Without a modification time none is set.
struct MemberTimes {
  const MorvaneFileTime* creation = nullptr;  // nothing can be done with it here
  const MorvaneFileTime* access = nullptr;    // not known: as `accessStays` says
  const MorvaneFileTime* modification = nullptr;
  bool accessStays = false;  // an access time that is not known is left alone; else it is the modification's
};

// How a file ended.
struct FileEnd {
  bool isWhole = false;  // all data arrived on the disk
  // They did not, for a reason of the file's own (see OutputFile::dropAfterOwnFailure); whoever copied into
  // it is past its data all the same.
  bool hasFailedAlone = false;
  bool timesAreSet = true;  // or none were given
};

// `isComplete`: whether all data were handed to the file. Of one that is not the buffer is left alone, but
// the times are set. They go through the open file, between the last byte and the close: nobody can put
// another file in its place. Why something failed is in the log.
FileEnd settleFile(OutputFile& file, bool isComplete, const MemberTimes& times, const Io& io);

}  // namespace morvane
