// Base of the records that an owning array holds.
#pragma once

#include "runtime/base/Export.h"

namespace morvane {

// The destructor is virtual, because the array deletes what it knows as this.
class MORVANE_API MorvaneObject {
 public:
  MorvaneObject() = default;
  // Records are values: a copy is independent of what it was made from.
  MorvaneObject(const MorvaneObject&) = default;
  MorvaneObject& operator=(const MorvaneObject&) = default;
  virtual ~MorvaneObject();

  // Bytes of heap memory that the object holds beside its own size. An estimate for diagnostics; the base
  // holds none.
  virtual unsigned long long heapUsage() const;
};

}  // namespace morvane
