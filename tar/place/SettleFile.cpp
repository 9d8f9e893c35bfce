// Times without a restore: the old rule of the component, which each engine has a variant of. What is
// restored gets its times from MetadataRestorer instead.
#include "tar/place/SettleFile.h"

#include "runtime/fs/MorvaneFileTime.h"

namespace morvane {

// The pull engine gives a file the modification time as its access time where the archive has none; the push
// engine leaves that alone.
bool setFileTimes(OutputFile& file, const MemberTimes& times, LogBase& log) {
  if (!times.modification) return true;
  const MorvaneFileTime& modification = *times.modification;
  if (!times.access && times.accessStays) return file.setFileTimeUtc(modification, &log);
  return file.setFileTimeUtc_3(times.creation ? *times.creation : modification,
                               times.access ? *times.access : modification, modification, log);
}

}  // namespace morvane
