#include "tar/place/SettleFile.h"

#include "runtime/fs/MorvaneFileTime.h"

namespace morvane {

bool setFileTimes(OutputFile& file, const MemberTimes& times, LogBase& log) {
  if (!times.modification) return true;
  const MorvaneFileTime& modification = *times.modification;
  if (!times.access && times.accessStays) return file.setFileTimeUtc(modification, &log);
  return file.setFileTimeUtc_3(times.creation ? *times.creation : modification,
                               times.access ? *times.access : modification, modification, log);
}

}  // namespace morvane
