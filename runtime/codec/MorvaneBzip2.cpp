// bzip2 over libbzip2. Compressing makes one stream of 900,000-byte blocks, which is what the bzip2 command
// writes by default.
#include "runtime/codec/MorvaneBzip2.h"

#include <bzlib.h>

#include <cstring>
#include <new>

#include "runtime/buffer/DataBuffer.h"
#include "runtime/codec/Bzip2Streams.h"
#include "runtime/io/Io.h"

namespace morvane {

namespace {

// Of each of the two below; what becomes of a block takes several of them.
constexpr unsigned kBuffer = 64 * 1024;

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
  // With work factor 0 the library falls back to a slower way only for data that repeat a lot.
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
      // Negative codes are failures; the others say how far it is.
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

// The loop over streams is shared with the way of several threads; here libbzip2 alone expands them.
bool MorvaneBzip2::DecompressStream(_mvDataSource& source, _mvOutput& out, LogBase& log,
                                    ProgressMonitor* pm) {
  LibBzip2Stream stream;
  return expandBzip2Streams(stream, source, out, Io(log, pm));
}

}  // namespace morvane
