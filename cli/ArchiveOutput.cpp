#include "cli/ArchiveOutput.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cli/InterruptEvent.h"
#include "runtime/progress/ProgressMonitor.h"

namespace mvtar {

namespace {

bool isTerminal(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0 || !S_ISCHR(status.st_mode)) return false;
  const morvane::OsFile device(open(path.c_str(), O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  return device.isOpen() && isatty(device.fd());
}

}  // namespace

bool isNoTerminal(const CommandLine& line, Report& report) {
  const bool standard = line.usesStandardStream();
  if (!(standard ? isatty(STDOUT_FILENO) : isTerminal(line.archive))) return true;
  report.problem(standard ? "standard output" : line.archive, "an archive is not written to a terminal");
  return false;
}

std::unique_ptr<morvane::OutputFile> standardOutput() {
  const int fd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
  return std::unique_ptr<morvane::OutputFile>(
      morvane::OutputFile::adopt(morvane::OsFile(fd), "standard output"));
}

bool closeOutput(morvane::OutputFile& out) {
  InterruptEvent event;
  morvane::ProgressMonitor monitor(event, 1, 0, 0);
  return out.closeHandle(nullptr, &monitor);
}

}  // namespace mvtar
