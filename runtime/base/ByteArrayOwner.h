// Heap byte arrays: allocation that reports failure by null, and an owner that frees the array with its
// scope. For buffers whose lack of memory is told in the words of the step that needs them, and is no
// exception.
#pragma once

#include <new>

namespace morvane {

// A new byte array of n bytes (contents undefined), released with delete[]; null when there is no memory. n
// may be 0; the array is then none that may be read. The caller owns it; a ByteArrayOwner is the usual
// place.
inline char* mvNewChar(unsigned n) { return new (std::nothrow) char[n]; }
// The same for unsigned bytes. It is freed by delete[]; ByteArrayOwner does not take it.
inline unsigned char* mvNewUnsignedChar(unsigned n) { return new (std::nothrow) unsigned char[n]; }

// Not copied and not moved: an array has the scope in which it was made. May be empty. It knows no size:
// who has the array knows how long it is. One thread at a time.
class ByteArrayOwner {
 public:
  // Takes over an array of mvNewChar, or null.
  explicit ByteArrayOwner(char* bytes = nullptr) : m_bytes(bytes) {}
  ~ByteArrayOwner() { delete[] m_bytes; }
  ByteArrayOwner(const ByteArrayOwner&) = delete;
  ByteArrayOwner& operator=(const ByteArrayOwner&) = delete;

  // Takes over another array of mvNewChar, or null, and frees the one before. What `get` gave before is
  // then of no use.
  void own(char* bytes) {
    delete[] m_bytes;
    m_bytes = bytes;
  }
  // Null while it owns none, as when there was no memory. Still owned.
  char* get() const { return m_bytes; }

 private:
  char* m_bytes;
};

}  // namespace morvane
