// For waits outside the component's own jobs: asks whether to abort, and hears nothing else.
#pragma once

#include "cli/Interrupt.h"
#include "runtime/progress/ProgressEvent.h"

namespace mvtar {

// Such as opening a FIFO and closing a pipe.
class InterruptEvent : public morvane::ProgressEvent {
 public:
  void onAbortCheck(bool& abort) override { abort = isInterrupted(); }
};

}  // namespace mvtar
