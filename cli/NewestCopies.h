// What an archive has already, for -u.
#pragma once

#include "cli/CommandLine.h"
#include "cli/CreateEvent.h"
#include "cli/Report.h"

namespace mvtar {

// Fills in the newest time of each name in the archive; none when there is no such file. False, and named,
// when it cannot be read to its end. Called once, before the write begins; memory grows with the number of
// names.
bool findNewestCopies(const CommandLine& line, NewestCopies& newest, Report& report);

}  // namespace mvtar
