// A buffer in front of a source that only reads, as an application's own most often is. Decompressors and the
// look at an archive's first block need bytes that lie still.
#include "runtime/io/BufferedDataSource.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "runtime/log/LogBase.h"

namespace morvane {

namespace {

// More than the 512 bytes that a peek may ask for, in however small pieces they come.
constexpr unsigned kBuffer = 64 * 1024;

}  // namespace

// Adds to what is left in the buffer, which is moved to its start. One read, which may bring any number of
// bytes; none is the end. A few bytes in front of the position stay, for takeBack may reach behind the piece
// that was lent last.
bool BufferedDataSource::fill(ProgressMonitor* pm, LogBase& log) {
  if (!m_buffer) m_buffer.reset(new (std::nothrow) char[kBehind + kBuffer]);
  if (!m_buffer) {
    log.LogError("Out of memory for a read buffer.");
    return false;
  }
  if (m_at > kBehind) {
    std::memmove(m_buffer.get(), m_buffer.get() + m_at - kBehind, m_end - m_at + kBehind);
    m_end -= m_at - kBehind;
    m_at = kBehind;
  }
  unsigned got = 0;
  // There is always room: fill is called with an empty buffer, or by a peek that has less than a block.
  if (!m_source.read(m_buffer.get() + m_end, kBehind + kBuffer - m_end, got, pm, log)) return false;
  // Not for good: an application's source may have bytes again later, and is asked.
  m_ended = got == 0;
  m_end += got;
  return true;
}

// The underlying read has asked whether to abort and told of the progress; nothing is left to do about
// either.
bool BufferedDataSource::lendBytes(unsigned most, const char*& bytes, unsigned& n, ProgressMonitor* pm,
                                   LogBase& log) {
  n = 0;
  if (m_at == m_end && !fill(pm, log)) return false;
  n = std::min(most, m_end - m_at);
  bytes = m_buffer.get() + m_at;
  m_at += n;
  return true;
}

// As many bytes as lie there: a short read is allowed before the end.
bool BufferedDataSource::readSourcePM(char* buffer, unsigned int n, unsigned int& numRead,
                                      ProgressMonitor* pm, LogBase& log) {
  const char* bytes = nullptr;
  if (!lendBytes(n, bytes, numRead, pm, log)) return false;
  if (numRead > 0) std::memcpy(buffer, bytes, numRead);
  return true;
}

// n is 512 at most, so there is always room to fill up to it.
bool BufferedDataSource::peekBytes(unsigned n, const char*& bytes, unsigned& got, ProgressMonitor* pm,
                                   LogBase& log) {
  while (m_end - m_at < n && !m_ended) {
    if (!fill(pm, log)) return false;
  }
  bytes = m_buffer.get() + m_at;
  got = std::min(n, m_end - m_at);
  return true;
}

}  // namespace morvane
