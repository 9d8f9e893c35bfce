// The commands of mvtar. Each returns the exit status.
#pragma once

#include "cli/CommandLine.h"

namespace mvtar {

// -c, -r, -u: the operands into an archive.
// The line is not const, because names that were changed are remembered in it.
int writeArchive(CommandLine& line);
// -x, into the target directory.
// Members that cannot be made are named; the others are extracted all the same.
int extractArchive(const CommandLine& line);
// -x -O: the data of the files that match.
int extractToStandardOutput(const CommandLine& line);
// -t, with -v, --xml or --json for more.
int listArchive(const CommandLine& line);
// -d: what differs between the archive and the file system.
// The status is 1 where something differs, and 2 where something could not be compared.
int compareArchive(const CommandLine& line);
// Reads all that can be checked and says whether the archive is whole.
int verifyArchive(const CommandLine& line);
// --deb: a control and a data tarball into a Debian package.
int createDeb(const CommandLine& line);

}  // namespace mvtar
