// The header and the trailer around the deflate data of a gzip member (RFC 1952, section 2.3).
//
// What is written never changes: no name, no time and the same hints, so that the same archive gives the same
// bytes wherever and whenever it is compressed. What is read may have every optional field, none of which
// says anything that matters to a tar archive; they are passed over.
#include "runtime/codec/GzipFormat.h"

#include <new>

#include "runtime/base/ByteArrayOwner.h"
#include "runtime/io/Io.h"
#include "runtime/io/_mvDataSource.h"
#include "runtime/io/_mvOutput.h"

namespace morvane {

namespace {

constexpr unsigned char kId1 = 0x1F, kId2 = 0x8B, kDeflate = 8;
constexpr unsigned char kHeaderCrc = 0x02, kExtra = 0x04, kName = 0x08, kComment = 0x10;  // bits of FLG
// XFL is a hint at the compressor's level that inflaters ignore; it is the same for every level.
constexpr unsigned char kXfl = 2, kUnix = 3;
constexpr unsigned kHeaderSize = 10;
constexpr unsigned kFlagsAt = 3;

// Reads a header piece by piece and says which of them could not be had.
struct HeaderReader {
  _mvDataSource& source;
  const Io& io;

  // False for fewer bytes, too: a header that is cut and one that cannot be read get the same line behind the
  // source's own.
  bool readExactly(unsigned char* bytes, unsigned n) const {
    unsigned numRead = 0;
    return source.readFully(reinterpret_cast<char*>(bytes), n, numRead, io.monitor, io.log) && numRead == n;
  }

  // The length has 16 bits, so that a hostile one takes 64 KiB at most.
  bool skipExtraField() const {
    unsigned char length[2];
    if (!readExactly(length, sizeof length)) return io.fail("Failed to get extra length");
    const unsigned n = length[0] | unsigned{length[1]} << 8;
    const ByteArrayOwner bytes(mvNewChar(n));
    if (!bytes.get()) throw std::bad_alloc();
    return readExactly(reinterpret_cast<unsigned char*>(bytes.get()), n) ||
           io.fail("Failed to get extra data");
  }

  // Text up to and including a zero byte. Byte by byte, because nothing may be taken that lies behind the
  // zero byte and not every source takes bytes back. A text without an end lasts as long as the data do and
  // takes no memory.
  bool skipText(const char* messageOnFailure) const {
    unsigned char byte = 1;
    while (byte != 0) {
      if (!readExactly(&byte, 1)) return io.fail(messageOnFailure);
    }
    return true;
  }
};

}  // namespace

bool writeGzipHeader(_mvOutput& out, const Io& io) {
  constexpr unsigned char kHeader[kHeaderSize] = {kId1, kId2, kDeflate, 0, 0, 0, 0, 0, kXfl, kUnix};
  return out.writeBytesPM(reinterpret_cast<const char*>(kHeader), kHeaderSize, io.monitor, io.log);
}

// No monitor is asked: eight bytes are no place to abort, and the archive is whole with them.
bool writeGzipTrailer(_mvOutput& out, unsigned crc32, unsigned size, const Io& io) {
  return out.writeLittleEndianUInt32PM(crc32, nullptr, io.log) &&
         out.writeLittleEndianUInt32PM(size, nullptr, io.log);
}

// The optional fields stand in the order in which their bits are asked for here. The checksum of the header
// is passed over and not compared; bits that the RFC reserves are not looked at.
bool readGzipHeader(_mvDataSource& source, const Io& io) {
  const HeaderReader reader{source, io};
  unsigned char header[kHeaderSize];
  if (!reader.readExactly(header, kHeaderSize)) return io.fail("Failed to get gzip signature");
  if (header[0] != kId1 || header[1] != kId2) return io.fail("Invalid GZip ID");
  if (header[2] != kDeflate) return io.fail("Invalid GZip compression method");
  const unsigned char flags = header[kFlagsAt];
  if (flags & kExtra && !reader.skipExtraField()) return false;
  if (flags & kName && !reader.skipText("Failed to get filename")) return false;
  if (flags & kComment && !reader.skipText("Failed to get comment")) return false;
  unsigned char crc[2];
  if (flags & kHeaderCrc && !reader.readExactly(crc, sizeof crc)) return io.fail("Failed to get CRC");
  io.log.LogInfo("GZip header OK.");
  return true;
}

}  // namespace morvane
