#include "runtime/codec/MorvaneDeflate.h"

#include <zlib.h>

#include <cstring>
#include <new>

#include "runtime/buffer/DataBuffer.h"
#include "runtime/codec/DecodedOutput.h"
#include "runtime/codec/InputWindow.h"

namespace morvane {

namespace {

constexpr unsigned kBuffer = 64 * 1024;
constexpr int kRawDeflate = -15;  // the largest window, no framing
constexpr int kDefaultMemory = 8;

bool fail(LogBase& log, const char* message, const z_stream& stream) {
  log.LogError(message);
  if (stream.msg) log.LogData("zlib", stream.msg);
  return false;
}

}  // namespace

struct MorvaneDeflate::Compressor {
  z_stream stream{};
  bool begun = false;
  unsigned gathered = 0;
  unsigned char in[kBuffer];
  unsigned char out[kBuffer];

  ~Compressor() { end(); }

  void end() {
    if (begun) deflateEnd(&stream);
    begun = false;
  }

  bool begin() {
    end();
    stream = z_stream{};
    gathered = 0;
    begun = deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kRawDeflate, kDefaultMemory,
                         Z_DEFAULT_STRATEGY) == Z_OK;
    return begun;
  }

  bool run(const unsigned char* bytes, unsigned n, int flush, DataBuffer& to) {
    stream.next_in = const_cast<unsigned char*>(bytes);
    stream.avail_in = n;
    do {
      stream.next_out = out;
      stream.avail_out = kBuffer;
      if (deflate(&stream, flush) == Z_STREAM_ERROR) return false;
      if (!to.append(out, kBuffer - stream.avail_out)) return false;
    } while (stream.avail_out == 0);
    return true;
  }

  // Small pieces are gathered, so that the compressor is called for 64 KiB at a time.
  bool take(const unsigned char* bytes, unsigned n, DataBuffer& to) {
    if (n > kBuffer - gathered) {
      if (!run(in, gathered, Z_NO_FLUSH, to)) return false;
      gathered = 0;
    }
    if (n > kBuffer) return run(bytes, n, Z_NO_FLUSH, to);
    std::memcpy(in + gathered, bytes, n);
    gathered += n;
    return true;
  }
};

MorvaneDeflate::MorvaneDeflate() = default;
MorvaneDeflate::~MorvaneDeflate() = default;

bool MorvaneDeflate::BeginCompress(const DataBuffer& in, DataBuffer& out, LogBase& log, ProgressMonitor* pm) {
  if (!m_compressor) m_compressor.reset(new (std::nothrow) Compressor());
  if (!m_compressor || !m_compressor->begin()) {
    log.LogError("Failed to start deflate compression.");
    return false;
  }
  return MoreCompress(in, out, log, pm);
}

bool MorvaneDeflate::MoreCompress(const DataBuffer& in, DataBuffer& out, LogBase& log, ProgressMonitor*) {
  if (m_compressor && m_compressor->begun && m_compressor->take(in.getData2(), in.getSize(), out))
    return true;
  log.LogError("Deflate compression failed.");
  return false;
}

bool MorvaneDeflate::EndCompress(DataBuffer& out, LogBase& log, ProgressMonitor*) {
  const bool ok = m_compressor && m_compressor->begun &&
                  m_compressor->run(m_compressor->in, m_compressor->gathered, Z_FINISH, out);
  if (!ok) log.LogError("Deflate compression failed.");
  m_compressor.reset();
  return ok;
}

bool MorvaneDeflate::inflateFromSourcePM(bool, _mvDataSource& source, _mvOutput& out, bool,
                                         ProgressMonitor* pm, LogBase& log) {
  constexpr unsigned kOut = 2 * kBuffer;
  const std::unique_ptr<char[]> buffer(new (std::nothrow) char[kOut]);
  z_stream stream{};
  if (!buffer || inflateInit2(&stream, kRawDeflate) != Z_OK) {
    log.LogError("Out of memory for inflating.");
    return false;
  }
  const std::unique_ptr<z_stream, int (*)(z_stream*)> ender(&stream, inflateEnd);
  InputWindow input(source, pm, log);
  int roundsWithoutProgress = 0;
  int state = Z_OK;
  stream.avail_out = kOut;
  while (state != Z_STREAM_END) {
    // A full output may have more behind it that needs no further input.
    if (stream.avail_in == 0 && stream.avail_out > 0) {
      const char* bytes = nullptr;
      if (!input.next(bytes, stream.avail_in)) return false;
      if (stream.avail_in == 0) return fail(log, "The deflate data end before the stream does.", stream);
      stream.next_in = reinterpret_cast<unsigned char*>(const_cast<char*>(bytes));
    }
    const unsigned hadIn = stream.avail_in;
    stream.next_out = reinterpret_cast<unsigned char*>(buffer.get());
    stream.avail_out = kOut;
    state = inflate(&stream, Z_NO_FLUSH);
    if (state != Z_OK && state != Z_STREAM_END && state != Z_BUF_ERROR) {
      return fail(log, "The deflate data are damaged.", stream);
    }
    const unsigned produced = kOut - stream.avail_out;
    if (!writeDecoded(out, buffer.get(), produced, pm, log)) return false;
    roundsWithoutProgress = produced == 0 && stream.avail_in == hadIn ? roundsWithoutProgress + 1 : 0;
    if (roundsWithoutProgress == 2) return fail(log, "The deflate data make no progress.", stream);
  }
  input.giveBack(stream.avail_in);
  return true;
}

}  // namespace morvane
