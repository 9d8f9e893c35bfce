// Where an archive is written when it is no ordinary file.
#pragma once

#include <memory>

#include "cli/CommandLine.h"
#include "cli/Report.h"
#include "runtime/io/OutputFile.h"

namespace mvtar {

// False, and named, when the archive would be written to a terminal.
// Asked before anything else is done, so that a mistaken command costs nothing.
bool isNoTerminal(const CommandLine& line, Report& report);
// What messages call it.
constexpr char kStandardOutput[] = "standard output";
// Null, and named, when standard output cannot be had.
// The caller closes it by closeOutput; standard output itself stays open.
std::unique_ptr<morvane::OutputFile> standardOutput(Report& report);
// Whether the archive is an ordinary file, or none yet, which the component opens by its path.
bool isOpenedByPath(const CommandLine& line);
// Standard output or the archive's file, created or truncated. Null, and named, when it cannot be had. The
// reader of a FIFO is waited for, until an interrupt ends that.
std::unique_ptr<morvane::OutputFile> archiveFile(const CommandLine& line, Report& report);
// A closed pipe or a full disk may show as late as here, and is then named. An interrupt ends the wait for a
// reader. True when every byte has arrived; what did not is in the status of the report.
bool closeOutput(morvane::OutputFile& out, const std::string& name, Report& report);

}  // namespace mvtar
