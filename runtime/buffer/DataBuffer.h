// A growable byte buffer with 32-bit sizes.
//
// Bytes are removed from the front by moving a start offset, so a buffer that is filled at one end and eaten
// at the other costs the same per byte whatever its size. Operations that need memory return false when there
// is none (or when 4 GiB would be passed) and leave the buffer as it was.
#pragma once

#include "runtime/base/Export.h"

namespace morvane {

class LogBase;

// One thread at a time. It is not copied; appending one to another does that. Bytes that come in are
// copied, but for borrowed ones.
class MORVANE_API DataBuffer {
 public:
  DataBuffer() = default;
  ~DataBuffer();
  DataBuffer(const DataBuffer&) = delete;
  DataBuffer& operator=(const DataBuffer&) = delete;

  // Puts n bytes behind what is there. They may be the buffer's own, and n may be 0.
  bool append(const char* bytes, unsigned n);
  bool append(const unsigned char* bytes, unsigned n);
  bool append(const DataBuffer& other);  // the buffer itself is allowed
  bool appendChar(unsigned char byte) { return append(&byte, 1); }
  // Without the text's NUL. The text must not be null.
  bool appendStr(const char* text);
  // Room for n more bytes in one allocation, where it is known how many will come: growing by and by would
  // take several, and up to half as much again. A number that an archive claims is to be checked before.
  bool reserveMore(unsigned n);

  // The bytes; valid until the buffer changes. Never null, also when empty. An empty buffer's pointer must
  // not be read from.
  const unsigned char* getData2() const;
  // In bytes, as all sizes and offsets here.
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
  // cleared, changed (it then takes its own copy first) or destroyed. For handing bytes to a function that
  // takes a buffer.
  void borrowData(const unsigned char* bytes, unsigned n);

  // Replaces the contents by a whole file / writes them to a file, created or truncated. The reason of a
  // failure is logged; `log` may be null. A file of 4 GiB or more does not fit. Both are defined in
  // runtime/io, because this room knows of no files.
  bool loadFileUtf8(const char* path, LogBase* log);
  bool saveToFileUtf8(const char* path, LogBase* log) const;

 private:
  // Whatever writes to the bytes begins with it.
  bool makeRoom(unsigned long long more);

  unsigned char* m_bytes = nullptr;  // the allocation, or the caller's bytes while borrowed
  unsigned m_start = 0;              // of the first byte in m_bytes
  unsigned m_size = 0;
  unsigned m_capacity = 0;  // 0 while borrowed
};

}  // namespace morvane
