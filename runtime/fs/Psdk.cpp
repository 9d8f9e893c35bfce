// The clock and the user of the process. Unless another is set, the user's name goes into every header that
// is written, so that not finding it must not be the end of an archive, while a database that failed must not
// pass for one without the user.
#include "runtime/fs/Psdk.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>
#include <vector>

#include "runtime/base/Ticks.h"
#include "runtime/text/StringBuffer.h"

namespace morvane {

namespace {

// The effective user's entry of the system's own file, which has nearly every user. The other ways to users
// take far longer, and in some C libraries end the process when memory runs out in them. 0, or an errno.
// glibc's reader for one file at a time; `buffer` holds the texts of the entry. A missing file is none of the
// errors that are told.
int findInFile(passwd& entry, std::vector<char>& buffer, passwd*& found) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen("/etc/passwd", "re"), std::fclose);
  if (!file) return errno == ENOMEM || errno == EIO ? errno : 0;
  int error = 0;
  do {
    error = fgetpwent_r(file.get(), &entry, buffer.data(), buffer.size(), &found);
  } while (error == 0 && entry.pw_uid != geteuid());
  if (error != 0) found = nullptr;
  return error == ENOENT ? (std::ferror(file.get()) ? EIO : 0) : error;
}

}  // namespace

long long Psdk::getCurrentUnixTime() { return std::time(nullptr); }

bool Psdk::isSuperuser() { return geteuid() == 0; }

unsigned Psdk::getTickCount() { return millisecondTicks(); }

// The buffer grows while an entry does not fit it, up to 1 MiB, which no real one needs; a signal is no
// reason to let it grow. The file is asked again each time: it is short.
int Psdk::getUsername(StringBuffer& out) {
  out.clear();
  constexpr size_t kLargestEntry = 1 << 20;
  std::vector<char> buffer(1024);
  while (true) {
    passwd entry;
    passwd* found = nullptr;
    int error = findInFile(entry, buffer, found);
    if (error == 0 && !found) error = getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found);
    const bool isTooSmall = error == ERANGE && buffer.size() < kLargestEntry;
    if (isTooSmall) buffer.resize(buffer.size() * 2);
    if (isTooSmall || error == EINTR) continue;
    if (found) out.setString(found->pw_name);
    // These are ways to say that there is no such user, or no database at all.
    const bool isUnknown = error == ENOENT || error == ESRCH || error == EBADF || error == EPERM;
    return found || isUnknown ? 0 : error;
  }
}

}  // namespace morvane
