// A log that keeps no lines, only what a failure is put down to (see LogBase::cause).
#pragma once

#include "runtime/log/LogBase.h"

namespace morvane {

// For code that reports to a person itself: `cause` has message, path and reason of the first error. The
// command uses it; the library itself never does.
class MORVANE_API LogCause : public LogBase {
 protected:
  // So that causes are noted; the lines themselves go nowhere. The base asks this before it notes a cause,
  // too.
  bool keepsLines() const override { return true; }
};

}  // namespace morvane
