// mvtar: the component's command-line front.
//
// Here a command is chosen and its end made sure of: whatever happens, the status says whether all was done,
// and running out of memory is told without any.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <memory>
#include <new>
#include <string>

#include "cli/Commands.h"
#include "cli/Help.h"
#include "cli/Interrupt.h"
#include "cli/NameFiles.h"
#include "cli/Names.h"
#include "cli/Report.h"
#include "cli/StandardStreams.h"
#include "cli/Version.h"

namespace {

// A standard stream that was closed would come back as the archive, and messages would go into it. Opened the
// wrong way round, it stays one that cannot be used.
void occupyStandardStreams() {
  // In this order, because open takes the lowest number that is free. If even that fails, the stream stays
  // closed; there is nobody to tell.
  for (const int fd : {0, 1, 2}) {
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", fd == 0 ? O_WRONLY : O_RDONLY);
  }
}

// Help and version are commands like the others: when they cannot be printed, the status says so.
int runCommand(mvtar::CommandLine& line) {
  using mvtar::Mode;
  switch (line.mode) {
    case Mode::Create:
    case Mode::Append:
    case Mode::Update:
      return mvtar::writeArchive(line);
    case Mode::Compare:
      return mvtar::compareArchive(line);
    case Mode::Extract:
      return line.toStdout ? mvtar::extractToStandardOutput(line) : mvtar::extractArchive(line);
    case Mode::List:
      return mvtar::listArchive(line);
    case Mode::Verify:
      return mvtar::verifyArchive(line);
    case Mode::Deb:
      return mvtar::createDeb(line);
    case Mode::Help:
      mvtar::StandardOutput::write(*mvtar::helpText(line.helpTopic));
      break;
    case Mode::Version:
      mvtar::StandardOutput::write(std::string("mvtar ") + mvtar::versionText() + "\n");
      break;
    // Does not come here: the parser asks for a mode.
    case Mode::None:
      break;
  }
  // What was written may have failed: the report tells and has the status.
  mvtar::ProgressBar noBar(mvtar::ProgressBar::When::Never);
  return mvtar::Report(noBar, false).finish();
}

// The lists of -T and -X. False, and told, when one cannot be read.
bool readNames(mvtar::CommandLine& line) {
  mvtar::ProgressBar noBar(mvtar::ProgressBar::When::Never);
  // Nothing has been printed; with `true` no line would get onto standard output, which may become the
  // archive.
  mvtar::Report report(noBar, true);
  if (mvtar::readNameFiles(line, report)) return true;
  if (mvtar::isInterrupted()) {
    report.notice(line.archive, "interrupted; nothing was done");
  } else {
    report.finish();
  }
  return false;
}

// Interrupts are caught only when the line makes sense: a wrong one is over at once.
int runCommandLine(int argc, char** argv) {
  mvtar::CommandLine line;
  std::string error;
  if (!mvtar::parseCommandLine(argc, argv, line, error)) {
    // What was typed may hold control characters, from a pasted line or a file's name.
    mvtar::writeToStandardError("mvtar: " + mvtar::shown(error) + "\nTry 'mvtar --help'.\n");
    return mvtar::kWrongUsage;
  }
  // Before the lists, because one of them may come from a pipe that is waited for.
  mvtar::catchInterrupts();
  const int status = readNames(line)          ? runCommand(line)
                     : mvtar::isInterrupted() ? mvtar::interruptStatus()
                                              : mvtar::kNotAllDone;
  // Report::finish has done so and has told what failed; this is for the ways that end without it.
  mvtar::StandardOutput::flush();
  return status;
}

// What std::terminate did before. Set once, before anything could throw.
std::terminate_handler g_usualEnd = nullptr;

// Without memory even an exception may be more than there is room for: then none is in flight, and no room
// for one can be had. `throw` alone throws the one in flight once more, and takes none.
bool isOutOfMemory() {
  if (!std::current_exception()) {
    const std::unique_ptr<void, decltype(&std::free)> room(std::malloc(sizeof(std::bad_alloc)), &std::free);
    return !room;
  }
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return true;
  } catch (...) {
    return false;
  }
}

// Anything but missing memory is a fault of this program's own, and ends it as such faults do.
[[noreturn]] void endAtOnce() {
  if (isOutOfMemory()) _exit(mvtar::finishWithoutMemory());
  g_usualEnd();
  std::abort();
}

}  // namespace

int main(int argc, char** argv) {
  // Before anything opens a file, and the handler before anything takes memory.
  occupyStandardStreams();
  g_usualEnd = std::set_terminate(endAtOnce);
  try {
    return runCommandLine(argc, argv);
  } catch (const std::bad_alloc&) {
    return mvtar::finishWithoutMemory();
  } catch (const std::exception& exception) {
    // Not expected of anything here; it is said like any other failure, and what was printed before is kept.
    mvtar::StandardOutput::flush();
    mvtar::writeToStandardError(std::string("mvtar: ") + exception.what() + "\n");
    return mvtar::kNotAllDone;
  }
}
