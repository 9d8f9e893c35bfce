// Heap byte arrays: allocation that reports failure by null, and an owner that frees the array with its
// scope.
#pragma once

#include <new>

namespace morvane {

// A new byte array of n bytes (contents undefined), released with delete[]; null when there is no memory.
inline char* mvNewChar(unsigned n) { return new (std::nothrow) char[n]; }
inline unsigned char* mvNewUnsignedChar(unsigned n) { return new (std::nothrow) unsigned char[n]; }

class ByteArrayOwner {
 public:
  explicit ByteArrayOwner(char* bytes = nullptr) : m_bytes(bytes) {}
  ~ByteArrayOwner() { delete[] m_bytes; }
  ByteArrayOwner(const ByteArrayOwner&) = delete;
  ByteArrayOwner& operator=(const ByteArrayOwner&) = delete;

  void own(char* bytes) {
    delete[] m_bytes;
    m_bytes = bytes;
  }
  char* get() const { return m_bytes; }

 private:
  char* m_bytes;
};

}  // namespace morvane
