// The commands of mvtar. Each returns the exit status.
#pragma once

#include "cli/CommandLine.h"

namespace mvtar {

int createArchive(const CommandLine& line);
int extractArchive(const CommandLine& line);
int extractToStandardOutput(const CommandLine& line);
int listArchive(const CommandLine& line);
int verifyArchive(const CommandLine& line);
int createDeb(const CommandLine& line);

}  // namespace mvtar
