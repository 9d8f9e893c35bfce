// A millisecond tick count for measuring spans; it starts anywhere and wraps after 49 days.
#pragma once

#include <chrono>

namespace morvane {

inline unsigned millisecondTicks() {
  using namespace std::chrono;
  return static_cast<unsigned>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

}  // namespace morvane
