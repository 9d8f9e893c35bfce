#include "runtime/codec/MorvaneLzw.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "runtime/codec/InputWindow.h"
#include "runtime/io/_mvOutput.h"

namespace morvane {

namespace {

constexpr unsigned char kMagic1 = 0x1F, kMagic2 = 0x9D;
constexpr unsigned kMaxBitsMask = 0x1F, kBlockModeFlag = 0x80;
constexpr unsigned kFirstWidth = 9, kLargestWidth = 16;
constexpr unsigned kClear = 256;
constexpr unsigned kCodesPerGroup = 8;  // the encoder writes codes in groups, padded when their width changes

// Reads codes, least significant bit first.
class CodeReader {
 public:
  explicit CodeReader(InputWindow& input) : m_input(input) {}

  // False at the end of the data, and when reading failed (see failed()).
  bool next(unsigned width, unsigned& code) {
    if (m_bitCount < width && !refill(width)) return false;
    code = static_cast<unsigned>(m_bits) & ((1u << width) - 1);
    m_bits >>= width;
    m_bitCount -= width;
    m_codesInGroup = (m_codesInGroup + 1) % kCodesPerGroup;
    return true;
  }

  // Passes over the rest of the group that the last code stands in.
  bool skipGroup(unsigned width) {
    unsigned ignored;
    while (m_codesInGroup != 0) {
      if (!next(width, ignored)) return false;
    }
    return true;
  }

  bool nextByte(unsigned& byte) {
    const bool got = next(8, byte);
    m_codesInGroup = 0;
    return got;
  }

  bool failed() const { return m_failed; }

 private:
  bool refill(unsigned width) {
    if (m_end - m_at >= 8) {
      uint64_t more;  // at most 15 bits are left, so 48 more fit
      std::memcpy(&more, m_at, sizeof more);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
      more = __builtin_bswap64(more);
#endif
      m_bits |= (more & 0xFFFFFFFFFFFF) << m_bitCount;
      m_at += 6;
      m_bitCount += 48;
      return true;
    }
    while (m_bitCount < width) {
      if (m_at == m_end && !nextPiece()) return false;
      m_bits |= static_cast<uint64_t>(*m_at++) << m_bitCount;
      m_bitCount += 8;
    }
    return true;
  }

  bool nextPiece() {
    const char* bytes = nullptr;
    unsigned n = 0;
    m_failed = !m_input.next(bytes, n);
    m_at = reinterpret_cast<const unsigned char*>(bytes);
    m_end = m_at + (m_failed ? 0 : n);
    return m_at != m_end;
  }

  InputWindow& m_input;
  const unsigned char* m_at = nullptr;
  const unsigned char* m_end = nullptr;
  uint64_t m_bits = 0;
  unsigned m_bitCount = 0;
  unsigned m_codesInGroup = 0;
  bool m_failed = false;
};

// The output's end, kept in memory: strings are copied from where they stand in it. Positions count modulo
// 2^32 from the start of the output.
class OutputWindow {
 public:
  OutputWindow(_mvOutput& out, ProgressMonitor* pm, LogBase& log) : m_out(out), m_pm(pm), m_log(log) {}

  uint32_t position() const { return m_base + m_end; }
  bool holds(uint32_t position) const { return position - m_base < m_end; }
  const char* at(uint32_t position) const { return m_bytes + (position - m_base); }
  char* end() { return m_bytes + m_end; }

  // One more string, of at most 64 KiB, needs room; older output leaves the window for it.
  bool hasRoom(unsigned n) const { return m_end + n + kCopySlack <= kSize; }
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
  void appendFrom(uint32_t position, unsigned n) {
    const char* from = at(position);
    char* to = end();
    for (unsigned done = 0; done < n; done += kCopySlack) {
      char piece[kCopySlack];
      std::memcpy(piece, from + done, kCopySlack);
      std::memcpy(to + done, piece, kCopySlack);
    }
  }

  bool flush() {
    const unsigned n = m_end - m_flushed;
    const char* const from = m_bytes + m_flushed;
    m_flushed = m_end;
    return n == 0 || m_out.writeBytesPM(from, n, m_pm, m_log);
  }

 private:
  static constexpr unsigned kCopySlack = 16;
  static constexpr unsigned kLongestString = 1u << kLargestWidth;
  static constexpr unsigned kKept = 96 * 1024;
  static constexpr unsigned kSize = 320 * 1024;
  static_assert(kKept + kLongestString + kCopySlack < kSize);

  _mvOutput& m_out;
  ProgressMonitor* const m_pm;
  LogBase& m_log;
  uint32_t m_base = 0;  // position of the window's first byte
  unsigned m_end = 0, m_flushed = 0;
  char m_bytes[kSize];
};

// A string that a code stands for: where it was last produced, and how to make it again once that has left
// the window.
struct TableEntry {
  uint32_t position;
  uint16_t length;
  uint16_t prefix;  // the code of all but the last byte
};

class LzwDecoder {
 public:
  LzwDecoder(CodeReader& codes, OutputWindow& window, unsigned maxBits, bool blockMode, LogBase& log)
      : m_codes(codes), m_window(window), m_maxBits(maxBits), m_blockMode(blockMode), m_log(log) {
    for (unsigned code = 0; code < kClear; ++code) m_suffix[code] = static_cast<char>(code);
  }

  bool run() {
    m_free = m_blockMode ? kClear + 1 : kClear;
    setFirstWidth();
    unsigned code;
    if (!m_codes.next(m_width, code)) return endOfCodes();
    if (code >= kClear) return fail("The compressed data start with a code that cannot be first.");
    if (!produce(code)) return false;
    while (true) {
      if (m_free > m_largestCode && !widen()) return endOfCodes();
      if (!m_codes.next(m_width, code)) return endOfCodes();
      if (code == kClear && m_blockMode) {
        // The first string behind a clear takes the clear code's own place, where no code can ask for it.
        m_free = kClear;
        if (!m_codes.skipGroup(m_width)) return endOfCodes();
        setFirstWidth();
        continue;
      }
      if (code > m_free || code >= 1u << m_maxBits)
        return fail("The compressed data hold a code that is not in the table yet.");
      if (!(code == m_free ? produceUnfinished() : produce(code))) return false;
    }
  }

 private:
  void setFirstWidth() {
    m_width = kFirstWidth;
    m_largestCode = (1u << kFirstWidth) - 1;
  }

  // With a maximum of 9 bits the width still grows to 10 once the table is full, as in every decoder of this
  // format.
  bool widen() {
    if (!m_codes.skipGroup(m_width)) return false;
    ++m_width;
    m_largestCode = m_width == m_maxBits ? 1u << m_maxBits : (1u << m_width) - 1;
    return true;
  }

  bool endOfCodes() { return !m_codes.failed() && m_window.flush(); }

  bool fail(const char* message) {
    m_window.flush();
    m_log.LogError(message);
    return false;
  }

  // Enters "the previous string and the byte behind it", which stand in the output side by side.
  void enterPrevious(char nextByte) {
    if (m_free >= 1u << m_maxBits) return;
    m_table[m_free] = {m_previousAt, static_cast<uint16_t>(m_previousLength + 1),
                       static_cast<uint16_t>(m_previousCode)};
    m_suffix[m_free] = nextByte;
    ++m_free;
  }

  void becomePrevious(unsigned code, uint32_t at, unsigned length) {
    m_previousCode = code;
    m_previousAt = at;
    m_previousLength = length;
    m_window.advance(length);
  }

  bool makeRoom(unsigned n) {
    if (m_window.hasRoom(n)) return true;
    if (!m_window.makeRoom()) return false;
    constexpr uint32_t kSweepEvery = 1u << 30;
    if (m_window.position() - m_sweptAt > kSweepEvery) forgetOldPositions();
    return true;
  }

  // Positions count modulo 2^32: long before one comes round again it is made one that no window holds.
  void forgetOldPositions() {
    m_sweptAt = m_window.position();
    for (unsigned code = kClear; code < m_free; ++code) {
      if (!m_window.holds(m_table[code].position)) m_table[code].position = m_window.positionBefore();
    }
  }

  bool produce(unsigned code) {
    const unsigned length = code < kClear ? 1 : m_table[code].length;
    if (!makeRoom(length)) return false;
    const uint32_t at = m_window.position();
    if (code < kClear) {
      *m_window.end() = static_cast<char>(code);
    } else if (m_window.holds(m_table[code].position)) {
      m_window.appendFrom(m_table[code].position, length);
    } else {
      spell(code, length);
    }
    if (m_previousLength > 0) enterPrevious(*m_window.end());
    if (code >= kClear) m_table[code].position = at;
    becomePrevious(code, at, length);
    return true;
  }

  // The code that is about to be entered: the previous string and its own first byte again.
  bool produceUnfinished() {
    const unsigned length = m_previousLength + 1;
    if (!makeRoom(length)) return false;
    const uint32_t at = m_window.position();
    m_window.appendFrom(m_previousAt, m_previousLength);
    const char first = *m_window.end();
    m_window.end()[m_previousLength] = first;
    const unsigned code = m_free;
    enterPrevious(first);
    becomePrevious(code, at, length);
    return true;
  }

  // From the table's chain, last byte first.
  void spell(unsigned code, unsigned length) {
    char* const to = m_window.end();
    for (unsigned i = length; i-- > 0;) {
      to[i] = m_suffix[code];
      code = m_table[code].prefix;
    }
  }

  CodeReader& m_codes;
  OutputWindow& m_window;
  const unsigned m_maxBits;
  const bool m_blockMode;
  LogBase& m_log;
  unsigned m_width = kFirstWidth;
  unsigned m_largestCode = 0;
  unsigned m_free = 0;  // the next code to enter
  unsigned m_previousCode = 0, m_previousLength = 0;
  uint32_t m_previousAt = 0;
  uint32_t m_sweptAt = 0;
  TableEntry m_table[1u << kLargestWidth];
  char m_suffix[1u << kLargestWidth];
};

bool fail(LogBase& log, const char* message) {
  log.LogError(message);
  return false;
}

}  // namespace

bool MorvaneLzw::decompressLzwSource64(_mvDataSource& source, _mvOutput& out, bool, _mvIoParams& io,
                                       LogBase& log) {
  InputWindow input(source, io.monitor(), log);
  CodeReader codes(input);
  unsigned magic1 = 0, magic2 = 0, flags = 0;
  const bool complete = codes.nextByte(magic1) && codes.nextByte(magic2) && codes.nextByte(flags);
  if (codes.failed()) return false;
  if (!complete || magic1 != kMagic1 || magic2 != kMagic2)
    return fail(log, "The data are not in compress format.");
  const unsigned maxBits = flags & kMaxBitsMask;
  if (maxBits < kFirstWidth || maxBits > kLargestWidth) {
    log.LogDataLong("maxBits", static_cast<long>(maxBits));
    return fail(log, "The compressed data need a code width that is not supported.");
  }
  const std::unique_ptr<OutputWindow> window(new (std::nothrow) OutputWindow(out, io.monitor(), log));
  if (!window) return fail(log, "Out of memory for LZW decompression.");
  const std::unique_ptr<LzwDecoder> decoder(
      new (std::nothrow) LzwDecoder(codes, *window, maxBits, (flags & kBlockModeFlag) != 0, log));
  if (!decoder) return fail(log, "Out of memory for LZW decompression.");
  return decoder->run();
}

}  // namespace morvane
