// A millisecond tick count for measuring spans; it starts anywhere and wraps after 49 days.
#pragma once

#include <ctime>

namespace morvane {

// By the clock that costs least to read; it steps every few milliseconds, which is fine enough for asking
// ten times a second whether to abort. Differences are to be taken unsigned, so that they are right across
// the wrap. Setting the system's time does not move it. The clock is always there on Linux, so that the
// call's result is not looked at. It may be called by any thread.
inline unsigned millisecondTicks() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<unsigned>(now.tv_sec * 1000 + now.tv_nsec / 1000000);
}

}  // namespace morvane
