// An output into memory: listings, matches and packages, which are asked for as a whole. A buffer holds less
// than 4 GiB.
#include "runtime/io/OutputDataBuffer.h"

#include "runtime/buffer/DataBuffer.h"
#include "runtime/log/LogBase.h"

namespace morvane {

// The buffer is left as it was; the size that is logged is the one that did not fit.
bool OutputDataBuffer::_writeBytes(const char* bytes, unsigned int n, _mvIoParams&, LogBase& log) {
  if (m_buffer.append(bytes, n)) return true;
  log.LogError("Out of memory for data kept in memory.");
  log.LogDataInt64("size", static_cast<long long>(m_buffer.getSize()) + n);
  return false;
}

// Without memory for all of it nothing is reserved, and appending tries in smaller steps.
void OutputDataBuffer::reserveMore(unsigned n) { (void)m_buffer.reserveMore(n); }

long long OutputDataBuffer::ftell64() { return m_buffer.getSize(); }

}  // namespace morvane
