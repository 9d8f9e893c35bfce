// A log that discards everything, for calls whose messages are not wanted.
#pragma once

#include "runtime/log/LogBase.h"

namespace morvane {

class MORVANE_API LogNull : public LogBase {};

}  // namespace morvane
