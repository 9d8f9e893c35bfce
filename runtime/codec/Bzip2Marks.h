// Where blocks of bzip2 data begin and end, found without expanding them. Used to look for blocks ahead of
// their turn, and for nothing that decides: who finds a mark has to try it.
#pragma once

#include <cstdint>

namespace morvane {

// 48 bits that stand in front of each block and of a stream's end, at any bit. They may also come up by
// chance, or on purpose, inside a block: what is found is a guess. The marks are the digits of pi, and
// those of its square root.
constexpr uint64_t kBzip2BlockMark = 0x314159265359, kBzip2EndMark = 0x177245385090;
constexpr unsigned kBzip2MarkBits = 48;

// Looks at bytes one behind the other, in pieces of any size. It keeps the last sixteen, so that a mark may
// begin in one piece and end in another. One thread.
class Bzip2Marks {
 public:
  struct Mark {
    long long bit;  // its first, counted from the first byte ever looked at
    bool endsStream;
  };
  // Looks on until a mark is complete, and says whether one is; `used` is how many of the bytes that took.
  // With false it is all of them.
  bool find(const char* bytes, unsigned n, unsigned& used, Mark& mark);
  // Bytes looked at.
  long long position() const { return m_position; }
  // The latest of them (0) and the fifteen before it. A block's mark, the level and "BZh" in front of it
  // are ten of these. Before as many were looked at they are 0.
  unsigned char byteBack(unsigned n) const {
    return static_cast<unsigned char>((n < 8 ? m_lastBytes >> 8 * n : m_earlierBytes >> 8 * (n - 8)) & 0xFF);
  }

 private:
  // The latest byte is the lowest of the first number.
  uint64_t m_lastBytes = 0, m_earlierBytes = 0;
  long long m_position = 0;
};

}  // namespace morvane
