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

class LzwOutputWindow {
 public:
  LzwOutputWindow(_mvOutput& out, const Io& io) : m_out(out), m_io(io) {}

  uint32_t position() const { return m_base + m_end; }
  // An earlier position makes the difference wrap to a large number, and so fails the one comparison.
  bool holds(uint32_t position) const { return position - m_base < m_end; }
  const char* at(uint32_t position) const { return m_bytes + (position - m_base); }
  char* end() { return m_bytes + m_end; }

  // One more string, of at most 64 KiB, needs room; older output leaves the window for it.
  bool hasRoom(unsigned n) const { return fits(m_end, n); }
  static bool fits(unsigned used, unsigned n) { return used + n + kCopySlack <= kSize; }
  unsigned used() const { return m_end; }
  // The room that is then there fits the longest string, as the sizes below show; it need not be asked again.
  bool makeRoom() {
    if (!flush()) return false;
    std::memmove(m_bytes, m_bytes + m_end - kKept, kKept);
    m_base += m_end - kKept;
    m_end = m_flushed = kKept;
    return true;
  }
  void advance(unsigned n) { m_end += n; }

  // A position that the window does not hold, nor will.
  uint32_t positionBefore() const { return m_base - 1; }

  // Copies a string that stands in the window to the end, 16 bytes at a time and so beyond the string's end
  // too.
  void appendFrom(uint32_t position, unsigned n) { copy(at(position), n, end()); }
  static void copy(const char* from, unsigned n, char* to) {
    for (unsigned done = 0; done < n; done += kCopySlack) {
      char piece[kCopySlack];
      std::memcpy(piece, from + done, kCopySlack);
      std::memcpy(to + done, piece, kCopySlack);
    }
  }

  // Writes what has not been written yet. What was produced in front of damage is written too: a member keeps
  // what had arrived.
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
  static constexpr unsigned kKept = 96 * 1024;
  static constexpr unsigned kSize = 416 * 1024;
  static_assert(kKept + kLongestString + kCopySlack < kSize);

  _mvOutput& m_out;
  const Io& m_io;
  uint32_t m_base = 0;  // position of the window's first byte
  unsigned m_end = 0, m_flushed = 0;
  char m_bytes[kSize];
};

}  // namespace morvane
