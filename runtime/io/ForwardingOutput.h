// Passes what it is given on to another output, which it does not own.
#pragma once

#include "runtime/io/_mvOutput.h"

namespace morvane {

// For an output of the caller's where one that is owned and deleted is expected. Positions and the
// announcement of the end are not passed on: those are the caller's. It keeps nothing back, so that there is
// nothing to flush when it is deleted.
class ForwardingOutput : public _mvOutput {
 public:
  // Deleting this leaves the other output as it is.
  explicit ForwardingOutput(_mvOutput& to) : m_to(to) {}
  // The other output's failure is this one's, with the line that it logged. What the monitor is asked goes on
  // with `io`.
  bool _writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) override {
    return m_to._writeBytes(bytes, n, io, log);
  }

 private:
  // Must outlive this.
  _mvOutput& m_to;
};

}  // namespace morvane
