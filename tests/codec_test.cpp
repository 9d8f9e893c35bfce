// The codecs by themselves: deflate, bzip2, LZW, CRC-32.
#include <zlib.h>

#include <functional>
#include <optional>
#include <random>
#include <unordered_map>

#include "TestSupport.h"
#include "runtime/codec/MorvaneBzip2.h"
#include "runtime/codec/MorvaneDeflate.h"
#include "runtime/codec/MorvaneLzw.h"
#include "runtime/codec/ZipCRC.h"
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

Decoded decode(const Decoder& decoder, const std::string& bytes, unsigned piece = kWhole) {
  TricklingSource source(bytes, piece);
  LimitedOutput out;
  _mvLogger log;
  Decoded decoded;
  decoded.ok = decoder(source, out, log);
  decoded.bytes = std::move(out.bytes);
  decoded.log = log.text();
  return decoded;
}

// Fails, with what came out before, and with nothing but this line.
Decoded failure(const std::string& bytes, const std::string& line) { return {false, bytes, line + "\n"}; }
Decoded success(const std::string& bytes, const std::string& log = "") { return {true, bytes, log}; }

// An output that fails after k bytes fails the decoder, for every k.
void expectRefusalsShow(const Decoder& decoder, const std::string& compressed, size_t size) {
  for (size_t limit = 0; limit < size; ++limit) {
    TricklingSource source(compressed, 100);
    LimitedOutput out(limit);
    _mvLogger log;
    EXPECT_FALSE(decoder(source, out, log)) << limit;
  }
}

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
  for (const size_t n : {0u, 1u, 511u, 65535u, 65536u, 65537u, 131072u, 1000000u, 2000003u}) {
    for (const std::string& bytes :
         {noise(n, 1), text(n, 2), std::string(n, 'z'), noise(n / 2, 3) + text(n / 2, 4)}) {
      const std::string packed = compressed<Codec>(bytes);
      EXPECT_EQ(success(bytes), decode(decoder, packed)) << n;
      EXPECT_EQ(success(bytes), decode(decoder, packed, 4097)) << n;
    }
  }
  const std::string bytes = text(300000, 5);
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

TEST(Deflate, EveryCutFailsAndWhatFollowsIsLeft) {
  const std::string bytes = text(2000, 6);
  const std::string packed = compressed<MorvaneDeflate>(bytes);
  for (size_t n = 0; n < packed.size(); ++n) {
    const Decoded cut = decode(kInflate, packed.substr(0, n), 16);
    EXPECT_EQ(failure(bytes.substr(0, cut.bytes.size()), "The deflate data end before the stream does."), cut)
        << n;
  }
  expectRefusalsShow(kInflate, packed, bytes.size());
  const std::string followed = packed + "behind";
  _mvMemoryDataSource source;
  source.initializeMemSource(reinterpret_cast<const unsigned char*>(followed.data()),
                             static_cast<unsigned>(followed.size()));
  LimitedOutput out;
  _mvLogger log;
  EXPECT_TRUE(kInflate(source, out, log)) << log.text();
  EXPECT_EQ(bytes, out.bytes);
  EXPECT_EQ(static_cast<long long>(packed.size()), source.ftell64());
  EXPECT_NE(std::string::npos, decode(kInflate, "\x07").log.find("The deflate data are damaged."));
}

TEST(Bzip2, ConsecutiveStreamsAndWhatFollows) {
  const std::string one = compressed<MorvaneBzip2>("first "), empty = compressed<MorvaneBzip2>(""),
                    two = compressed<MorvaneBzip2>(text(3000, 7));
  const std::string packed = one + empty + two, bytes = "first " + text(3000, 7);
  const std::string ignored = "Bytes behind the bzip2 data are ignored.\n";
  EXPECT_EQ("BZh9", one.substr(0, 4));
  for (const std::string& behind :
       {std::string(), std::string(1, '\0'), std::string(5000, '\0'), std::string("B"), std::string("BZ"),
        std::string("BZh"), std::string("BZh0"), std::string("BZ0123456789"), noise(70000, 8)}) {
    const Decoded expected = success(bytes, behind.empty() ? "" : ignored);
    for (const unsigned piece : {1u, 3u, 64u, kWhole}) {
      EXPECT_EQ(expected, decode(kBunzip2, packed + behind, piece)) << behind.size() << " in " << piece;
    }
  }
  // A stream that has shown its signature must be whole.
  for (size_t n = 4; n < two.size(); ++n) {
    const Decoded cut = decode(kBunzip2, two.substr(0, n), 16);
    EXPECT_FALSE(cut.ok || decode(kBunzip2, one + two.substr(0, n), 16).ok) << n;
    EXPECT_EQ("The bzip2 data end before the stream does.\n", cut.log) << n;
  }
  EXPECT_EQ(failure("", "There are no bzip2 data."), decode(kBunzip2, ""));
  EXPECT_EQ(failure("", "The data are no bzip2 data."), decode(kBunzip2, "not bzip2"));
  EXPECT_EQ(failure("", "The data are no bzip2 data."), decode(kBunzip2, "BZh0"));
  EXPECT_EQ(failure("first ", "The bzip2 data are damaged."), decode(kBunzip2, one + "BZh9damage"));
  expectRefusalsShow(kBunzip2, packed, bytes.size());
}

TEST(ZipCRC, IsThatOfGzip) {
  ZipCRC crc;
  const std::string bytes = noise(1000, 9);
  const auto* const data = reinterpret_cast<const unsigned char*>(bytes.data());
  for (unsigned cut = 0; cut <= 1000; ++cut) {
    crc.beginStream();
    crc.moreData(data, cut);
    crc.moreData(data + cut, 1000 - cut);
    ASSERT_EQ(crc32(0, data, 1000), crc.endStream()) << cut;
  }
  crc.beginStream();
  EXPECT_EQ(0u, crc.endStream());
  crc.moreData(reinterpret_cast<const unsigned char*>("123456789"), 9);
  EXPECT_EQ(0xCBF43926u, crc.endStream());
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

// An encoder that clears its table before the bytes whose positions are multiples of `clearEvery` (0: never).
std::string lzw(const std::string& bytes, unsigned maxBits, bool blockMode, size_t clearEvery = 0) {
  CodeWriter writer(maxBits, blockMode);
  std::unordered_map<unsigned, unsigned> table;  // by the code of a string and the byte behind it
  const unsigned first = blockMode ? 257 : 256;
  unsigned free = first;
  std::optional<unsigned> current;
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (clearEvery && i % clearEvery == 0 && current) {
      writer.put(*current);
      writer.clear();
      table.clear();
      free = first;
      current.reset();
    }
    const auto byte = static_cast<unsigned char>(bytes[i]);
    const auto known = current ? table.find(*current << 8 | byte) : table.end();
    if (known != table.end()) {
      current = known->second;
      continue;
    }
    if (current) {
      writer.put(*current);
      if (free < 1u << maxBits) table[*current << 8 | byte] = free++;
    }
    current = byte;
  }
  if (current) writer.put(*current);
  return writer.bytes;
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

// What compress makes of the bytes, which it takes from a file.
std::string throughCompress(const ScratchDir& dir, const std::string& options, const std::string& bytes) {
  writeFile(dir / "in", bytes);
  return run({"sh", "-c", "exec compress -c " + options + " <in"}, "", dir.path()).out;
}

TEST(Lzw, WhatCompressWrites) {
  const ScratchDir dir;
  const auto check = [&dir](const std::string& bytes, unsigned bits) {
    const std::string packed = throughCompress(dir, "-f -b " + std::to_string(bits), bytes);
    ASSERT_GT(packed.size(), 2u);
    for (const unsigned piece : {7u, kWhole}) {
      ASSERT_EQ(success(bytes), decode(kUncompress, packed, piece)) << bits << ": " << bytes.size();
    }
  };
  const std::string pairs = noPairTwice(33000);
  for (unsigned bits = 10; bits <= 16; ++bits) {
    for (const std::string& bytes : {noise(300000, bits), text(700000, bits), std::string(3000000, 'z')}) {
      check(bytes, bits);
    }
    // The table is full, and the codes had their last width before, at these sizes.
    for (unsigned width = bits == 16 ? 9 : bits; width <= std::min(bits, 15u); ++width) {
      for (size_t n = (1u << width) - 257 - 9; n <= (1u << width) - 257 + 9; ++n) {
        check(pairs.substr(0, n), bits);
      }
    }
  }
  // With 9 bits compress itself fails beyond a full table: neither it nor another tar reads what it wrote.
  for (size_t n = 240; n <= 257; ++n) check(noise(n, 2), 9);
}

TEST(Lzw, EveryMaximumModeAndClear) {
  const std::string pairs = noPairTwice(33000);
  // Strings that are asked for again when the window has long moved on, noise, long runs, and text.
  const std::string old = noise(15000, 3),
                    mixed = old + std::string(260000, 'z') + old + text(40000, 4) + old;
  const ScratchDir dir;
  for (unsigned bits = 9; bits <= 16; ++bits) {
    for (const bool blockMode : {true, false}) {
      const std::string packed = lzw(mixed, bits, blockMode);
      ASSERT_EQ(success(mixed), decode(kUncompress, packed)) << bits << blockMode;
      EXPECT_TRUE(mixed == throughCompress(dir, "-d", packed)) << bits << blockMode;
      for (unsigned width = bits == 16 ? 9 : bits; width <= std::min(bits, 15u); ++width) {
        for (size_t n = (1u << width) - 257 - 9; n <= (1u << width) - 257 + 18; ++n) {
          const std::string bytes = pairs.substr(0, n);
          ASSERT_EQ(success(bytes), decode(kUncompress, lzw(bytes, bits, blockMode), 3)) << bits << " " << n;
        }
      }
    }
    for (const size_t every : {1u, 2u, 3u, 7u, 8u, 9u, 255u, 256u, 5000u, 70000u}) {
      if (bits % 3 != 0 && bits != 16) break;
      const std::string bytes = mixed.substr(0, every < 256 ? 5000 : mixed.size());
      const std::string packed = lzw(bytes, bits, true, every);
      ASSERT_EQ(success(bytes), decode(kUncompress, packed, 1000)) << bits << " cleared every " << every;
      EXPECT_TRUE(bytes == throughCompress(dir, "-d", packed)) << bits << " " << every;
    }
  }
}

TEST(Lzw, EveryCutIsTheEndOfTheData) {
  const std::string bytes = text(6000, 10);
  for (const size_t clearEvery : {0u, 500u}) {
    const std::string packed = lzw(bytes, 16, true, clearEvery);
    size_t before = 0;
    for (size_t n = 0; n < packed.size(); ++n) {
      const Decoded cut = decode(kUncompress, packed.substr(0, n), 64);
      if (n < 3) {
        EXPECT_EQ(failure("", "The data are not in compress format."), cut) << n;
        continue;
      }
      ASSERT_EQ(success(bytes.substr(0, cut.bytes.size())), cut) << n;
      ASSERT_LE(before, cut.bytes.size()) << n;
      before = cut.bytes.size();
    }
    EXPECT_LT(bytes.size() - before, 30u);
    expectRefusalsShow(kUncompress, packed, bytes.size());
  }
}

TEST(Lzw, WhatCannotBe) {
  const std::string unsupported = "The compressed data need a code width that is not supported.";
  for (unsigned bits = 0; bits < 32; ++bits) {
    const std::string header = {'\x1F', '\x9D', static_cast<char>(bits | 0x80)};
    const Decoded expected = bits >= 9 && bits <= 16
                                 ? success("")
                                 : failure("", "maxBits: " + std::to_string(bits) + "\n" + unsupported);
    EXPECT_EQ(expected, decode(kUncompress, header)) << bits;
  }
  EXPECT_EQ(failure("", "The data are not in compress format."), decode(kUncompress, "\x1F\x8B\x90"));
  EXPECT_EQ(failure("", "The data are not in compress format."), decode(kUncompress, "\x1E\x9D\x90"));
  const auto codes = [](const std::vector<unsigned>& list, bool blockMode) {
    CodeWriter writer(12, blockMode);
    for (const unsigned code : list) writer.put(code);
    return decode(kUncompress, writer.bytes, 1);
  };
  const std::string badFirst = "The compressed data start with a code that cannot be first.";
  const std::string notYet = "The compressed data hold a code that is not in the table yet.";
  for (const unsigned code : {256u, 257u, 300u, 511u}) {
    for (const bool mode : {true, false}) EXPECT_EQ(failure("", badFirst), codes({code}, mode)) << code;
  }
  EXPECT_EQ(success("aaa"), codes({'a', 257}, true));
  EXPECT_EQ(success("aaa"), codes({'a', 256}, false));
  EXPECT_EQ(failure("a", notYet), codes({'a', 258}, true));
  EXPECT_EQ(failure("a", notYet), codes({'a', 257}, false));
  EXPECT_EQ(failure("ab", notYet), codes({'a', 'b', 259}, true));
  CodeWriter cleared(12, true);  // nothing of the old table is left behind a clear
  for (const unsigned code : {97u, 98u, 99u}) cleared.put(code);
  cleared.clear();
  std::string before = cleared.bytes;
  cleared.put(257);
  EXPECT_EQ(failure("abc", notYet), decode(kUncompress, cleared.bytes));
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

TEST(Lzw, HostileStreams) {
  std::mt19937 random(11);
  const std::string packed = lzw(text(900, 12), 9, true, 300);
  for (size_t bit = 0; bit < packed.size() * 8; ++bit) {
    std::string flipped = packed;
    flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ 1 << bit % 8);
    const Decoded whole = decode(kUncompress, flipped);
    ASSERT_EQ(whole, decode(kUncompress, flipped, 1)) << bit;
    ASSERT_EQ(whole.ok, whole.log.empty()) << bit;
  }
  for (unsigned seed = 0; seed < 600; ++seed) {
    std::string bytes = {'\x1F', '\x9D', static_cast<char>(9 + seed % 8 + (seed % 16 < 8 ? 0x80 : 0)),
                         '\x41'};
    bytes += '\0' + noise(1 + random() % 3000, seed);
    ASSERT_EQ(decode(kUncompress, bytes), decode(kUncompress, bytes, 1 + seed % 5)) << seed;
  }
}

}  // namespace
}  // namespace morvane::testing
