// bzip2 over libbzip2. Compressing makes one stream of 900,000-byte blocks, which is what the bzip2 command
// writes by default. Decompressing reads every stream that follows, as that command does.
#include "runtime/codec/MorvaneBzip2.h"

#include <bzlib.h>

#include <cstring>
#include <new>

#include "runtime/buffer/DataBuffer.h"
#include "runtime/codec/InputWindow.h"
#include "runtime/io/Io.h"
#include "runtime/io/_mvOutput.h"

namespace morvane {

namespace {

constexpr char kNoMemoryToExpand[] = "Out of memory for bzip2 decompression.";

// Why the library stopped, for what is neither an end nor the way on.
const char* reasonOf(int state) {
  if (state == BZ_DATA_ERROR_MAGIC) return "The data are no bzip2 data.";
  return state == BZ_MEM_ERROR ? kNoMemoryToExpand : "The bzip2 data are damaged.";
}

constexpr unsigned kBuffer = 64 * 1024;
// Bytes that decide whether a further stream begins.
constexpr unsigned kSignature = 4;  // "BZh" and the block size

}  // namespace

// The library's state and a buffer on either side of it: on the heap, because they are too large for a stack
// of unknown size.
struct MorvaneBzip2::Compressor {
  bz_stream stream{};
  bool begun = false;
  unsigned gathered = 0;
  char in[kBuffer];
  char out[kBuffer];

  ~Compressor() { end(); }

  // May be called at any time and more than once.
  void end() {
    if (begun) BZ2_bzCompressEnd(&stream);
    begun = false;
  }

  // A stream that is being compressed is given up. Block size 9, silent, the library's own work factor.
  bool begin() {
    end();
    stream = bz_stream{};
    gathered = 0;
    begun = BZ2_bzCompressInit(&stream, kBzip2BlockSize100k, 0, 0) == BZ_OK;
    return begun;
  }

  // Until the library has taken all input, or has brought out all there is. A full output is the usual case
  // at the end of a block, which comes out all at once. Memory that runs out in the caller's buffer is no
  // failure of the compressor and is thrown, so that the frame of the method calls it what it is.
  bool run(const char* bytes, unsigned n, int action, DataBuffer& to) {
    stream.next_in = const_cast<char*>(bytes);
    stream.avail_in = n;
    while (true) {
      stream.next_out = out;
      stream.avail_out = kBuffer;
      const int state = BZ2_bzCompress(&stream, action);
      if (state < 0) return false;
      if (!to.append(out, kBuffer - stream.avail_out)) throw std::bad_alloc();
      if (action == BZ_FINISH ? state == BZ_STREAM_END : stream.avail_in == 0) return true;
    }
  }

  // The library wants no empty run.
  bool runGathered(DataBuffer& to) { return gathered == 0 || run(in, gathered, BZ_RUN, to); }

  // Small pieces are gathered: archives come in headers of 512 bytes. One that is larger than the buffer goes
  // in by itself, behind what was gathered before it.
  bool take(const char* bytes, unsigned n, DataBuffer& to) {
    if (n > kBuffer - gathered) {
      if (!runGathered(to)) return false;
      gathered = 0;
    }
    if (n > kBuffer) return run(bytes, n, BZ_RUN, to);
    std::memcpy(in + gathered, bytes, n);
    gathered += n;
    return true;
  }
};

MorvaneBzip2::MorvaneBzip2() = default;
MorvaneBzip2::~MorvaneBzip2() = default;

bool MorvaneBzip2::BeginCompress(const DataBuffer& in, DataBuffer& out, LogBase& log, ProgressMonitor* pm) {
  if (!m_compressor) m_compressor = std::make_unique<Compressor>();
  // With these parameters it fails for lack of memory alone.
  if (!m_compressor->begin()) return Io(log, pm).fail(kNoMemoryForBzip2);
  return MoreCompress(in, out, log, pm);
}

// After a failure the library's stream stays begun; the callers do not go on with it.
bool MorvaneBzip2::MoreCompress(const DataBuffer& in, DataBuffer& out, LogBase& log, ProgressMonitor* pm) {
  const char* const bytes = reinterpret_cast<const char*>(in.getData2());
  if (m_compressor && m_compressor->begun && m_compressor->take(bytes, in.getSize(), out)) return true;
  return Io(log, pm).fail(kBzip2Failed);
}

// The compressor is gone afterwards, whatever came of it: a second End is a failure and no crash.
bool MorvaneBzip2::EndCompress(DataBuffer& out, LogBase& log, ProgressMonitor* pm) {
  const bool ok = m_compressor && m_compressor->begun && m_compressor->runGathered(out) &&
                  m_compressor->run(nullptr, 0, BZ_FINISH, out);
  m_compressor.reset();
  return ok || Io(log, pm).fail(kBzip2Failed);
}

namespace {

// Streams of one source, one behind the other. The library's memory for a stream, several MB, goes with it;
// each way out ends the one that is open.
struct Expander {
  ~Expander() { end(); }

  void end() {
    if (inStream) BZ2_bzDecompressEnd(&stream);
    inStream = false;
  }

  // The library begins a stream before it has seen any of it; so it is begun for bytes that may turn out to
  // be none.
  bool begin() {
    if (inStream) return true;
    stream = bz_stream{};
    bytesOfStream = 0;
    inStream = BZ2_bzDecompressInit(&stream, 0, 0) == BZ_OK;
    return inStream;
  }

  // It returns when the input is used up, the output is full or the stream has ended; each of them is an
  // ordinary round. The library may have brought out nothing, while it gathers a block.
  int run(const char*& bytes, unsigned& left, char* to, unsigned room, unsigned& produced) {
    stream.next_in = const_cast<char*>(bytes);
    stream.avail_in = left;
    stream.next_out = to;
    stream.avail_out = room;
    const int state = BZ2_bzDecompress(&stream);
    const unsigned used = left - stream.avail_in;
    bytesOfStream += used;
    bytes += used;
    left = stream.avail_in;
    produced = room - stream.avail_out;
    return state;
  }

  bz_stream stream{};
  bool inStream = false;
  unsigned long long streams = 0;        // that have ended
  unsigned long long bytesOfStream = 0;  // of the last one that was begun
};

}  // namespace

// Decompression is a loop over pieces of input in which streams begin and end where they will. The library is
// told of no limit: what comes out is handed on in pieces of 128 KiB, and the limits of a run are kept by
// whoever takes them. Until a stream has shown its signature, bytes behind the one before may also be
// something else.
bool MorvaneBzip2::DecompressStream(_mvDataSource& source, _mvOutput& out, LogBase& log,
                                    ProgressMonitor* pm) {
  constexpr unsigned kOut = 2 * kBuffer;
  const Io io(log, pm);
  const std::unique_ptr<char[]> buffer(new (std::nothrow) char[kOut]);
  if (!buffer) return io.fail(kNoMemoryToExpand);
  InputWindow input(source, io);
  Expander expander;
  const char* bytes = nullptr;
  unsigned left = 0;
  while (true) {
    if (left == 0 && !input.next(bytes, left)) return false;
    if (left == 0) {
      if (!expander.inStream && expander.streams > 0) return true;
      if (expander.inStream && expander.streams > 0 && expander.bytesOfStream < kSignature) break;
      return io.fail(expander.streams == 0 && expander.bytesOfStream == 0
                         ? "There are no bzip2 data."
                         : "The bzip2 data end before the stream does.");
    }
    if (!expander.begin()) return io.fail(kNoMemoryToExpand);
    unsigned produced = 0;
    const int state = expander.run(bytes, left, buffer.get(), kOut, produced);
    // A wrong signature within its four bytes is no stream at all, and ignored like what bzip2 calls trailing
    // garbage; a wrong one in the first stream, or anything wrong later, is damage.
    if (state == BZ_DATA_ERROR_MAGIC && expander.streams > 0 && expander.bytesOfStream <= kSignature) break;
    if (state != BZ_OK && state != BZ_STREAM_END) return io.fail(reasonOf(state));
    if (produced > 0 && !out.writeBytesPM(buffer.get(), produced, pm, log)) return false;
    if (state == BZ_STREAM_END) {
      expander.end();
      ++expander.streams;
    }
  }
  log.LogInfo("Bytes behind the bzip2 data are ignored.");
  return true;
}

}  // namespace morvane
