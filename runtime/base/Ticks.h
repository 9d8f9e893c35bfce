// A millisecond tick count for measuring spans; it starts anywhere and wraps after 49 days.
#pragma once

#include <ctime>

namespace morvane {

// By the clock that costs least to read; it steps every few milliseconds. Differences are to be taken
// unsigned. Setting the system's time does not move it.
inline unsigned millisecondTicks() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<unsigned>(now.tv_sec * 1000 + now.tv_nsec / 1000000);
}

}  // namespace morvane
