// A stream of one block is a header, the block's bits, the mark of the end and the block's checksum, which is
// then the stream's too.
#include "runtime/codec/Bzip2Block.h"

#include <bzlib.h>

#include <algorithm>
#include <cstdint>
#include <new>

#include "runtime/codec/Bzip2Marks.h"

namespace morvane {

namespace {

// A mark and a checksum: what a block begins with, and what a stream ends with.
constexpr long long kFrameBits = kBzip2MarkBits + 32;

// Up to 8 bits from any bit on, the first highest. Behind the last byte come zeros, because the last bits
// of a block may need no second byte.
unsigned bitsAt(const std::vector<char>& bytes, long long bit, unsigned n) {
  const auto byte = [&](size_t at) { return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0u; };
  const auto at = static_cast<size_t>(bit / 8);
  const unsigned two = byte(at) << 8 | byte(at + 1);
  return two >> (16 - static_cast<unsigned>(bit % 8) - n) & ((1u << n) - 1);
}

}  // namespace

// A block may begin at any bit; a stream's first has to begin at a byte, right behind the header. So all
// its bits are moved up by `phase`. What is shorter than a mark and a checksum cannot be a block, and would
// have no checksum to read.
bool Bzip2Block::frame() {
  const long long phase = firstBit % 8, bits = endBit - firstBit;
  if (bits < kFrameBits || (phase + bits + 7) / 8 > static_cast<long long>(raw.size())) return false;
  m_framed = {'B', 'Z', 'h', static_cast<char>('0' + level)};
  // Whole bytes of the block, and behind them up to 7 bits, which share a byte with the mark of the end.
  const auto whole = static_cast<size_t>(bits / 8);
  const size_t header = m_framed.size();
  m_framed.resize(header + whole);
  // All bytes but the last, which may be the last of the raw ones too. In words of two bytes, because the
  // bits of one come from two.
  for (size_t i = 0; i + 1 < whole; ++i) {
    const unsigned two =
        unsigned{static_cast<unsigned char>(raw[i])} << 8 | static_cast<unsigned char>(raw[i + 1]);
    m_framed[header + i] = static_cast<char>(two << phase >> 8 & 0xFF);
  }
  m_framed.back() = static_cast<char>(bitsAt(raw, phase + static_cast<long long>(whole - 1) * 8, 8));
  m_crc = 0;
  for (unsigned at = 0; at < 32; at += 8) m_crc = m_crc << 8 | bitsAt(raw, phase + kBzip2MarkBits + at, 8);
  // What is left of the block, and the end behind it.
  const auto rest = static_cast<unsigned>(bits % 8);
  unsigned left = rest > 0 ? bitsAt(raw, phase + bits - rest, rest) : 0;
  const auto put = [&](unsigned byte) {
    m_framed.push_back(static_cast<char>((left << 8 | byte) >> rest));
    left = byte & ((1u << rest) - 1);
  };
  for (int shift = 40; shift >= 0; shift -= 8) put(static_cast<unsigned>(kBzip2EndMark >> shift & 0xFF));
  for (int shift = 24; shift >= 0; shift -= 8) put(m_crc >> shift & 0xFF);
  // Fills up the last byte. What is too much is not looked at by the library, which has met the end by
  // then.
  put(0);
  return true;
}

// The library has no way back in a stream: whoever wants the output once more begins a new one.
bool Bzip2Block::beginAgain() {
  m_againIn = {m_framed.data(), static_cast<unsigned>(m_framed.size()), nullptr, 0};
  return m_again.begin();
}

// To its end in any case: until then nobody knows whether it is right. What is too large to be kept is
// written over itself, for the checksum alone.
bool Bzip2Block::expand() {
  if (!beginAgain()) return false;
  int state = BZ_OK;
  while (state == BZ_OK) {
    if (m_size == m_expanded.size()) {
      m_isLarge = m_size >= kMostKept;
      if (m_isLarge) m_size = 0;
      // A first room that most blocks fit, and then half as much again; it never shrinks, because the next
      // block is likely to need as much.
      if (!m_isLarge) m_expanded.resize(std::min(kMostKept, m_size + m_size / 2 + 1'000'000));
    }
    m_againIn.out = m_expanded.data() + m_size;
    m_againIn.room = static_cast<unsigned>(m_expanded.size() - m_size);
    m_againIn.produced = 0;
    state = m_again.step(m_againIn);
    m_size += m_againIn.produced;
    // The library waits for more, and there is none: this was no block. Without this the loop would not
    // end.
    if (state == BZ_OK && m_againIn.left == 0 && m_againIn.produced == 0) state = BZ_UNEXPECTED_EOF;
  }
  m_again.end();
  return state == BZ_STREAM_END;
}

// By a worker as a rule. A block that there is no memory for counts as one that is not right: libbzip2 is
// then given it as it is, which takes less, and fails in the words of one thread where that is too much.
void Bzip2Block::work() {
  m_size = m_taken = 0;
  m_isLarge = false;
  try {
    m_isRight = frame() && expand();
    // It is expanded a second time when it is taken.
    if (m_isLarge) m_isRight = m_isRight && beginAgain();
  } catch (const std::bad_alloc&) {
    m_isRight = false;
    m_again.end();
    // With their memory, which the library may need.
    m_framed = std::vector<char>();
    m_expanded = std::vector<char>();
  }
}

// The loop for a large block ends, because the same bits have been expanded to their end before.
bool Bzip2Block::takeOutput(char* out, unsigned room, unsigned& n) {
  n = 0;
  if (!m_isLarge) {
    n = static_cast<unsigned>(std::min<size_t>(room, m_size - m_taken));
    std::copy_n(m_expanded.data() + m_taken, n, out);
    m_taken += n;
    return true;
  }
  int state = BZ_OK;
  m_againIn.out = out;
  m_againIn.room = room;
  m_againIn.produced = 0;
  while (state == BZ_OK && m_againIn.produced < room) state = m_again.step(m_againIn);
  n = m_againIn.produced;
  if (state == BZ_STREAM_END) {
    m_again.end();
    m_isLarge = false;
    m_size = m_taken = 0;
  }
  return state == BZ_OK || state == BZ_STREAM_END;
}

}  // namespace morvane
