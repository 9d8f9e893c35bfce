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

void Psdk::getUsername(StringBuffer& out) {
  out.clear();
  constexpr size_t kLargestEntry = 1 << 20;
  for (std::vector<char> buffer(1024); buffer.size() <= kLargestEntry; buffer.resize(buffer.size() * 2)) {
    passwd entry;
    passwd* found = nullptr;
    const int error = getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found);
    if (error == ERANGE) continue;
    if (error == 0 && found) out.setString(found->pw_name);
    return;
  }
}

}  // namespace morvane
