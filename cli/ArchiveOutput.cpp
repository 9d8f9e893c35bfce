// An archive written to standard output, into a FIFO, or to a path that turns out to be a terminal. An
// ordinary file is the component's affair.
#include "cli/ArchiveOutput.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cli/InterruptEvent.h"
#include "cli/StandardStreams.h"
#include "runtime/fs/OsFile.h"
#include "runtime/log/LogCause.h"
#include "runtime/progress/ProgressMonitor.h"

namespace mvtar {

namespace {

// Only a character device is opened to be asked: opening a FIFO would wait, and a regular file need not be
// opened. O_NONBLOCK and O_NOCTTY, because a serial line may make an open wait and a terminal must not become
// ours.
bool isTerminal(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0 || !S_ISCHR(status.st_mode)) return false;
  const morvane::OsFile device(open(path.c_str(), O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  return device.isOpen() && isatty(device.fd());
}

bool isFifo(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

// A signal breaks the wait, and whether it goes on depends on whether the signal was an interrupt.
morvane::OsFile waitForReader(const std::string& fifo) {
  morvane::OsFile file;
  do {
    file.reset(open(fifo.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC));
  } while (!file.isOpen() && errno == EINTR && !isInterrupted());
  return file;
}

// Under the name that messages have for it. What is not open has the reason in errno; an interrupt is told by
// the end of the command.
std::unique_ptr<morvane::OutputFile> adopt(morvane::OsFile file, const std::string& name, Report& report) {
  if (!file.isOpen()) {
    if (!isInterrupted()) report.problem(name, std::strerror(errno));
    return nullptr;
  }
  std::unique_ptr<morvane::OutputFile> out(morvane::OutputFile::adopt(std::move(file), name.c_str()));
  if (!out) report.problem(name, kOutOfMemory);
  return out;
}

}  // namespace

// A terminal would be shown control characters by the thousand, and obey them.
bool isNoTerminal(const CommandLine& line, Report& report) {
  const bool standard = line.usesStandardStream();
  if (!(standard ? isatty(STDOUT_FILENO) : isTerminal(line.archive))) return true;
  report.problem(standard ? kStandardOutput : line.archive, "an archive is not written to a terminal");
  return false;
}

// A descriptor of its own, because the OutputFile closes what it has, and messages may still be printed.
std::unique_ptr<morvane::OutputFile> standardOutput(Report& report) {
  morvane::OsFile file(furtherDescriptor(STDOUT_FILENO));
  if (!file.isOpen()) {
    report.problem(kStandardOutput, std::strerror(errno));
    return nullptr;
  }
  return adopt(std::move(file), kStandardOutput, report);
}

bool isOpenedByPath(const CommandLine& line) { return !line.usesStandardStream() && !isFifo(line.archive); }

// The component never waits for the reader of a FIFO, and behind a program (-I) the command itself needs the
// open file. LogCause keeps the system's reason, which is all that a message needs.
std::unique_ptr<morvane::OutputFile> archiveFile(const CommandLine& line, Report& report) {
  if (line.usesStandardStream()) return standardOutput(report);
  if (isFifo(line.archive)) return adopt(waitForReader(line.archive), line.archive, report);
  morvane::LogCause log;
  std::unique_ptr<morvane::OutputFile> out(morvane::OutputFile::createFileUtf8(line.archive.c_str(), log));
  if (!out) report.problem(line.archive, log.cause().reason);
  return out;
}

// The monitor asks an event that knows nothing but the interrupt, since the component's call is over.
bool closeOutput(morvane::OutputFile& out, const std::string& name, Report& report) {
  InterruptEvent event;
  morvane::ProgressMonitor monitor(event, 1, 0, 0);
  morvane::LogCause log;
  const bool closed = out.closeHandle(&log, &monitor);
  // A failure of before was said by whoever wrote.
  // Nor is an interrupt named here: the command that closes says it in a line of its own.
  if (!closed && !isInterrupted() && !log.cause().message.empty()) {
    report.problem(name, log.cause().reason);
  }
  return closed;
}

}  // namespace mvtar
