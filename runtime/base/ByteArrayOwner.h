// Heap byte arrays: allocation that reports failure by null, and an owner that frees the array with its
// scope.
#pragma once

#include <new>

namespace morvane {

// A new byte array of n bytes (contents undefined), released with delete[]; null when there is no memory. n
// may be 0; the array is then none that may be read.
inline char* mvNewChar(unsigned n) { return new (std::nothrow) char[n]; }
// The same for unsigned bytes.
inline unsigned char* mvNewUnsignedChar(unsigned n) { return new (std::nothrow) unsigned char[n]; }

// Not copied and not moved: an array has the scope in which it was made. May be empty.
class ByteArrayOwner {
 public:
  // Takes over an array of mvNewChar, or null.
  explicit ByteArrayOwner(char* bytes = nullptr) : m_bytes(bytes) {}
  ~ByteArrayOwner() { delete[] m_bytes; }
  ByteArrayOwner(const ByteArrayOwner&) = delete;
  ByteArrayOwner& operator=(const ByteArrayOwner&) = delete;

  // Frees the array before.
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
