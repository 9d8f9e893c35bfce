// Deflate looks back 32 KiB at most. So a block that is given those in front of it finds what one thread
// would find, and only the tables of its codes begin anew, which they do all the time.
#include "runtime/codec/GzipBlocks.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "runtime/codec/BlockwiseEncoder.h"
#include "runtime/codec/FastDeflate.h"
#include "runtime/codec/GzipFormat.h"
#include "runtime/codec/MorvaneDeflate.h"
#include "runtime/codec/ZipCRC.h"
#include "runtime/codec/ZlibRaw.h"

namespace morvane {

namespace {

// Some milliseconds of work: enough to be worth a thread, and little enough that a few megabytes of archive
// keep several busy. The dictionary is all that deflate can look back at (RFC 1951, section 2).
constexpr unsigned kBlock = 256 * 1024;
constexpr unsigned kDictionary = 32 * 1024;

// zlib's compressor, kept for the next block: to make one costs as much as 10 KiB compressed.
class ZlibBlocks {
 public:
  ZlibBlocks() = default;
  ~ZlibBlocks() {
    if (m_isBegun) deflateEnd(&m_stream);
  }
  ZlibBlocks(const ZlibBlocks&) = delete;
  ZlibBlocks& operator=(const ZlibBlocks&) = delete;

  // As FastDeflate::beginBehind. The level is the same each time. A reset fails for a stream that was never
  // begun alone, so its result is not looked at.
  bool beginBehind(int level, const unsigned char* before, unsigned n) {
    if (!m_isBegun) {
      m_stream = z_stream{};
      m_isBegun =
          deflateInit2(&m_stream, level, Z_DEFLATED, kRawDeflate, kDefaultMemory, Z_DEFAULT_STRATEGY) == Z_OK;
      if (!m_isBegun) return false;
    } else {
      deflateReset(&m_stream);
    }
    return n == 0 || deflateSetDictionary(&m_stream, before, n) == Z_OK;
  }

  // As FastDeflate::runBlock. What is left over with room to spare is nothing. zlib asks to be called again
  // with the same flush while it leaves no room. Z_BUF_ERROR says then that nothing was left, and is no
  // failure.
  bool runBlock(const unsigned char* bytes, unsigned n, bool last, DataBuffer& to) {
    unsigned char out[16 * 1024];
    m_stream.next_in = const_cast<unsigned char*>(bytes);
    m_stream.avail_in = n;
    do {
      m_stream.next_out = out;
      m_stream.avail_out = sizeof out;
      if (deflate(&m_stream, last ? Z_FINISH : Z_SYNC_FLUSH) == Z_STREAM_ERROR) return false;
      if (!to.append(out, static_cast<unsigned>(sizeof out) - m_stream.avail_out)) throw std::bad_alloc();
    } while (m_stream.avail_out == 0);
    return true;
  }

 private:
  z_stream m_stream{};
  bool m_isBegun = false;
};

// A part of one deflate stream: blocks that end at a byte's end can stand one behind the other, and the
// last one alone ends the stream.
// From submit to take all of it is the worker's, but for m_bytes and m_size, which both only read meanwhile:
// the block behind takes its dictionary from them.
class GzipBlock : public OrderedRing::Job {
 public:
  // The first 32 KiB of the buffer are the end of the block before. They are copied, so that a block is
  // compressed without a look at any other.
  void begin(int fastLevel, const GzipBlock* before) {
    if (!m_bytes) m_bytes = std::make_unique<unsigned char[]>(kDictionary + kBlock);
    m_fastLevel = fastLevel;
    m_size = 0;
    m_hasDictionary = before != nullptr;
    if (before) std::memcpy(m_bytes.get(), before->m_bytes.get() + before->m_size, kDictionary);
  }
  unsigned add(const unsigned char* bytes, unsigned n) {
    n = std::min(n, kBlock - m_size);
    std::memcpy(data() + m_size, bytes, n);
    m_size += n;
    return n;
  }
  // A full block is held until more comes (see BlockwiseEncoder), so that the last one is known as such.
  bool isFull() const { return m_size == kBlock; }
  void end(bool last) { m_last = last; }

  // The checksum is computed here too, side by side with that of other blocks. Levels are those of
  // MorvaneDeflate, so that the word FastDeflate means the same with any number of threads.
  void work() override {
    m_out.weakClear();
    m_crc.beginStream();
    m_crc.moreData(data(), m_size);
    const bool isFast = m_fastLevel > 0 && FastDeflate::isAvailable();
    m_failure = isFast ? compress(m_fast, m_fastLevel)
                       : compress(m_zlib, m_fastLevel > 0 ? m_fastLevel : Z_DEFAULT_COMPRESSION);
  }

  unsigned size() const { return m_size; }
  unsigned crc() const { return m_crc.endStream(); }
  const DataBuffer& out() const { return m_out; }
  const char* failure() const { return m_failure; }

 private:
  unsigned char* data() { return m_bytes.get() + kDictionary; }

  // Both engines have the same two functions, and the same two ways to fail.
  template <class Engine>
  const char* compress(Engine& engine, int level) {
    const unsigned n = m_hasDictionary ? kDictionary : 0;
    if (!engine.beginBehind(level, m_bytes.get(), n)) return kNoMemoryToDeflate;
    return engine.runBlock(data(), m_size, m_last, m_out) ? nullptr : kDeflateFailed;
  }

  // Taken over when the block is begun: 0 is zlib's default level.
  int m_fastLevel = 0;
  std::unique_ptr<unsigned char[]> m_bytes;
  unsigned m_size = 0;  // of the block alone
  bool m_hasDictionary = false, m_last = false;

  // What comes of it. The engines keep their memory; no more than one is ever begun.
  ZlibBlocks m_zlib;
  FastDeflate m_fast;
  ZipCRC m_crc;
  DataBuffer m_out;
  const char* m_failure = nullptr;
};

// The member around the blocks: header, trailer, and the checksum of all of them.
class GzipBlockEncoder : public BlockwiseEncoder<GzipBlock, int> {
 public:
  using BlockwiseEncoder::BlockwiseEncoder;

  bool begin(_mvOutput& out, const Io& io) override { return writeGzipHeader(out, io); }
  // The trailer holds the size modulo 2^32.
  bool end(_mvOutput& out, long long size, const Io& io) override {
    return writeGzipTrailer(out, m_crc, static_cast<unsigned>(size & 0xFFFFFFFF), io);
  }

 protected:
  // The sum of two pieces follows from theirs. So no thread has to go over all the data. Blocks come in
  // their order, on which the sum depends.
  void onTaken(const GzipBlock& block) override {
    m_crc = static_cast<unsigned>(crc32_combine(m_crc, block.crc(), static_cast<z_off_t>(block.size())));
  }

 private:
  unsigned m_crc = 0;
};

}  // namespace

std::unique_ptr<Encoder> makeGzipBlockEncoder(const CodecOptions& options) {
  return std::make_unique<GzipBlockEncoder>(static_cast<int>(options.fastDeflate), options.threads);
}

}  // namespace morvane
