// What follows the deflate data of a gzip member: its trailer, padding, and further members.
//
// By default none of it is looked at, because programs rely on reading archives whose end is missing or has
// something else behind it. VerifyGzip and GzipAllMembers each ask for a part of what RFC 1952 says.
#include "runtime/codec/GzipMembers.h"

#include "runtime/codec/GzipFormat.h"
#include "runtime/codec/MorvaneDeflate.h"
#include "runtime/codec/ZipCRC.h"
#include "runtime/io/Io.h"
#include "runtime/io/_mvDataSource.h"
#include "runtime/io/_mvOutput.h"

namespace morvane {

namespace {

// Passes bytes on and keeps what the trailer states about them. A write that fails is counted all the same:
// the run is over then, and nobody asks.
class CheckedOutput : public _mvOutput {
 public:
  explicit CheckedOutput(_mvOutput& out) : m_out(out) { m_crc.beginStream(); }

  bool _writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) override {
    m_crc.moreData(reinterpret_cast<const unsigned char*>(bytes), n);
    m_size += n;  // modulo 2^32, as the trailer counts
    return m_out._writeBytes(bytes, n, io, log);
  }
  unsigned crc() const { return m_crc.endStream(); }
  unsigned size() const { return m_size; }

 private:
  _mvOutput& m_out;
  ZipCRC m_crc;
  unsigned m_size = 0;
};

// RFC 1952, 2.1: the least significant byte comes first.
unsigned littleEndian(const unsigned char* bytes) {
  return bytes[0] | unsigned{bytes[1]} << 8 | unsigned{bytes[2]} << 16 | unsigned{bytes[3]} << 24;
}

// CRC-32 and size of what was inflated, four bytes each. A trailer that is cut is a failure also where it is
// not compared: the next member begins behind it.
bool checkTrailer(_mvDataSource& source, const CheckedOutput& checked, bool verify, const Io& io) {
  unsigned char trailer[8];
  unsigned numRead = 0;
  if (!source.readFully(reinterpret_cast<char*>(trailer), sizeof trailer, numRead, io.monitor, io.log))
    return false;
  if (numRead < sizeof trailer) return io.fail("The gzip trailer is cut.");
  if (verify && littleEndian(trailer) != checked.crc()) return io.fail("The gzip checksum is wrong.");
  if (verify && littleEndian(trailer + 4) != checked.size()) return io.fail("The gzip size is wrong.");
  return true;
}

// Stands on the next member's header, or at the end; zero bytes behind the last member are padding. Tapes and
// some devices fill a file up with zeros, which gzip itself accepts at the end, but not between two members;
// so whatever stands behind padding is refused. What follows a trailer at once is taken for a header, and
// called none by whoever reads it. A piece is given back whole, because one that begins with a zero never
// gets that far.
bool findNextMember(_mvDataSource& source, bool& found, const Io& io) {
  found = false;
  bool padding = false;
  while (true) {
    const char* bytes = nullptr;
    unsigned n = 0;
    if (!source.lend(4096, bytes, n, io.monitor, io.log)) return false;
    if (n == 0) return true;
    unsigned zeros = 0;
    while (zeros < n && bytes[zeros] == '\0') ++zeros;
    padding = padding || zeros > 0;
    if (zeros == n) continue;
    if (padding) return io.fail("There are bytes behind the gzip data.");
    source.takeBack(n);
    found = true;
    return true;
  }
}

}  // namespace

// The checksum costs a pass over all data: without a word the bytes go straight to the output. With
// GzipAllMembers alone it is computed and not compared.
bool inflateGzipMembers(_mvDataSource& source, _mvOutput& out, const CodecOptions& options, const Io& io) {
  if (!options.verifyGzip && !options.gzipAllMembers) {
    return MorvaneDeflate::inflateFromSourcePM(false, source, out, false, io.monitor, io.log);
  }
  bool another = true;
  while (another) {
    // Anew for each member, because each has a trailer of its own.
    CheckedOutput checked(out);
    if (!MorvaneDeflate::inflateFromSourcePM(false, source, checked, false, io.monitor, io.log)) return false;
    if (!checkTrailer(source, checked, options.verifyGzip, io)) return false;
    if (!options.gzipAllMembers) return true;
    if (!findNextMember(source, another, io)) return false;
    if (another && !readGzipHeader(source, io)) return false;
  }
  return true;
}

}  // namespace morvane
