// Extracts an archive of any compression, the careful way: for archives that come from somebody else.
//
//   read photos.tar.gz restored
#include <cstdio>

#include "tar/ClsTar.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: read ARCHIVE TARGET\n", stderr);
    return 64;
  }
  morvane::ClsTar tar;
  tar.put_UntarFromDir(argv[2]);
  // Nothing outside the target is touched, every record is understood as other tars mean it, and there are
  // limits to what the archive may cost. UntarAny itself sees to it that one that is damaged or cut does not
  // pass for a whole one.
  tar.put_UncommonOptions("Profile=untrusted");
  if (tar.UntarAny(argv[1])) return 0;
  morvane::XString path, reason;
  tar.get_FailureCause(path, reason);
  std::fprintf(stderr, "read: %s: %s\n", path.isEmpty() ? argv[1] : path.getUtf8(), reason.getUtf8());
  return 1;
}
