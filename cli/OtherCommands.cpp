// mvtar --deb, and the version.
//
// The component assembles a package in memory and asks nobody whether to abort; so an interrupt ends the
// process there.
#include <sys/stat.h>

#include "cli/ArchiveName.h"
#include "cli/ArchiveOutput.h"
#include "cli/Commands.h"
#include "cli/Interrupt.h"
#include "cli/Names.h"
#include "cli/ReadArchive.h"
#include "cli/Version.h"
#include "runtime/component/Version.h"

namespace mvtar {

namespace {

using morvane::XString;

// On standard output the package is only as whole as its last write.
bool assemble(morvane::ClsTar& tar, const CommandLine& line, Report& report) {
  const XString control(line.operands[0].localPath()), data(line.operands[1].localPath());
  if (!line.usesStandardStream()) return tar.CreateDeb(control, data, XString(line.archive));
  const std::unique_ptr<morvane::OutputFile> out = standardOutput(report);
  if (!out) return false;
  const bool written = tar.CreateDeb(control, data, *out);
  return closeOutput(*out, kStandardOutput, report) && written;
}

// It would be emptied before it is read.
bool isAnInput(const CommandLine& line, Report& report) {
  struct stat package, tarball;
  if (line.usesStandardStream() || stat(line.archive.c_str(), &package) != 0) return false;
  for (const Operand& each : line.operands) {
    if (stat(each.localPath().c_str(), &tarball) != 0 || tarball.st_dev != package.st_dev ||
        tarball.st_ino != package.st_ino)
      continue;
    report.problem(line.archive, "this is one of the tarballs; the package would take its place");
    return true;
  }
  return false;
}

}  // namespace

// Nothing is read from the archive's path, so only its being a terminal has to be asked.
int createDeb(const CommandLine& line) {
  ProgressBar bar(ProgressBar::When::Never);
  Report report(bar, line.usesStandardStream());
  if (!isNoTerminal(line, report) || isAnInput(line, report)) return report.finish();
  endOnInterrupt("mvtar: " + shown(line.archive) + ": interrupted; the package may be incomplete");
  morvane::ClsTar tar;
  const bool ok = assemble(tar, line, report);
  return finish(tar, line, report, ok);
}

// The library's own header has it, which the build generates; the command has no other.
const char* versionText() { return MORVANE_TAR_VERSION; }

}  // namespace mvtar
