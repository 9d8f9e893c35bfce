// The codecs by themselves: deflate, bzip2, LZW.
#include "TestSupport.h"
#include "runtime/codec/MorvaneBzip2.h"
#include "runtime/codec/MorvaneDeflate.h"
#include "runtime/codec/MorvaneLzw.h"
#include "runtime/log/_mvLogger.h"

namespace morvane::testing {
namespace {

using Decoder = std::function<bool(_mvDataSource&, _mvOutput&, LogBase&)>;

const Decoder kInflate = [](_mvDataSource& source, _mvOutput& out, LogBase& log) {
  return MorvaneDeflate::inflateFromSourcePM(false, source, out, false, nullptr, log);
};
const Decoder kBunzip2 = [](_mvDataSource& source, _mvOutput& out, LogBase& log) {
  return MorvaneBzip2().DecompressStream(source, out, log, nullptr);
};
const Decoder kUncompress = [](_mvDataSource& source, _mvOutput& out, LogBase& log) {
  _mvIoParams io;
  return MorvaneLzw::decompressLzwSource64(source, out, true, io, log);
};

struct Decoded {
  bool ok = false;
  std::string bytes, log;
  bool operator==(const Decoded& other) const {
    return ok == other.ok && bytes == other.bytes && log == other.log;
  }
};

std::ostream& operator<<(std::ostream& out, const Decoded& decoded) {
  return out << decoded.ok << ", " << decoded.bytes.size() << " bytes, log: " << decoded.log;
}

constexpr unsigned kWhole = 1u << 30;

Decoded decode(const Decoder& decoder, const std::string& bytes, unsigned piece = kWhole,
               size_t limit = static_cast<size_t>(-1)) {
  TricklingSource source(bytes, piece);
  LimitedOutput out(limit);
  _mvLogger log;
  const bool ok = decoder(source, out, log);
  return {ok, std::move(out.bytes), log.text()};
}

// Fails, with what came out before, and with nothing but this line.
Decoded failure(const std::string& bytes, const std::string& line) { return {false, bytes, line + "\n"}; }
Decoded success(const std::string& bytes, const std::string& log = "") { return {true, bytes, log}; }

template <class Codec>
std::string compressed(const std::string& bytes, size_t piece = 20000) {
  Codec codec;
  _mvLogger log;
  DataBuffer in, out;
  EXPECT_TRUE(codec.BeginCompress(in, out, log, nullptr));
  for (size_t at = 0; at < bytes.size(); at += piece) {
    const std::string next = bytes.substr(at, piece);
    in.borrowData(reinterpret_cast<const unsigned char*>(next.data()), static_cast<unsigned>(next.size()));
    EXPECT_TRUE(codec.MoreCompress(in, out, log, nullptr));
  }
  EXPECT_TRUE(codec.EndCompress(out, log, nullptr));
  in.clear();
  EXPECT_FALSE(codec.MoreCompress(in, out, log, nullptr)) << "only Begin may follow End";
  return std::string(reinterpret_cast<const char*>(out.getData2()), out.getSize());
}

std::string text(size_t n, unsigned seed) {
  static const char* const kWords[] = {"tar ",    "archive ", "member ", "of ",
                                       "block\n", "the ",     "a ",      "zero "};
  std::mt19937 random(seed);
  std::string text;
  while (text.size() < n) text += kWords[random() % 8];
  return text.substr(0, n);
}

// ---- Deflate and bzip2

template <class Codec>
void expectRoundTrips(const Decoder& decoder) {
  for (const size_t n : {0u, 1u, 65535u, 65536u, 65537u, 2000003u}) {
    for (const std::string& bytes : {noise(n, 1), text(n, 2), std::string(n, 'z')}) {
      EXPECT_EQ(success(bytes), decode(decoder, compressed<Codec>(bytes), 4097)) << n;
    }
  }
  const std::string bytes = text(200000, 4) + noise(100000, 3);
  const std::string packed = compressed<Codec>(bytes, bytes.size());
  for (const size_t piece : {1u, 7u, 512u, 65535u, 65536u, 65537u, 131073u}) {
    EXPECT_TRUE(packed == compressed<Codec>(bytes, piece)) << "the pieces fed show, " << piece;
    EXPECT_EQ(success(bytes), decode(decoder, packed, static_cast<unsigned>(piece))) << piece;
  }
}

TEST(Deflate, RoundTrips) { expectRoundTrips<MorvaneDeflate>(kInflate); }
TEST(Bzip2, RoundTrips) { expectRoundTrips<MorvaneBzip2>(kBunzip2); }

// The last input may be taken while output is still to come, whatever the size of the inside buffers.
TEST(Deflate, OutputBehindTheLastInput) {
  for (size_t n = 131072 - 300; n < 131072 + 1100; ++n) {
    const std::string bytes(n, '\0');
    ASSERT_EQ(success(bytes), decode(kInflate, compressed<MorvaneDeflate>(bytes))) << n;
  }
}

TEST(Bzip2, ConsecutiveStreamsAndWhatFollows) {
  const std::string bytes = "first " + text(3000, 7), two = compressed<MorvaneBzip2>(text(3000, 7)),
                    one = compressed<MorvaneBzip2>("first "), empty = compressed<MorvaneBzip2>("");
  EXPECT_EQ("BZh9", one.substr(0, 4));
  for (const std::string& behind : {""s, "\0"s, "B"s, "BZh"s, "BZh0"s, "BZ0123456789"s, noise(70000, 8)}) {
    const std::string log = behind.empty() ? "" : "Bytes behind the bzip2 data are ignored.\n";
    for (const unsigned piece : {1u, 3u, 64u, kWhole}) {
      EXPECT_EQ(success(bytes, log), decode(kBunzip2, one + empty + two + behind, piece))
          << behind.size() << " in " << piece;
    }
  }
  for (size_t n = 4; n < two.size(); ++n) {
    EXPECT_FALSE(decode(kBunzip2, one + two.substr(0, n), 16).ok) << "it has shown its signature, " << n;
  }
  EXPECT_TRUE(has(decode(kInflate, "\x07").log, "The deflate data are damaged."));
  EXPECT_EQ(failure("", "There are no bzip2 data."), decode(kBunzip2, ""));
  EXPECT_EQ(failure("", "The data are no bzip2 data."), decode(kBunzip2, "BZh0"));
  EXPECT_EQ(failure("first ", "The bzip2 data are damaged."), decode(kBunzip2, one + "BZh9damage"));
}

// ---- LZW

// Writes codes as a decoder of the format will expect them: wider once its table passes a width, the group of
// eight codes filled up when the width changes.
class CodeWriter {
 public:
  CodeWriter(unsigned maxBits, bool blockMode) : m_maxBits(maxBits), m_free(blockMode ? 257 : 256) {
    bytes = {'\x1F', '\x9D', static_cast<char>(maxBits | (blockMode ? 0x80 : 0))};
  }

  void put(unsigned code) {
    if (m_free > m_largest) {
      fillGroup();
      ++m_width;
      m_largest = m_width == m_maxBits ? 1u << m_maxBits : (1u << m_width) - 1;
    }
    putBits(code);
    if (m_any && m_free < 1u << m_maxBits) ++m_free;
    m_any = true;
  }
  void clear() {
    put(256);
    m_free = 256;
    fillGroup();
    m_width = 9;
    m_largest = 511;
  }
  unsigned free() const { return m_free; }

  std::string bytes;

 private:
  void putBits(unsigned code) {
    for (unsigned bit = 0; bit < m_width; ++bit, ++m_bits) {
      if (m_bits % 8 == 0) bytes.push_back('\0');
      if (code >> bit & 1) bytes.back() = static_cast<char>(bytes.back() | 1 << m_bits % 8);
    }
    m_codesInGroup = (m_codesInGroup + 1) % 8;
  }
  void fillGroup() {
    while (m_codesInGroup != 0) putBits(0);
  }

  const unsigned m_maxBits;
  unsigned m_free;
  unsigned m_width = 9, m_largest = 511, m_bits = 0, m_codesInGroup = 0;
  bool m_any = false;
};

// Every byte as a code of its own, the table cleared before the positions that are multiples of `clearEvery`.
std::string literals(const std::string& bytes, unsigned maxBits, bool blockMode, size_t clearEvery = kWhole) {
  CodeWriter writer(maxBits, blockMode);
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i > 0 && i % clearEvery == 0) writer.clear();
    writer.put(static_cast<unsigned char>(bytes[i]));
  }
  return writer.bytes;
}
std::string compress(const std::string& bytes, unsigned maxBits) {
  return run({"compress", "-cfb", std::to_string(maxBits)}, bytes).out;
}

// No pair of neighbours comes twice, so that every byte is a code and the table grows by one with each.
std::string noPairTwice(size_t n) {
  std::string bytes;
  for (unsigned step = 1; bytes.size() < n; step += 2) {  // odd steps go through all 256 values
    for (unsigned i = 0; i < 256; ++i) bytes.push_back(static_cast<char>(i * step));
    if (bytes.size() > 32000) break;
  }
  return bytes.substr(0, n);
}

// Every way to write codes, at every size at which the table grows past a width or is full.
TEST(Lzw, EveryWriterMaximumAndSize) {
  // Strings that are asked for again when the window has long moved on, noise, long runs, and text.
  const std::string old = noise(15000, 3), pairs = noPairTwice(33000),
                    mixed = old + std::string(260000, 'z') + old + text(40000, 4) + old + noise(300000, 5);
  for (unsigned bits = 9; bits <= 16; ++bits) {
    const auto check = [bits](const std::string& bytes) {
      for (const bool blockMode : {true, false})
        ASSERT_EQ(success(bytes), decode(kUncompress, literals(bytes, bits, blockMode), 3)) << bits;
      // With 9 bits compress itself fails beyond a full table: neither it nor another tar reads what it
      // wrote.
      if (bits == 9 && bytes.size() > 257) return;
      ASSERT_EQ(success(bytes), decode(kUncompress, compress(bytes, bits))) << bits << ": " << bytes.size();
    };
    check(mixed);
    for (unsigned width = bits == 16 ? 9 : bits; width <= std::min(bits, 15u); ++width) {
      for (size_t n = (1u << width) - 257 - 9; n <= (1u << width) - 257 + 18; ++n) check(pairs.substr(0, n));
    }
    for (const size_t every : {1u, 2u, 3u, 7u, 8u, 9u, 255u, 256u, 5000u, 70000u}) {
      const std::string bytes = mixed.substr(0, 70 + 3 * every);
      ASSERT_EQ(success(bytes), decode(kUncompress, literals(bytes, bits, true, every))) << bits << every;
    }
  }
}

// What is cut fails, after a part of the bytes; but a .Z file does not tell where it should end.
TEST(Codecs, EveryCutAndEveryRefusal) {
  const std::string bytes = text(6000, 10);
  const struct {
    const Decoder& decoder;
    std::string packed, line;
    size_t signature;  // less of it is no data of this kind
  } kCodecs[] = {
      {kInflate, compressed<MorvaneDeflate>(bytes), "The deflate data end before the stream does.", 0},
      {kBunzip2, compressed<MorvaneBzip2>(bytes), "The bzip2 data end before the stream does.", 4},
      {kUncompress, compress(bytes, 16), "", 3},
      {kUncompress, literals(bytes, 16, true, 500), "", 3}};
  for (const auto& [decoder, packed, line, signature] : kCodecs) {
    std::string before;
    for (size_t n = 0; n < packed.size(); ++n) {
      const Decoded cut = decode(decoder, packed.substr(0, n), 64);
      ASSERT_TRUE(cut.bytes.find(before) == 0 && bytes.find(cut.bytes) == 0) << n;
      ASSERT_EQ(line.empty() && n >= signature, cut.ok) << n;
      ASSERT_TRUE(n < signature || cut.log == (line.empty() ? "" : line + "\n")) << n;
      before = cut.bytes;
    }
    for (size_t limit = 0; limit < bytes.size(); ++limit) {
      ASSERT_FALSE(decode(decoder, packed, 100, limit).ok) << limit;
    }
  }
}

TEST(Lzw, WhatCannotBe) {
  for (unsigned bits = 0; bits < 32; ++bits) {
    const std::string line =
        "maxBits: " + std::to_string(bits) + "\nThe compressed data need a code width that is not supported.";
    EXPECT_EQ(bits >= 9 && bits <= 16 ? success("") : failure("", line),
              decode(kUncompress, {'\x1F', '\x9D', static_cast<char>(bits | 0x80)}));
  }
  EXPECT_EQ(failure("", "The data are not in compress format."), decode(kUncompress, "\x1F\x8B\x90"));
  constexpr unsigned kClear = 1000;
  const std::string notYet = "The compressed data hold a code that is not in the table yet.",
                    notFirst = "The compressed data start with a code that cannot be first.";
  const struct {
    std::vector<unsigned> codes;
    bool blockMode;
    Decoded expected;
  } kCases[] = {{{256}, true, failure("", notFirst)},
                {{256}, false, failure("", notFirst)},
                {{511}, false, failure("", notFirst)},
                {{'a', 257}, true, success("aaa")},
                {{'a', 256}, false, success("aaa")},
                {{'a', 258}, true, failure("a", notYet)},
                {{'a', 257}, false, failure("a", notYet)},
                // Nothing of the old table is left behind a clear.
                {{'a', 'b', 'c', kClear, 257}, true, failure("abc", notYet)}};
  for (const auto& each : kCases) {
    CodeWriter writer(12, each.blockMode);
    for (const unsigned code : each.codes) code == kClear ? writer.clear() : writer.put(code);
    EXPECT_EQ(each.expected, decode(kUncompress, writer.bytes, 1)) << each.codes.back();
  }
}

// Positions of strings count modulo 2^32 inside; one that comes round again must not be taken for another.
TEST(Lzw, OutputOverFourGiB) {
  struct Tail : _mvOutput {
    bool _writeBytes(const char* data, unsigned n, _mvIoParams&, LogBase&) override {
      size += n;
      last.append(data, n);
      if (last.size() > 400000) last.erase(0, last.size() - 40000);
      return true;
    }
    unsigned long long size = 0;
    std::string last;
  } tail;
  // A few strings at the output's start, a run of 4 GiB, and the strings again where positions begin anew.
  const std::string start = noPairTwice(20000);
  CodeWriter writer(16, true);
  for (const char byte : start) writer.put(static_cast<unsigned char>(byte));
  unsigned long long size = start.size();
  constexpr unsigned long long kTarget = (1ULL << 32) + 30000;
  writer.put('z');
  ++size;
  for (unsigned length = 1; size + length < kTarget; size += length) {
    if (writer.free() <= 65535) ++length;
    writer.put(std::min(writer.free(), 65535u));
  }
  std::string expected;
  for (unsigned i = 0; i + 1 < 10000; i += 2) {
    writer.put(257 + i);
    expected += start.substr(i, 2);
  }
  TricklingSource source(writer.bytes, kWhole);
  _mvLogger log;
  ASSERT_TRUE(kUncompress(source, tail, log)) << log.text();
  ASSERT_GT(tail.size, 1ULL << 32);
  EXPECT_EQ(expected, tail.last.substr(tail.last.size() - expected.size()));
}

}  // namespace
}  // namespace morvane::testing
