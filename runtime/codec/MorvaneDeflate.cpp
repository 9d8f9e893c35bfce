// Raw deflate: compressed over zlib, or over ISA-L where the option FastDeflate asks for speed and the build
// has it; inflated by RawInflate, which has an engine for each library too.
#include "runtime/codec/MorvaneDeflate.h"

#include <zlib.h>

#include <cstring>
#include <new>

#include "runtime/buffer/DataBuffer.h"
#include "runtime/codec/FastDeflate.h"
#include "runtime/codec/InputWindow.h"
#include "runtime/codec/RawInflate.h"
#include "runtime/codec/ZlibRaw.h"
#include "runtime/io/Io.h"
#include "runtime/io/_mvOutput.h"

namespace morvane {

namespace {

constexpr unsigned kBuffer = 64 * 1024;

}  // namespace

// zlib's stream or the fast one, whichever `begin` chose, and the buffers: on the heap, because they are too
// large for a stack of unknown size.
struct MorvaneDeflate::Compressor {
  z_stream stream{};
  FastDeflate fast;
  bool usesFast = false;
  bool begun = false;
  unsigned gathered = 0;
  unsigned char in[kBuffer];
  unsigned char out[kBuffer];

  ~Compressor() { end(); }

  // May be called at any time and more than once; the fast engine frees itself.
  void end() {
    if (begun && !usesFast) deflateEnd(&stream);
    begun = false;
  }

  // Levels 1 to 3 mean what zlib's own mean when there is no fast engine, so that the option holds in every
  // build.
  bool begin(int fastLevel) {
    end();
    stream = z_stream{};
    gathered = 0;
    usesFast = fastLevel > 0 && FastDeflate::isAvailable();
    const int level = fastLevel > 0 ? fastLevel : Z_DEFAULT_COMPRESSION;
    begun = usesFast ? fast.begin(fastLevel)
                     : deflateInit2(&stream, level, Z_DEFLATED, kRawDeflate, kDefaultMemory,
                                    Z_DEFAULT_STRATEGY) == Z_OK;
    return begun;
  }

  // zlib has taken all input once it leaves room in the output; that it then had nothing to do
  // (Z_BUF_ERROR) is no failure. Memory that runs out in the caller's buffer is thrown, so that the frame
  // of the method calls it what it is. Of zlib's results Z_STREAM_ERROR alone is a failure: it says that
  // the stream's state makes no sense.
  bool run(const unsigned char* bytes, unsigned n, int flush, DataBuffer& to) {
    if (usesFast) return fast.run(bytes, n, flush == Z_FINISH, to);
    stream.next_in = const_cast<unsigned char*>(bytes);
    stream.avail_in = n;
    do {
      stream.next_out = out;
      stream.avail_out = kBuffer;
      if (deflate(&stream, flush) == Z_STREAM_ERROR) return false;
      if (!to.append(out, kBuffer - stream.avail_out)) throw std::bad_alloc();
    } while (stream.avail_out == 0);
    return true;
  }

  // Small pieces are gathered, so that the compressor is called for 64 KiB at a time. What is larger than
  // that goes in by itself, behind what was gathered before it.
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
  if (!m_compressor) m_compressor = std::make_unique<Compressor>();
  // With these parameters it fails for lack of memory alone.
  if (!m_compressor->begin(m_fastLevel)) return Io(log, pm).fail(kNoMemoryToDeflate);
  return MoreCompress(in, out, log, pm);
}

// Without Begin, and behind a failed one, it fails.
bool MorvaneDeflate::MoreCompress(const DataBuffer& in, DataBuffer& out, LogBase& log, ProgressMonitor* pm) {
  if (m_compressor && m_compressor->begun && m_compressor->take(in.getData2(), in.getSize(), out))
    return true;
  return Io(log, pm).fail(kDeflateFailed);
}

// The compressor is gone afterwards, whatever came of it: a second End is a failure and no crash.
bool MorvaneDeflate::EndCompress(DataBuffer& out, LogBase& log, ProgressMonitor* pm) {
  const bool ok = m_compressor && m_compressor->begun &&
                  m_compressor->run(m_compressor->in, m_compressor->gathered, Z_FINISH, out);
  m_compressor.reset();
  return ok || Io(log, pm).fail(kDeflateFailed);
}

// Whether to abort is asked with each piece of input and of output: data that never produce anything, and a
// few bytes that produce gigabytes, are both left in time.
bool MorvaneDeflate::inflateFromSourcePM(bool, _mvDataSource& source, _mvOutput& out, bool,
                                         ProgressMonitor* pm, LogBase& log) {
  const Io io(log, pm);
  constexpr unsigned kOut = 2 * kBuffer;
  const std::unique_ptr<char[]> buffer(new (std::nothrow) char[kOut]);
  RawInflate inflater;
  if (!buffer || !inflater.begin()) return io.fail("Out of memory for inflating.");
  InputWindow input(source, io);
  unsigned roundsWithoutProgress = 0;
  RawInflate::State state = RawInflate::State::GoesOn;
  unsigned produced = 0;
  while (state != RawInflate::State::Finished) {
    // A full output may have more behind it that needs no further input. The last piece of input may be used
    // up long before its output is out.
    if (inflater.inputLeft() == 0 && produced < kOut) {
      const char* bytes = nullptr;
      unsigned n = 0;
      if (!input.next(bytes, n)) return false;
      if (n == 0) return io.fail("The deflate data end before the stream does.");
      inflater.setInput(bytes, n);
    }
    const unsigned hadIn = inflater.inputLeft();
    state = inflater.step(buffer.get(), kOut, produced);
    // Also what came out in front of damage: a member keeps what had arrived.
    if (produced > 0 && !out.writeBytesPM(buffer.get(), produced, pm, log)) return false;
    if (state == RawInflate::State::Damaged) return io.fail("The deflate data are damaged.");
    // One such round is ordinary: the output was filled to its last byte just where the input ended. Behind
    // it there is new input, so that two in a row are a stream (or an engine) that would go on for ever.
    roundsWithoutProgress = produced == 0 && inflater.inputLeft() == hadIn ? roundsWithoutProgress + 1 : 0;
    if (roundsWithoutProgress == 2) return io.fail("The deflate data make no progress.");
  }
  // The trailer of gzip, and a further member, begin at the first byte that was not used.
  input.giveBack(inflater.inputLeft());
  return true;
}

}  // namespace morvane
