#include "runtime/codec/Codec.h"

#include <cstring>

#include "runtime/buffer/DataBuffer.h"
#include "runtime/codec/GzipFormat.h"
#include "runtime/codec/GzipMembers.h"
#include "runtime/codec/MorvaneBzip2.h"
#include "runtime/codec/MorvaneDeflate.h"
#include "runtime/codec/MorvaneLzw.h"
#include "runtime/codec/ZipCRC.h"
#include "runtime/io/_mvOutput.h"

namespace morvane {

namespace {

bool startsWith(const unsigned char* bytes, unsigned n, const char* signature, unsigned length) {
  return n >= length && std::memcmp(bytes, signature, length) == 0;
}

// The two libraries share a protocol: the first piece begins the stream.
template <class Compressor>
class BlockEncoder : public Encoder {
 public:
  bool add(const unsigned char* bytes, unsigned n, DataBuffer& ready, ProgressMonitor* pm,
           LogBase& log) override {
    DataBuffer piece;
    piece.borrowData(bytes, n);
    const bool begun = m_begun;
    m_begun = true;
    return begun ? m_compressor.MoreCompress(piece, ready, log, pm)
                 : m_compressor.BeginCompress(piece, ready, log, pm);
  }
  bool finish(DataBuffer& ready, ProgressMonitor* pm, LogBase& log) override {
    return m_compressor.EndCompress(ready, log, pm);
  }

 protected:
  Compressor m_compressor;

 private:
  bool m_begun = false;
};

// One member (RFC 1952) whose size and checksum become known at its end.
class GzipEncoder : public BlockEncoder<MorvaneDeflate> {
 public:
  explicit GzipEncoder(int fastLevel) {
    m_compressor.setFast(fastLevel);
    m_crc.beginStream();
  }
  bool begin(_mvOutput& out, ProgressMonitor* pm, LogBase& log) override {
    return writeGzipHeader(out, pm, log);
  }
  bool add(const unsigned char* bytes, unsigned n, DataBuffer& ready, ProgressMonitor* pm,
           LogBase& log) override {
    m_crc.moreData(bytes, n);
    return BlockEncoder::add(bytes, n, ready, pm, log);
  }
  bool end(_mvOutput& out, long long size, LogBase& log) override {
    // The trailer holds the size modulo 2^32.
    return writeGzipTrailer(out, m_crc.endStream(), static_cast<unsigned>(size & 0xFFFFFFFF), log);
  }

 private:
  ZipCRC m_crc;
};

bool isGzip(const unsigned char* bytes, unsigned n) { return startsWith(bytes, n, "\x1F\x8B", 2); }

bool isCompress(const unsigned char* bytes, unsigned n) { return startsWith(bytes, n, "\x1F\x9D", 2); }

bool isBzip2(const unsigned char* bytes, unsigned n) {
  constexpr unsigned kMagicAt = 4, kMagicSize = 6;
  if (!startsWith(bytes, n, "BZh", 3) || n < kMagicAt + kMagicSize) return false;
  const unsigned char* const magic = bytes + kMagicAt;
  const bool block = std::memcmp(magic, "\x31\x41\x59\x26\x53\x59", kMagicSize) == 0;
  const bool emptyStream = std::memcmp(magic, "\x17\x72\x45\x38\x50\x90", kMagicSize) == 0;
  return bytes[3] >= '1' && bytes[3] <= '9' && (block || emptyStream);
}

std::unique_ptr<Encoder> makeGzip(const CodecOptions& options) {
  return std::make_unique<GzipEncoder>(options.fastDeflate);
}

std::unique_ptr<Encoder> makeBzip2(const CodecOptions&) {
  return std::make_unique<BlockEncoder<MorvaneBzip2>>();
}

bool decodeGzip(_mvDataSource& source, _mvOutput& out, const CodecOptions& options, ProgressMonitor* pm,
                LogBase& log) {
  return readGzipHeader(source, pm, log) && inflateGzipMembers(source, out, options, pm, log);
}

bool decodeBzip2(_mvDataSource& source, _mvOutput& out, const CodecOptions&, ProgressMonitor* pm,
                 LogBase& log) {
  return MorvaneBzip2().DecompressStream(source, out, log, pm);
}

bool decodeCompress(_mvDataSource& source, _mvOutput& out, const CodecOptions&, ProgressMonitor* pm,
                    LogBase& log) {
  _mvIoParams io(pm);
  return MorvaneLzw::decompressLzwSource64(source, out, true, io, log);
}

constexpr Codec kCodecs[] = {
    {Compression::Gzip, "gzip", ".tar.gz .tgz", isGzip, makeGzip, decodeGzip},
    {Compression::Bzip2, "bzip2", ".tar.bz2 .tbz .tbz2", isBzip2, makeBzip2, decodeBzip2},
    {Compression::Compress, "compress", ".tar.Z", isCompress, nullptr, decodeCompress},
};

bool endsInOneOf(std::string_view path, std::string_view suffixes) {
  while (!suffixes.empty()) {
    const std::string_view suffix = suffixes.substr(0, suffixes.find(' '));
    if (path.size() >= suffix.size() && path.substr(path.size() - suffix.size()) == suffix) return true;
    suffixes.remove_prefix(suffix.size() + (suffix.size() < suffixes.size()));
  }
  return false;
}

}  // namespace

Encoder::~Encoder() = default;
bool Encoder::begin(_mvOutput&, ProgressMonitor*, LogBase&) { return true; }
bool Encoder::end(_mvOutput&, long long, LogBase&) { return true; }

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

std::optional<Compression> compressionByContent(const unsigned char* bytes, unsigned n) {
  for (const Codec& codec : kCodecs) {
    if (codec.hasMagic(bytes, n)) return codec.compression;
  }
  return std::nullopt;
}

std::optional<Compression> compressionBySuffix(std::string_view path) {
  for (const Codec& codec : kCodecs) {
    if (endsInOneOf(path, codec.suffixes)) return codec.compression;
  }
  return std::nullopt;
}

}  // namespace morvane
