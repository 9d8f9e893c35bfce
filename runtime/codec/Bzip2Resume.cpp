// A checksum of 32 bits can be had for any text by four bytes behind it, and the length of a block follows
// from its text in no simple way: so texts are tried until one comes out at the right bit. It takes some
// eight tries.
#include "runtime/codec/Bzip2Resume.h"

#include <bzlib.h>

#include <cstdint>

#include "runtime/codec/Bzip2Marks.h"

namespace morvane {

namespace {

// The checksum of bzip2: the polynomial of gzip, highest bit first. The library's own is not part of its
// interface.
constexpr uint32_t kPolynomial = 0x04C11DB7;

uint32_t crcOf(const std::string& text) {
  uint32_t crc = 0xFFFFFFFF;
  for (const char c : text) {
    crc ^= uint32_t{static_cast<unsigned char>(c)} << 24;
    for (int bit = 0; bit < 8; ++bit) crc = crc << 1 ^ (crc >> 31 != 0 ? kPolynomial : 0);
  }
  return crc;
}

// Four bytes that bring the sum of the text to `crc`. What four zero bytes would have to start from is found
// by going back bit by bit: the polynomial is odd, so that the lowest bit tells whether it was added.
std::string bytesForCrc(const std::string& text, uint32_t crc) {
  uint32_t before = ~crc;
  for (int bit = 0; bit < 32; ++bit) {
    const bool wasAdded = (before & 1) != 0;
    before = (wasAdded ? before ^ kPolynomial : before) >> 1 | (wasAdded ? 0x80000000 : 0);
  }
  const uint32_t four = before ^ crcOf(text);
  std::string bytes;
  for (const int shift : {24, 16, 8, 0}) bytes.push_back(static_cast<char>(four >> shift & 0xFF));
  return bytes;
}

}  // namespace

// A single block's checksum is its stream's too, so `crc` stands in for all the blocks it replaces. The
// text is compressed at the smallest level, which saves memory; the level in the header only bounds the
// size of blocks, and is put right afterwards for those that follow.
bool makeBzip2Beginning(int level, unsigned phase, unsigned crc, Bzip2Beginning& beginning) {
  // Each try comes out at one of eight bits: that so many miss does not happen.
  constexpr int kTries = 2000;
  for (int i = 0; i < kTries; ++i) {
    std::string text = std::to_string(i * 7919);
    text += bytesForCrc(text, crc);
    char packed[256];
    unsigned n = sizeof packed;
    if (BZ2_bzBuffToBuffCompress(packed, &n, text.data(), static_cast<unsigned>(text.size()), 1, 0, 0) !=
        BZ_OK)
      return false;
    // The first mark is the block's own.
    Bzip2Marks marks;
    Bzip2Marks::Mark mark{};
    for (unsigned at = 0, used = 0; at < n && !mark.endsStream; at += used)
      marks.find(packed + at, n - at, used, mark);
    if (!mark.endsStream || mark.bit % 8 != phase) continue;
    beginning.bytes.assign(packed, static_cast<size_t>((mark.bit + 7) / 8));
    beginning.bytes[3] = static_cast<char>('0' + level);
    if (phase > 0) beginning.bytes.back() = static_cast<char>(beginning.bytes.back() & 0xFF << (8 - phase));
    beginning.output = static_cast<unsigned>(text.size());
    return true;
  }
  return false;
}

}  // namespace morvane
