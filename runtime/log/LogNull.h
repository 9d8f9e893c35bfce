// A log that discards everything, for calls whose messages are not wanted.
#pragma once

#include "runtime/log/LogBase.h"

namespace morvane {

// No text is built for it, and it has no cause of failures either. For steps whose failure the caller
// expects, and for questions that are asked again in earnest later. One may be made for each call; it costs
// nothing.
class MORVANE_API LogNull : public LogBase {};

}  // namespace morvane
