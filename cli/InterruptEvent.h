// For waits outside the component's own jobs: asks whether to abort, and hears nothing else.
#pragma once

#include "cli/Interrupt.h"
#include "runtime/progress/ProgressEvent.h"

namespace mvtar {

// Such as opening a FIFO and closing a pipe. It has no state, so that each wait makes its own, with a
// ProgressMonitor over it: a signal breaks the wait in the system, the monitor asks this event, and its
// answer decides whether the wait goes on.
class InterruptEvent : public morvane::ProgressEvent {
 public:
  // The monitor calls it on the thread that waits.
  void onAbortCheck(bool& abort) override { abort = isInterrupted(); }
};

}  // namespace mvtar
