// mvtar --deb, and the version.
#include "cli/Commands.h"
#include "cli/ReadArchive.h"
#include "cli/Version.h"
#include "runtime/component/Version.h"

namespace mvtar {

int createDeb(const CommandLine& line) {
  ProgressBar bar(ProgressBar::When::Never);
  Report report(bar, line.usesStandardStream());
  morvane::ClsTar tar;
  const morvane::XString control(line.operands[0].path), data(line.operands[1].path);
  const bool ok = tar.CreateDeb(control, data, morvane::XString(line.archive));
  return finish(tar, line, report, ok);
}

const char* versionText() { return MORVANE_TAR_VERSION; }

}  // namespace mvtar
