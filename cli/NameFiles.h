// Files that hold names (-T) and patterns (-X).
#pragma once

#include "cli/CommandLine.h"
#include "cli/Report.h"

namespace mvtar {

// Puts the names of each -T in its place among the operands, and the patterns of each -X behind those of
// --exclude. A name ends at a line's end, or at a NUL with --null; it may be anything, and an empty one is
// none. "-" is standard input. False when one cannot be read: named, or an interrupt has ended the wait. The
// line is then of no use. Lists of any length are taken, all of it in memory.
bool readNameFiles(CommandLine& line, Report& report);

}  // namespace mvtar
