// The table of compressions, and the adapters that bring each library into its shape. The libraries
// themselves are called in the files beside this one; here stands only how an archive is begun, fed and ended
// with each of them.
#include "runtime/codec/Codec.h"

#include <algorithm>
#include <cstring>

#include "runtime/base/Ascii.h"
#include "runtime/buffer/DataBuffer.h"
#include "runtime/codec/Bzip2Blocks.h"
#include "runtime/codec/Bzip2Foresight.h"
#include "runtime/codec/GzipBlocks.h"
#include "runtime/codec/GzipFormat.h"
#include "runtime/codec/GzipMembers.h"
#include "runtime/codec/MorvaneBzip2.h"
#include "runtime/codec/MorvaneDeflate.h"
#include "runtime/codec/MorvaneLzw.h"
#include "runtime/codec/XzCodec.h"
#include "runtime/codec/ZipCRC.h"
#include "runtime/codec/ZstdCodec.h"
#include "runtime/io/Io.h"
#include "runtime/io/_mvOutput.h"
#include "runtime/parallel/WorkerPool.h"

namespace morvane {

namespace {

// Whether n bytes begin with a signature, which may hold NULs: so its length is given.
bool startsWith(const unsigned char* bytes, unsigned n, const char* signature, unsigned length) {
  return n >= length && std::memcmp(bytes, signature, length) == 0;
}

// The two libraries share a protocol: the first piece begins the stream. The bytes are lent to the
// compressor, not copied: it takes them before it returns. A stream of no bytes at all never begins, and
// the caller's finish is then the library's failure; archives always have their end mark. For one thread.
template <class Compressor>
class BlockEncoder : public Encoder {
 public:
  bool add(const unsigned char* bytes, unsigned n, DataBuffer& ready, const Io& io) override {
    DataBuffer piece;
    piece.borrowData(bytes, n);
    const bool begun = m_begun;
    m_begun = true;
    return begun ? m_compressor.MoreCompress(piece, ready, io.log, io.monitor)
                 : m_compressor.BeginCompress(piece, ready, io.log, io.monitor);
  }
  bool finish(DataBuffer& ready, bool& isOut, const Io& io) override {
    isOut = true;
    return m_compressor.EndCompress(ready, io.log, io.monitor);
  }

 protected:
  Compressor m_compressor;

 private:
  bool m_begun = false;
};

// One member (RFC 1952) whose size and checksum become known at its end. The checksum is taken here and not
// by the library, because raw deflate has none and ISA-L's is faster where that was found. Header and
// trailer go straight to the output, between which the caller writes what became ready.
class GzipEncoder : public BlockEncoder<MorvaneDeflate> {
 public:
  explicit GzipEncoder(int fastLevel) {
    m_compressor.setFast(fastLevel);
    m_crc.beginStream();
  }
  bool begin(_mvOutput& out, const Io& io) override { return writeGzipHeader(out, io); }
  bool add(const unsigned char* bytes, unsigned n, DataBuffer& ready, const Io& io) override {
    m_crc.moreData(bytes, n);
    return BlockEncoder::add(bytes, n, ready, io);
  }
  bool end(_mvOutput& out, long long size, const Io& io) override {
    // The trailer holds the size modulo 2^32.
    return writeGzipTrailer(out, m_crc.endStream(), static_cast<unsigned>(size & 0xFFFFFFFF), io);
  }

 private:
  ZipCRC m_crc;
};

// RFC 1952, 2.3.1: ID1 and ID2. The method behind them is left to the decoder, which has a message of its
// own for it. So data that begin so are called gzip, and fail with a reason, rather than being taken for a
// damaged tar archive.
bool isGzip(const unsigned char* bytes, unsigned n) { return startsWith(bytes, n, "\x1F\x8B", 2); }

// The magic of Unix compress; the third byte is the code width, about which the decoder has a message too.
bool isCompress(const unsigned char* bytes, unsigned n) { return startsWith(bytes, n, "\x1F\x9D", 2); }

// "BZh" alone is also how a text may begin. So the level has to be a digit from 1 to 9, and behind it the
// 48-bit magic of a block or of the end of an empty stream has to stand: the digits of pi, and those of its
// square root. A mark of blocks stands at a byte here, because a stream's first block begins right behind
// its header.
bool isBzip2(const unsigned char* bytes, unsigned n) {
  constexpr unsigned kMagicAt = 4, kMagicSize = 6;
  if (!startsWith(bytes, n, "BZh", 3) || n < kMagicAt + kMagicSize) return false;
  const unsigned char* const magic = bytes + kMagicAt;
  const bool block = std::memcmp(magic, "\x31\x41\x59\x26\x53\x59", kMagicSize) == 0;
  const bool emptyStream = std::memcmp(magic, "\x17\x72\x45\x38\x50\x90", kMagicSize) == 0;
  return bytes[3] >= '1' && bytes[3] <= '9' && (block || emptyStream);
}

// A frame, or a skippable one, of which there are sixteen (RFC 8878, 3.1).
bool isZstd(const unsigned char* bytes, unsigned n) {
  if (startsWith(bytes, n, "\x28\xB5\x2F\xFD", 4)) return true;
  return n >= 4 && (bytes[0] & 0xF0) == 0x50 && std::memcmp(bytes + 1, "\x2A\x4D\x18", 3) == 0;
}

// The older .lzma has no signature: its usual properties, a dictionary of 2^n or 2^n + 2^(n-1) bytes, and a
// size that is unknown or less than 256 GiB, as liblzma itself looks at it. A tar archive whose first name
// begins with "]" has 0x5D there too; its next bytes are no such dictionary.
bool isLzma(const unsigned char* bytes, unsigned n) {
  constexpr unsigned kHeader = 13, kSizeAt = 5;
  if (n < kHeader || bytes[0] != 0x5D) return false;
  const unsigned dictionary =
      bytes[1] | unsigned{bytes[2]} << 8 | unsigned{bytes[3]} << 16 | unsigned{bytes[4]} << 24;
  // The lowest bit that is set: of a dictionary of either form the rest is none, or the next higher bit.
  const unsigned lowest = dictionary & (0 - dictionary);
  const unsigned rest = dictionary - lowest;
  if (dictionary < 4096 || (rest != 0 && rest != lowest << 1)) return false;
  const bool isUnknown =
      std::all_of(bytes + kSizeAt, bytes + kHeader, [](unsigned char b) { return b == 0xFF; });
  return isUnknown || (bytes[kHeader - 1] == 0 && bytes[kHeader - 2] == 0 && bytes[kHeader - 3] < 0x40);
}

// The signature is cut in two, because "\xFD7" would be read as one hexadecimal number. The older format is
// a part of this row, because liblzma tells the two apart by itself.
bool isXz(const unsigned char* bytes, unsigned n) {
  return startsWith(bytes, n,
                    "\xFD"
                    "7zXZ\0",
                    6) ||
         isLzma(bytes, n);
}

// Several threads are not tried and given up: their encoders work with whatever threads the pool can make,
// so that the bytes do not depend on what the system gives.
std::unique_ptr<Encoder> makeGzip(const CodecOptions& options) {
  if (workerCount(options.threads) > 0) return makeGzipBlockEncoder(options);
  return std::make_unique<GzipEncoder>(options.fastDeflate);
}

std::unique_ptr<Encoder> makeBzip2(const CodecOptions& options) {
  if (workerCount(options.threads) > 0) return makeBzip2BlockEncoder(options);
  return std::make_unique<BlockEncoder<MorvaneBzip2>>();
}

bool decodeBzip2(_mvDataSource& source, _mvOutput& out, const CodecOptions&, const Io& io) {
  return MorvaneBzip2().DecompressStream(source, out, io.log, io.monitor);
}

// The flag is without meaning, see MorvaneLzw.h.
bool decodeCompress(_mvDataSource& source, _mvOutput& out, const CodecOptions&, const Io& io) {
  _mvIoParams params(io.monitor);
  return MorvaneLzw::decompressLzwSource64(source, out, true, params, io.log);
}

// One row each. The signatures exclude one another, so that the order does not matter. A null encoder marks
// what is only read: old .Z archives are still met, new ones nobody asks for.
constexpr Codec kCodecs[] = {
    {Compression::Gzip, "gzip", ".gz .tgz .taz", isGzip, makeGzip, readGzipHeader, inflateGzipMembers,
     nullptr},
    {Compression::Bzip2, "bzip2", ".bz2 .tbz .tbz2 .tz2", isBzip2, makeBzip2, nullptr, decodeBzip2,
     expandBzip2Ahead},
    {Compression::Compress, "compress", ".Z .taZ", isCompress, nullptr, nullptr, decodeCompress, nullptr},
    {Compression::Zstd, "zstd", ".zst .tzst", isZstd, makeZstdEncoder, nullptr, decodeZstd, nullptr},
    {Compression::Xz, "xz", ".xz .txz", isXz, makeXzEncoder, nullptr, decodeXz, nullptr},
};

// What other programs write.
constexpr std::string_view kForeignSuffixes = ".zip .7z .rar .lz4 .lz .tlz .lzma .lzo .tzo";

// Whether the path ends in one of the suffixes, which blanks separate. Letters are ASCII's. The suffixes
// stand in one text, so that a row of the table remains a constant.
bool endsInOneOf(std::string_view path, std::string_view suffixes, bool caseCounts) {
  const auto isSame = [caseCounts](char a, char b) {
    return a == b || (!caseCounts && asciiLower(a) == asciiLower(b));
  };
  while (!suffixes.empty()) {
    const std::string_view suffix = suffixes.substr(0, suffixes.find(' '));
    if (path.size() >= suffix.size() &&
        std::equal(suffix.begin(), suffix.end(), path.end() - static_cast<std::ptrdiff_t>(suffix.size()),
                   isSame))
      return true;
    suffixes.remove_prefix(suffix.size() + (suffix.size() < suffixes.size()));
  }
  return false;
}

}  // namespace

Encoder::~Encoder() = default;
bool Encoder::isThere(const Io&) { return true; }
// Neither bzip2 nor a raw stream has anything in front of or behind the compressed data.
bool Encoder::begin(_mvOutput&, const Io&) { return true; }
bool Encoder::end(_mvOutput&, long long, const Io&) { return true; }

// Every value but None has a row, so the search needs no end; None is never asked for, because a plain
// archive has neither encoder nor decoder.
const Codec& codecOf(Compression compression) {
  const Codec* codec = kCodecs;
  while (codec->compression != compression) ++codec;
  return *codec;
}

const char* compressionName(Compression compression) {
  return compression == Compression::None ? "none" : codecOf(compression).name;
}

bool canBeWritten(Compression compression) {
  return compression == Compression::None || codecOf(compression).makeEncoder;
}

// Only signatures are asked. A plain tar archive is told by its first header block, which is the business of
// tar/format.
std::optional<Compression> compressionByContent(const unsigned char* bytes, unsigned n) {
  for (const Codec& codec : kCodecs) {
    if (codec.hasMagic(bytes, n)) return codec.compression;
  }
  return std::nullopt;
}

// As it stands first: ".taz" and ".taZ" promise two things.
std::optional<Compression> compressionBySuffix(std::string_view path) {
  for (const bool caseCounts : {true, false}) {
    for (const Codec& codec : kCodecs) {
      if (endsInOneOf(path, codec.suffixes, caseCounts)) return codec.compression;
    }
  }
  return std::nullopt;
}

// A name that promises nothing is a plain archive's, which can be written.
bool promisesUnwritable(std::string_view path) {
  return endsInOneOf(path, kForeignSuffixes, false) ||
         !canBeWritten(compressionBySuffix(path).value_or(Compression::None));
}

}  // namespace morvane
