// Base of the records that an owning array holds (ExtPtrArray). It has no data, so that it costs a record a
// pointer.
#pragma once

#include "runtime/base/Export.h"

namespace morvane {

// The destructor is virtual, because the array deletes what it knows as this.
class MORVANE_API MorvaneObject {
 public:
  // One thread at a time, as the array that holds it.
  MorvaneObject() = default;
  // Records are values: a copy is independent of what it was made from.
  MorvaneObject(const MorvaneObject&) = default;
  MorvaneObject& operator=(const MorvaneObject&) = default;
  virtual ~MorvaneObject();

  // Bytes of heap memory that the object holds beside its own size. An estimate for diagnostics; the base
  // holds none. Nothing in a run goes by it.
  virtual unsigned long long heapUsage() const;
};

}  // namespace morvane
