// An output that appends to a buffer, which it does not own.
#pragma once

#include "runtime/io/_mvOutput.h"

namespace morvane {

// The buffer must outlive it. What was in the buffer before stays in front. Nothing is held back: what was
// written is in the buffer at once.
class MORVANE_API OutputDataBuffer : public _mvOutput {
 public:
  explicit OutputDataBuffer(DataBuffer& buffer) : m_buffer(buffer) {}
  // False, with the reason in the log, without memory or from 4 GiB on.
  bool _writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) override;
  // Bytes in the buffer, those from before included.
  long long ftell64() override;
  // Room for n more bytes in one allocation; without it the buffer grows as bytes come. A hint: without
  // memory for it nothing happens.
  void reserveMore(unsigned n);

 private:
  // The caller's.
  DataBuffer& m_buffer;
};

}  // namespace morvane
