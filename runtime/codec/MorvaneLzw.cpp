// The decoder of Unix compress (.Z): LZW with codes of 9 to 16 bits, least significant bit first.
//
// A file is three bytes (two of magic, then the largest width and the block mode) and codes up to its end;
// there is neither an end mark nor a checksum. Each code but the first and those behind a full table enters
// one string: the one before and one byte more. The format has quirks that every decoder shares, because the
// first encoder had them: the widths change by groups of eight codes, and behind a clear an entry is made
// that no code can name.
//
// Two things make it fast. Strings are copied from the output, where they were produced last, rather than
// spelt from the table; and while nothing special happens codes are decoded by a loop that keeps its state in
// registers.
#include "runtime/codec/MorvaneLzw.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "runtime/codec/InputWindow.h"
#include "runtime/codec/LzwOutputWindow.h"
#include "runtime/io/Io.h"
#include "runtime/io/_mvOutput.h"

namespace morvane {

namespace {

constexpr unsigned char kMagic1 = 0x1F, kMagic2 = 0x9D;
// The third byte. The two bits between width and block mode are not used by any writer and not looked at.
constexpr unsigned kMaxBitsMask = 0x1F, kBlockModeFlag = 0x80;
constexpr unsigned kFirstWidth = 9, kLargestWidth = kLargestLzwWidth;
// In block mode the code that empties the table; without it the first code that a string gets.
constexpr unsigned kClear = 256;
constexpr unsigned kCodesPerGroup = 8;  // the encoder writes codes in groups, padded when their width changes

// Reads codes, least significant bit first. A code may begin in one piece of the input and end in the next;
// that is what the bits taken beforehand are for.
class CodeReader {
 public:
  explicit CodeReader(InputWindow& input) : m_input(input) {}

  // False at the end of the data, and when reading failed (see failed()).
  bool next(unsigned width, unsigned& code) {
    if (m_state.bitCount < width && !refill(width)) return false;
    code = static_cast<unsigned>(m_state.bits) & ((1u << width) - 1);
    m_state.bits >>= width;
    m_state.bitCount -= width;
    m_codesInGroup = (m_codesInGroup + 1) % kCodesPerGroup;
    return true;
  }

  // Passes over the rest of the group that the last code stands in. What stands there is the encoder's
  // padding.
  bool skipGroup(unsigned width) {
    unsigned ignored;
    while (m_codesInGroup != 0) {
      if (!next(width, ignored)) return false;
    }
    return true;
  }

  // A byte of the file's header, which no group of codes counts.
  bool nextByte(unsigned& byte) {
    const bool got = next(8, byte);
    m_codesInGroup = 0;
    return got;
  }

  // The source failed or the run is aborted; otherwise a code that cannot be read is the end of the data.
  bool failed() const { return m_failed; }

  // For a loop that keeps the reader's state in registers: the bytes at hand, and the bits taken from those
  // before. A fill needs eight bytes.
  struct State {
    const unsigned char* at = nullptr;
    const unsigned char* end = nullptr;
    uint64_t bits = 0;
    unsigned bitCount = 0;

    bool canFill() const { return end - at >= 8; }
    // Takes as many whole bytes as there is room for above the bits at hand, which are then 56 to 63. The
    // bits above those belong to a byte that is taken only next time; it brings the same bits again, so that
    // joining them does no harm.
    void fill() {
      bits |= load64(at) << bitCount;
      at += (63 - bitCount) / 8;
      bitCount |= 56;
    }
  };

  // Together these let a loop run on a copy: `goOnFrom` counts the codes that it took by the bits that have
  // gone, all of one width.
  State state() const { return m_state; }
  void goOnFrom(const State& state, unsigned width) {
    const auto bytes = static_cast<unsigned>(state.at - m_state.at);
    const unsigned codesRead = (bytes * 8 + m_state.bitCount - state.bitCount) / width;
    m_codesInGroup = (m_codesInGroup + codesRead) % kCodesPerGroup;
    m_state = state;
    m_state.bits &= (uint64_t{1} << state.bitCount) - 1;  // a fill leaves parts of bytes that were not taken
  }

 private:
  // Little-endian whatever the processor, because codes begin at the low bits of a byte. By memcpy, because
  // the bytes may begin at any address.
  static uint64_t load64(const unsigned char* at) {
    uint64_t bytes;
    std::memcpy(&bytes, at, sizeof bytes);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    bytes = __builtin_bswap64(bytes);
#endif
    return bytes;
  }

  // Near a piece's end: byte by byte.
  bool refill(unsigned width) {
    while (m_state.bitCount < width) {
      if (m_state.at == m_state.end && !nextPiece()) return false;
      m_state.bits |= static_cast<uint64_t>(*m_state.at++) << m_state.bitCount;
      m_state.bitCount += 8;
    }
    return true;
  }

  bool nextPiece() {
    const char* bytes = nullptr;
    unsigned n = 0;
    m_failed = !m_input.next(bytes, n);
    m_state.at = reinterpret_cast<const unsigned char*>(bytes);
    m_state.end = m_state.at + (m_failed ? 0 : n);
    return m_state.at != m_state.end;
  }

  InputWindow& m_input;
  State m_state;
  unsigned m_codesInGroup = 0;
  bool m_failed = false;
};

// A string that a code stands for: where it was last produced, and how to make it again once that has left
// the window. Eight bytes, so that an entry is one load: the last byte of the string, which is seldom wanted,
// has an array of its own.
struct TableEntry {
  uint32_t position;
  uint16_t length;
  uint16_t prefix;  // the code of all but the last byte
};

// About 600 KiB, and so on the heap. Codes below kClear are bytes and have no entry.
class LzwDecoder {
 public:
  LzwDecoder(CodeReader& codes, LzwOutputWindow& window, unsigned maxBits, bool blockMode, const Io& io)
      : m_codes(codes), m_window(window), m_maxBits(maxBits), m_blockMode(blockMode), m_io(io) {}

  // Every code is checked against the table before it is looked up, so that no data make the decoder read an
  // entry that was not made. The first code stands for itself alone; behind it each enters a string.
  bool run() {
    m_free = m_blockMode ? kClear + 1 : kClear;
    setFirstWidth();
    unsigned code;
    if (!m_codes.next(m_width, code)) return endOfCodes();
    if (code >= kClear) return fail("The compressed data start with a code that cannot be first.");
    if (!produce(code)) return false;
    while (true) {
      // Full, and of its final width: nothing is entered any more until a clear.
      const bool isFull = m_free == 1u << m_maxBits && m_free <= m_largestCode;
      isFull ? decodePlainCodes<true>() : decodePlainCodes<false>();
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
  // As many codes as come without anything special: while eight bytes of input and room for the string are at
  // hand, the width stays, and the code's string stands in the window. What a register can hold is not kept
  // in memory, for a byte written to the window might be any of it; so a full table has a loop of its own.
  // Whatever it does not know how to do it leaves untouched for the loop around it.
  template <bool kFull>
  void decodePlainCodes() {
    CodeReader::State in = m_codes.state();
    const unsigned width = m_width, mask = (1u << width) - 1;
    const unsigned freeEnd = std::min(m_largestCode + 1, 1u << m_maxBits);
    const uint32_t base = m_window.position() - m_window.used();
    char* const bytes = m_window.end() - m_window.used();
    unsigned used = m_window.used(), free = m_free;
    unsigned previousCode = m_previousCode, previousLength = m_previousLength;
    while (kFull || free < freeEnd) {
      if (in.bitCount < width) {
        if (!in.canFill()) break;
        in.fill();
      }
      const unsigned code = static_cast<unsigned>(in.bits) & mask;
      char* const to = bytes + used;
      unsigned length = 1;
      if (code < kClear) {
        if (!LzwOutputWindow::fits(used, 1)) break;
        *to = static_cast<char>(code);
      } else {
        if (code >= free || (code == kClear && m_blockMode)) break;
        TableEntry& entry = m_table[code];
        const uint32_t offset = entry.position - base;
        length = entry.length;
        if (offset >= used || !LzwOutputWindow::fits(used, length)) break;
        LzwOutputWindow::copy(bytes + offset, length, to);
        entry.position = base + used;
      }
      if (!kFull) {
        m_table[free] = {base + used - previousLength, static_cast<uint16_t>(previousLength + 1),
                         static_cast<uint16_t>(previousCode)};
        m_suffix[free] = *to;
        ++free;
      }
      previousCode = code;
      previousLength = length;
      used += length;
      in.bits >>= width;
      in.bitCount -= width;
    }
    m_codes.goOnFrom(in, width);
    m_free = free;
    m_previousCode = previousCode;
    m_previousLength = previousLength;
    m_window.advance(used - m_window.used());
  }

  // The largest code that the first width can hold; one more and the width grows.
  void setFirstWidth() {
    m_width = kFirstWidth;
    m_largestCode = (1u << kFirstWidth) - 1;
  }

  // With a maximum of 9 bits the width still grows to 10 once the table is full, as in every decoder of
  // this format. The limit of the last width is one that a full table does not pass, so that no other
  // follows it.
  bool widen() {
    if (!m_codes.skipGroup(m_width)) return false;
    ++m_width;
    m_largestCode = m_width == m_maxBits ? 1u << m_maxBits : (1u << m_width) - 1;
    return true;
  }

  // Data that end anywhere are simply over, unless the source failed or the output refuses the rest.
  // What was decoded is written in either case.
  bool endOfCodes() {
    const bool isFlushed = m_window.flush();
    return isFlushed && !m_codes.failed();
  }

  bool fail(const char* message) {
    m_window.flush();
    return m_io.fail(message);
  }

  // Enters "the previous string and the byte behind it", which stand in the output side by side. A full table
  // stays as it is: the encoder stopped there too.
  void enterPrevious(char nextByte) {
    if (m_free >= 1u << m_maxBits) return;
    m_table[m_free] = {previousAt(), static_cast<uint16_t>(m_previousLength + 1),
                       static_cast<uint16_t>(m_previousCode)};
    m_suffix[m_free] = nextByte;
    ++m_free;
  }

  // The output ends with the previous string.
  uint32_t previousAt() const { return m_window.position() - m_previousLength; }

  // The string has been put at the window's end, and is now part of it.
  void becomePrevious(unsigned code, unsigned length) {
    m_previousCode = code;
    m_previousLength = length;
    m_window.advance(length);
  }

  // Here, where the window moves, and not with every string.
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

  // Puts the string of a code that is in the table (or is a byte) at the end of the output, and enters the
  // previous one with its first byte.
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
    becomePrevious(code, length);
    return true;
  }

  // The code that is about to be entered: the previous string and its own first byte again. Its room is asked
  // for before the copy, for making room moves the previous string.
  bool produceUnfinished() {
    const unsigned length = m_previousLength + 1;
    if (!makeRoom(length)) return false;
    m_window.appendFrom(previousAt(), m_previousLength);
    const char first = *m_window.end();
    m_window.end()[m_previousLength] = first;
    const unsigned code = m_free;
    enterPrevious(first);
    becomePrevious(code, length);
    return true;
  }

  // From the table's chain, last byte first, down to a beginning of the string that still stands in the
  // window. All that is passed begins here, too. The chain ends in a byte at the latest: each code's prefix
  // was entered before it. It costs as many steps as the string has bytes, and seldom that, because every
  // string that is passed is then at hand again.
  void spell(unsigned code, unsigned length) {
    char* const to = m_window.end();
    const uint32_t here = m_window.position();
    for (; code >= kClear; code = m_table[code].prefix) {
      TableEntry& entry = m_table[code];
      const uint32_t position = entry.position;
      entry.position = here;
      if (m_window.holds(position)) {
        std::memcpy(to, m_window.at(position), length);
        return;
      }
      to[--length] = m_suffix[code];
    }
    *to = static_cast<char>(code);
  }

  CodeReader& m_codes;
  LzwOutputWindow& m_window;
  const unsigned m_maxBits;
  const bool m_blockMode;
  const Io& m_io;
  unsigned m_width = kFirstWidth;
  unsigned m_largestCode = 0;
  unsigned m_free = 0;  // the next code to enter
  unsigned m_previousCode = 0, m_previousLength = 0;
  // The position at which old positions were last made harmless.
  uint32_t m_sweptAt = 0;
  TableEntry m_table[1u << kLargestWidth];
  char m_suffix[1u << kLargestWidth];
};

}  // namespace

// The header is read by the same reader as the codes. What it states decides nothing but the width and the
// mode: the memory is the same for all files.
bool MorvaneLzw::decompressLzwSource64(_mvDataSource& source, _mvOutput& out, bool, _mvIoParams& params,
                                       LogBase& log) {
  const Io io(log, params.monitor());
  InputWindow input(source, io);
  CodeReader codes(input);
  unsigned magic1 = 0, magic2 = 0, flags = 0;
  const bool complete = codes.nextByte(magic1) && codes.nextByte(magic2) && codes.nextByte(flags);
  if (codes.failed()) return false;
  if (!complete || magic1 != kMagic1 || magic2 != kMagic2)
    return io.fail("The data are not in compress format.");
  const unsigned maxBits = flags & kMaxBitsMask;
  if (maxBits < kFirstWidth || maxBits > kLargestWidth) {
    log.LogDataLong("maxBits", static_cast<long>(maxBits));
    return io.fail("The compressed data need a code width that is not supported.");
  }
  const std::unique_ptr<LzwOutputWindow> window(new (std::nothrow) LzwOutputWindow(out, io));
  if (!window) return io.fail("Out of memory for LZW decompression.");
  const std::unique_ptr<LzwDecoder> decoder(
      new (std::nothrow) LzwDecoder(codes, *window, maxBits, (flags & kBlockModeFlag) != 0, io));
  if (!decoder) return io.fail("Out of memory for LZW decompression.");
  return decoder->run();
}

}  // namespace morvane
