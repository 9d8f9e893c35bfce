// A source over memory that the caller owns and that must outlive the source.
#pragma once

#include "runtime/io/_mvDataSource.h"

namespace morvane {

// The bytes must not change while they are read. Empty until it is initialized. Nothing is allocated and no
// read fails, but for an abort. One thread at a time; several objects may read the same bytes.
class MORVANE_API _mvMemoryDataSource : public _mvDataSource {
 public:
  // `bytes` may be null when n is 0. It may be called again, for other bytes, and the source then stands at
  // their beginning.
  void initializeMemSource(const unsigned char* bytes, unsigned n);

  // All n bytes unless the data end. Told to the monitor, which may be null.
  bool readSourcePM(char* buffer, unsigned int n, unsigned int& numRead, ProgressMonitor* pm,
                    LogBase& log) override;
  // Past the end, too.
  bool endOfStream() override { return m_position >= m_size; }
  // Any position from 0 on; a negative one is a failure, with its line in the log, and leaves the position.
  bool fseekAbsolute64(long long position, LogBase& log) override;
  // Positions and sizes are in bytes.
  long long ftell64() override { return m_position; }
  long long sizeIfKnown() override { return m_size; }
  bool readsAtOnce() override { return true; }
  // Bytes are lent from where they lie, and stay valid as long as the caller keeps them.
  bool canLend() override { return true; }
  // Up to all of what is left, in one piece. Told to the monitor, which may be null.
  bool lendBytes(unsigned most, const char*& bytes, unsigned& n, ProgressMonitor* pm, LogBase& log) override;
  // No more than was handed out.
  void takeBack(unsigned n) override { m_position -= n; }
  bool canPeek() override { return true; }
  // Shows up to n bytes, more than 512 too. They stay valid as long as the caller keeps them.
  bool peekBytes(unsigned n, const char*& bytes, unsigned& got, ProgressMonitor* pm, LogBase& log) override;

 private:
  // Bytes that a read of `most` would give. 0 at the end and past it.
  unsigned available(unsigned most) const;

  // Not owned.
  const char* m_bytes = nullptr;
  // Both in bytes, signed like those of every source.
  long long m_size = 0;
  long long m_position = 0;  // may lie past the end, where reads yield nothing
};

}  // namespace morvane
