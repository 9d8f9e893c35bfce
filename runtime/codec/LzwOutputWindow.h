// The output's end, kept in memory: strings are copied from where they stand in it. Positions count modulo
// 2^32 from the start of the output. The window never loses the previous string: more is kept when it is
// moved than any string has. Whoever asks for a string that has left it learns so by `holds` and spells it
// from the table.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>

#include "runtime/io/Io.h"
#include "runtime/io/_mvOutput.h"

namespace morvane {

// No writer goes beyond 16 bits a code, which is also what two bytes of a table entry hold.
constexpr unsigned kLargestLzwWidth = 16;

// For MorvaneLzw.cpp alone. It knows nothing of codes: strings are positions and lengths. About 416 KiB, so
// it lives on the heap.
class LzwOutputWindow {
 public:
  // Both must outlive it.
  LzwOutputWindow(_mvOutput& out, const Io& io) : m_out(out), m_io(io) {}

  // Where the next byte of the output goes.
  uint32_t position() const { return m_base + m_end; }
  // An earlier position makes the difference wrap to a large number, and so fails the one comparison.
  bool holds(uint32_t position) const { return position - m_base < m_end; }
  // Of a position that the window holds.
  const char* at(uint32_t position) const { return m_bytes + (position - m_base); }
  // Where the next string is put together; as much room as was asked for is behind it.
  char* end() { return m_bytes + m_end; }

  // One more string, of at most 64 KiB, needs room; older output leaves the window for it.
  bool hasRoom(unsigned n) const { return fits(m_end, n); }
  static bool fits(unsigned used, unsigned n) { return used + n + kCopySlack <= kSize; }
  // Bytes in the window. `fits` asks for a number of them, so that a loop can keep its own count in a
  // register.
  unsigned used() const { return m_end; }
  // Writes all there is, and keeps the last 96 KiB. The room that is then there fits the longest string, as
  // the sizes below show; it need not be asked again. False when the output refuses the bytes.
  bool makeRoom() {
    if (!flush()) return false;
    std::memmove(m_bytes, m_bytes + m_end - kKept, kKept);
    m_base += m_end - kKept;
    m_end = m_flushed = kKept;
    return true;
  }
  // The n bytes at the end have been filled in.
  void advance(unsigned n) { m_end += n; }

  // A position that the window does not hold, nor will. For entries whose string has left: `holds` says no
  // to it for as long as the window only moves on, which is for nearly 2^32 bytes.
  uint32_t positionBefore() const { return m_base - 1; }

  // Copies a string that stands in the window to the end, 16 bytes at a time and so beyond the string's end
  // too. What is written too much is overwritten by the next string. The bytes go through a piece in
  // between, because sixteen of them may reach into the place they are copied to, which memcpy alone must
  // not meet. The string itself always ends in front of that place.
  void appendFrom(uint32_t position, unsigned n) { copy(at(position), n, end()); }
  static void copy(const char* from, unsigned n, char* to) {
    for (unsigned done = 0; done < n; done += kCopySlack) {
      char piece[kCopySlack];
      std::memcpy(piece, from + done, kCopySlack);
      std::memcpy(to + done, piece, kCopySlack);
    }
  }

  // Writes what has not been written yet. What was produced in front of damage is written too: a member
  // keeps what had arrived. Called at the end of the data, where room is needed, and in front of a failure.
  bool flush() {
    const unsigned n = m_end - m_flushed;
    const char* const from = m_bytes + m_flushed;
    m_flushed = m_end;
    return n == 0 || m_out.writeBytesPM(from, n, m_io.monitor, m_io.log);
  }

 private:
  // What a copy may write beyond a string's end; the room for it is kept free.
  static constexpr unsigned kCopySlack = 16;
  // A string is one byte longer than an older one at most, and there are less than 65,536 of them: lengths
  // fit 16 bits, and so does the one more that an entry adds.
  static constexpr unsigned kLongestString = 1u << kLargestLzwWidth;
  // More than the longest string, so that the previous one stays.
  static constexpr unsigned kKept = 96 * 1024;
  // What is not kept, some 300 KiB, is how much is written at a time.
  static constexpr unsigned kSize = 416 * 1024;
  static_assert(kKept + kLongestString + kCopySlack < kSize);

  _mvOutput& m_out;
  const Io& m_io;
  uint32_t m_base = 0;  // position of the window's first byte
  // Bytes in the window, and how many of them have been written.
  unsigned m_end = 0, m_flushed = 0;
  // The end of the output, oldest byte first.
  char m_bytes[kSize];
};

}  // namespace morvane
