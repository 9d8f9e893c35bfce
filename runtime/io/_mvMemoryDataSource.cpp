// A source over bytes that lie in memory already. Nothing is copied unless somebody wants a copy.
#include "runtime/io/_mvMemoryDataSource.h"

#include <algorithm>
#include <cstring>

#include "runtime/io/Abort.h"

namespace morvane {

// What was read before is forgotten with its position.
void _mvMemoryDataSource::initializeMemSource(const unsigned char* bytes, unsigned n) {
  m_bytes = reinterpret_cast<const char*>(bytes);
  m_size = n;
  m_position = 0;
}

// 0 at the end and past it.
unsigned _mvMemoryDataSource::available(unsigned most) const {
  if (m_position >= m_size) return 0;
  return static_cast<unsigned>(std::min<long long>(most, m_size - m_position));
}

// Lends all that is asked for; whoever reads large archives asks for pieces. The bytes are moved past even
// when the answer is an abort: nobody reads on behind that.
bool _mvMemoryDataSource::lendBytes(unsigned most, const char*& bytes, unsigned& n, ProgressMonitor* pm,
                                    LogBase& log) {
  n = available(most);
  bytes = n > 0 ? m_bytes + m_position : nullptr;
  m_position += n;
  return !pm || !(pm->abortCheckTimed(log) || pm->consumeProgress(n, log)) || logAborted(log);
}

// memcpy must not be called with null, even for no bytes.
bool _mvMemoryDataSource::readSourcePM(char* buffer, unsigned int n, unsigned int& numRead,
                                       ProgressMonitor* pm, LogBase& log) {
  const char* bytes = nullptr;
  if (!lendBytes(n, bytes, numRead, pm, log)) return false;
  if (numRead > 0) std::memcpy(buffer, bytes, numRead);
  return true;
}

// Everything is there; nothing can fail.
bool _mvMemoryDataSource::peekBytes(unsigned n, const char*& bytes, unsigned& got, ProgressMonitor*,
                                    LogBase&) {
  got = available(n);
  bytes = got > 0 ? m_bytes + m_position : nullptr;
  return true;
}

// Past the end is allowed, as in a file: an archive may claim more data than there are, and the next read
// tells.
bool _mvMemoryDataSource::fseekAbsolute64(long long position, LogBase& log) {
  if (position < 0) {
    log.LogError("Cannot seek to a negative position.");
    return false;
  }
  m_position = position;
  return true;
}

}  // namespace morvane
