// A mark that ends in a byte covers the byte before it, whatever bit it ends at. So that one byte tells, for
// most places, that there is none.
#include "runtime/codec/Bzip2Marks.h"

#include <array>

namespace morvane {

namespace {

constexpr uint64_t kMarkMask = (uint64_t{1} << kBzip2MarkBits) - 1;

// For each value of the byte before the last: at which distances from the last byte's end a mark may end, as
// bits.
constexpr std::array<unsigned char, 256> possibleShifts() {
  std::array<unsigned char, 256> shifts{};
  for (const uint64_t mark : {kBzip2BlockMark, kBzip2EndMark}) {
    for (unsigned shift = 0; shift < 8; ++shift) shifts[(mark << shift >> 8) & 0xFF] |= 1u << shift;
  }
  return shifts;
}
constexpr std::array<unsigned char, 256> kPossibleShifts = possibleShifts();

}  // namespace

// All bits up to a byte's end are looked at together: eight places where a mark of 48 bits may end, in a
// number of 64. No two marks can end within eight bits of each other, so that it does not matter which
// place is looked at first.
bool Bzip2Marks::find(const char* bytes, unsigned n, unsigned& used, Mark& mark) {
  for (used = 0; used < n;) {
    // The oldest byte of one number goes over to the other.
    m_earlierBytes = m_earlierBytes << 8 | m_lastBytes >> 56;
    m_lastBytes = m_lastBytes << 8 | static_cast<unsigned char>(bytes[used++]);
    ++m_position;
    const unsigned shifts = kPossibleShifts[m_lastBytes >> 8 & 0xFF];
    for (unsigned shift = 0; shifts >> shift != 0; ++shift) {
      const uint64_t bits = m_lastBytes >> shift & kMarkMask;
      if (bits != kBzip2BlockMark && bits != kBzip2EndMark) continue;
      mark = {m_position * 8 - shift - kBzip2MarkBits, bits == kBzip2EndMark};
      return true;
    }
  }
  return false;
}

}  // namespace morvane
