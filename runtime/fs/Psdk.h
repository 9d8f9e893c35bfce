// The process's clock and user.
#pragma once

#include "runtime/base/Export.h"

namespace morvane {

class StringBuffer;

struct MORVANE_API Psdk {
  // Seconds since 1970, UTC. Whole ones; it follows when the clock is set.
  static long long getCurrentUnixTime();
  // It wraps after 49 days: differences are to be taken unsigned. The clock is one that nobody can set.
  static unsigned getTickCount();  // milliseconds, for measuring spans
  // By the effective user id: the one that the system asks about, for files. Capabilities are not looked at.
  static bool isSuperuser();
  // The name of the effective user; empty when the user has none. The result is 0, or the errno of a user
  // database that could not be read.
  static int getUsername(StringBuffer& out);
};

}  // namespace morvane
