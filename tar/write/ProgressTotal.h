// The bytes of data that a write will archive, counted beforehand for progress.
#pragma once

#include "runtime/base/ExtPtrArray.h"
#include "runtime/text/ExtPtrArraySb.h"
#include "tar/settings/LiveSettings.h"
#include "tar/write/WriteRun.h"

namespace morvane {

// Headers and padding are not counted. -1 when the application aborted. What cannot be read counts 0; a tree
// that cannot be walked further ends the count early.
//
// An entry of a directory tree that the filter excludes is examined again and again: the count then never
// ends. The word CountSkipsExcluded makes it go on.
// The lists are only read, and nothing is opened but directories.
long long calcTotalProgressForWrite(const ExtPtrArraySb& files, const ExtPtrArray& dirRoots,
                                    LiveSettings<WriteSettings> live, const Io& io);

}  // namespace morvane
