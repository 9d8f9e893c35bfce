#include "runtime/fs/Psdk.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <vector>

#include "runtime/base/Ticks.h"
#include "runtime/text/StringBuffer.h"

namespace morvane {

long long Psdk::getCurrentUnixTime() { return std::time(nullptr); }

unsigned Psdk::getTickCount() { return millisecondTicks(); }

int Psdk::getUsername(StringBuffer& out) {
  out.clear();
  constexpr size_t kLargestEntry = 1 << 20;
  for (std::vector<char> buffer(1024);;) {
    passwd entry;
    passwd* found = nullptr;
    const int error = getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found);
    if (error == EINTR) continue;
    if (error == ERANGE && buffer.size() < kLargestEntry) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (found) out.setString(found->pw_name);
    // These are ways to say that there is no such user, or no database at all.
    const bool isUnknown = error == ENOENT || error == ESRCH || error == EBADF || error == EPERM;
    return found || isUnknown ? 0 : error;
  }
}

}  // namespace morvane
