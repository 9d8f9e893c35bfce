// Makes a source that cannot lend or show its bytes into one that can, by a buffer of its own. Reads forward
// only.
#pragma once

#include <memory>

#include "runtime/io/_mvDataSource.h"

namespace morvane {

// The source behind it is not owned and must outlive this. It is read up to 64 KiB further than what was
// handed out: what this took too much is lost to whoever reads the source afterwards. A source of the
// application's is put behind it wherever a codec or the look at the first block reads. One thread; errors
// are those of the source.
class BufferedDataSource : public _mvDataSource {
 public:
  // Allocates nothing; the buffer comes with the first read.
  explicit BufferedDataSource(_mvDataSource& source) : m_source(source) {}

  // At most what one read of the source gave, so that a slow one is not waited for twice. Fewer bytes than n
  // are no end.
  bool readSourcePM(char* buffer, unsigned int n, unsigned int& numRead, ProgressMonitor* pm,
                    LogBase& log) override;
  // Only behind a read that met the end.
  bool endOfStream() override { return m_at == m_end && m_ended; }
  long long sizeIfKnown() override { return m_source.sizeIfKnown(); }
  bool readsAtOnce() override { return m_at < m_end || m_source.readsAtOnce(); }
  bool canLend() override { return true; }
  // Up to what lies in the buffer, which is read into only when it is empty. Valid until the next operation.
  bool lendBytes(unsigned most, const char*& bytes, unsigned& n, ProgressMonitor* pm, LogBase& log) override;
  // Up to kBehind bytes more than were lent last.
  void takeBack(unsigned n) override { m_at -= n; }
  bool canPeek() override { return true; }
  // Reads until n bytes lie there, or the source ends.
  bool peekBytes(unsigned n, const char*& bytes, unsigned& got, ProgressMonitor* pm, LogBase& log) override;

 private:
  // One read of the source. False, with the reason in the log.
  bool fill(ProgressMonitor* pm, LogBase& log);

  _mvDataSource& m_source;
  std::unique_ptr<char[]> m_buffer;
  // In front of what is left are the last bytes that were lent.
  static constexpr unsigned kBehind = 16;
  // Offsets in the buffer: of the next byte that is handed out, and behind the last one that was read.
  unsigned m_at = kBehind, m_end = kBehind;
  // The last read gave nothing.
  bool m_ended = false;
};

}  // namespace morvane
