#include "tar/place/SettleFile.h"

#include "runtime/fs/MorvaneFileTime.h"
#include "runtime/io/Io.h"
#include "runtime/io/OutputFile.h"

namespace morvane {

namespace {

bool setTimes(OutputFile& file, const MemberTimes& times, LogBase& log) {
  if (!times.modification) return true;
  const MorvaneFileTime& modification = *times.modification;
  if (!times.access && times.accessStays) return file.setFileTimeUtc(modification, &log);
  return file.setFileTimeUtc_3(times.creation ? *times.creation : modification,
                               times.access ? *times.access : modification, modification, log);
}

}  // namespace

FileEnd settleFile(OutputFile& file, bool isComplete, const MemberTimes& times, const Io& io) {
  FileEnd end;
  const bool flushed = isComplete && file.flush(io.monitor, io.log);
  end.timesAreSet = setTimes(file, times, io.log);
  end.isWhole = file.closeHandle(&io.log, io.monitor) && flushed;
  end.hasFailedAlone = isComplete && file.hasFailedAlone();
  return end;
}

}  // namespace morvane
