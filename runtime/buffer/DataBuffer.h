// A growable byte buffer with 32-bit sizes.
//
// Bytes are removed from the front by moving a start offset, so a buffer that is filled at one end and eaten
// at the other costs the same per byte whatever its size. Operations that need memory return false when there
// is none (or when 4 GiB would be passed) and leave the buffer as it was.
#pragma once

#include "runtime/base/Export.h"

namespace morvane {

class LogBase;

// One thread at a time. It is not copied; appending one to another does that.
class MORVANE_API DataBuffer {
 public:
  DataBuffer() = default;
  ~DataBuffer();
  DataBuffer(const DataBuffer&) = delete;
  DataBuffer& operator=(const DataBuffer&) = delete;

  // The bytes may be the buffer's own.
  bool append(const char* bytes, unsigned n);
  bool append(const unsigned char* bytes, unsigned n);
  bool append(const DataBuffer& other);  // the buffer itself is allowed
  bool appendChar(unsigned char byte) { return append(&byte, 1); }
  bool appendStr(const char* text);
  // Room for n more bytes in one allocation.
  bool reserveMore(unsigned n);

  // The bytes; valid until the buffer changes. Never null, also when empty. An empty buffer's pointer must
  // not be read from.
  const unsigned char* getData2() const;
  unsigned getSize() const { return m_size; }
  bool isEmpty() const { return m_size == 0; }

  // clear() gives the memory back, weakClear() keeps it for the next bytes.
  void clear();
  void weakClear();
  // Removes n bytes from `offset` on; what lies behind the end is ignored.
  void removeChunk(unsigned offset, unsigned n);
  // Keeps the first `size` bytes; a larger size changes nothing.
  void truncate(unsigned size);

  // Makes the buffer refer to the caller's bytes without copying them. They must stay until the buffer is
  // cleared, changed (it then takes its own copy first) or destroyed.
  void borrowData(const unsigned char* bytes, unsigned n);

  // Replaces the contents by a whole file / writes them to a file, created or truncated. The reason of a
  // failure is logged; `log` may be null. A file of 4 GiB or more does not fit.
  bool loadFileUtf8(const char* path, LogBase* log);
  bool saveToFileUtf8(const char* path, LogBase* log) const;

 private:
  bool makeRoom(unsigned long long more);

  unsigned char* m_bytes = nullptr;  // the allocation, or the caller's bytes while borrowed
  unsigned m_start = 0;              // of the first byte in m_bytes
  unsigned m_size = 0;
  unsigned m_capacity = 0;  // 0 while borrowed
};

}  // namespace morvane
