// The text of mvtar --help: what every option means, on one screen.
#include "cli/CommandLine.h"

namespace mvtar {

// 80 columns. tests/install_test.sh holds it together with the manual and the completions.
const char* helpText() {
  return R"(Usage:
  mvtar -c -f ARCHIVE [options] PATH...            create an archive
  mvtar -x -f ARCHIVE [options] [MEMBER...]        extract
  mvtar -t -f ARCHIVE [options] [MEMBER...]        list
  mvtar --verify -f ARCHIVE                        check the whole archive
  mvtar --deb -f PACKAGE.deb CONTROL.tar.gz DATA.tar.gz
                                                   assemble a Debian package

ARCHIVE is a file, or - for standard output or input. Compression is told by
the content when reading; when creating, by an option or the archive's name
(.tar.gz .tgz .tar.bz2 .tbz .tbz2 .tar.xz .txz .tar.zst .tzst). MEMBER is a
path, a directory's path (with all below it) or a pattern with *.

Options:
  -C DIR              create: find the following PATHs in DIR (may be repeated);
                      extract: the target, made if it is missing
  -z, -j, -J, --zstd  create with gzip, bzip2, xz, zstd
  --level=N           of zstd (1 to 22) and xz (1 to 9)
  --format=FORMAT     gnu (default), ustar or pax
  --match=PATTERN     only what matches (may be repeated)
  --exclude=PATTERN   not what matches (may be repeated)
  --prefix=PATH       create: put PATH in front of every name
  --strip-paths       extract every file straight into the target
  --max-count=N       stop after N members
  -O                  extract the first matching file to standard output
  -P                  keep absolute names, allow names that leave the target
  -p                  restore modes exactly, of directories that are there, too
  --same-owner, --no-same-owner, --no-same-permissions, --numeric-owner
                      owners and exact modes (by default for root alone)
  -h                  create: archive what links point at
  -m                  leave times of extracted files alone
  --xattrs            keep attributes and access lists (creates pax)
  --reproducible[=SECONDS]
                      create: the same bytes for the same tree
  --untrusted         extract an archive of strangers, with limits
  --xml               list as XML
  --charset=NAME      the character set of names in the archive (utf-8)
  -v                  show names as they are done; with -t, more of each member
  --totals            say how many members and bytes there were
  --progress[=WHEN]   a progress bar: auto (default), always, never
  --log               print the component's log to standard error
  --options=WORDS     more UncommonOptions of the component
  --help, --version

Letters may be bundled (-xzf), the first word may drop its dash (xzf), and --
ends the options. Exit status: 0 all was done, 2 something was not, 64 wrong
usage, 130 or 143 interrupted.
)";
}

}  // namespace mvtar
