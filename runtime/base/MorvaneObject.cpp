// The functions that give the class its table of functions in the library.
#include "runtime/base/MorvaneObject.h"

namespace morvane {

MorvaneObject::~MorvaneObject() = default;

unsigned long long MorvaneObject::heapUsage() const { return 0; }

}  // namespace morvane
