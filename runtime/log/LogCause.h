// A log that keeps no lines, only what a failure is put down to (see LogBase::cause).
#pragma once

#include "runtime/log/LogBase.h"

namespace morvane {

class MORVANE_API LogCause : public LogBase {
 protected:
  bool keepsLines() const override { return true; }
};

}  // namespace morvane
