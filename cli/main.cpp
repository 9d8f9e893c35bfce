// mvtar: the component's command-line front.
#include <cstdio>
#include <string>

#include "cli/Commands.h"
#include "cli/Interrupt.h"
#include "cli/Report.h"
#include "cli/Version.h"

namespace {

int runCommand(const mvtar::CommandLine& line) {
  using mvtar::Mode;
  switch (line.mode) {
    case Mode::Create:
      return mvtar::createArchive(line);
    case Mode::Extract:
      return line.toStdout ? mvtar::extractToStandardOutput(line) : mvtar::extractArchive(line);
    case Mode::List:
      return mvtar::listArchive(line);
    case Mode::Verify:
      return mvtar::verifyArchive(line);
    case Mode::Deb:
      return mvtar::createDeb(line);
    case Mode::Help:
      std::fputs(mvtar::helpText(), stdout);
      break;
    case Mode::Version:
      std::printf("mvtar %s\n", mvtar::versionText());
      break;
    case Mode::None:
      break;
  }
  return std::fflush(stdout) == 0 ? mvtar::kDone : mvtar::kNotAllDone;
}

}  // namespace

int main(int argc, char** argv) {
  mvtar::CommandLine line;
  std::string error;
  if (!mvtar::parseCommandLine(argc, argv, line, error)) {
    std::fprintf(stderr, "mvtar: %s\nTry 'mvtar --help'.\n", error.c_str());
    return mvtar::kWrongUsage;
  }
  mvtar::catchInterrupts();
  return runCommand(line);
}
