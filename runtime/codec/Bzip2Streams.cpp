// Expanding reads every stream that follows, as the bzip2 command does.
#include "runtime/codec/Bzip2Streams.h"

#include <bzlib.h>

#include <new>

#include "runtime/base/ScopeExit.h"
#include "runtime/codec/InputWindow.h"
#include "runtime/io/_mvOutput.h"

namespace morvane {

namespace {

constexpr char kNoMemoryToExpand[] = "Out of memory for bzip2 decompression.";

// Why the library stopped, for what is neither an end nor the way on.
const char* reasonOf(int state) {
  if (state == BZ_DATA_ERROR_MAGIC) return "The data are no bzip2 data.";
  return state == BZ_MEM_ERROR ? kNoMemoryToExpand : "The bzip2 data are damaged.";
}

// What is said where the input ends and no end is allowed.
const char* cutShort(bool hasBegun) {
  return hasBegun ? "The bzip2 data end before the stream does." : "There are no bzip2 data.";
}

// Bytes that decide whether a further stream begins.
constexpr unsigned kSignature = 4;  // "BZh" and the block size

}  // namespace

Bzip2Stream::~Bzip2Stream() = default;

// Several MB from the first bytes of a stream on.
struct LibBzip2Stream::State {
  bz_stream stream{};
  bool isBegun = false;
  ~State() {
    if (isBegun) BZ2_bzDecompressEnd(&stream);
  }
};

LibBzip2Stream::LibBzip2Stream() = default;
LibBzip2Stream::~LibBzip2Stream() = default;

bool LibBzip2Stream::begin() {
  m_state.reset(new (std::nothrow) State());
  if (m_state) m_state->isBegun = BZ2_bzDecompressInit(&m_state->stream, 0, 0) == BZ_OK;
  return m_state && m_state->isBegun;
}

// With the state goes the library's memory.
void LibBzip2Stream::end() { m_state = nullptr; }

// The library does not write to its input; its interface merely lacks the const.
int LibBzip2Stream::step(Bzip2Step& step) {
  bz_stream& stream = m_state->stream;
  stream.next_in = const_cast<char*>(step.bytes);
  stream.avail_in = step.left;
  stream.next_out = step.out + step.produced;
  stream.avail_out = step.room - step.produced;
  const int state = BZ2_bzDecompress(&stream);
  step.bytes = stream.next_in;
  step.left = stream.avail_in;
  step.produced = step.room - stream.avail_out;
  return state;
}

// Decompression is a loop over pieces of input in which streams begin and end where they will. The library is
// told of no limit: what comes out is handed on in pieces of 128 KiB, and the limits of a run are kept by
// whoever takes them.
bool expandBzip2Streams(Bzip2Stream& stream, _mvDataSource& source, _mvOutput& out, const Io& io) {
  constexpr unsigned kOut = 128 * 1024;
  const std::unique_ptr<char[]> buffer(new (std::nothrow) char[kOut]);
  if (!buffer) return io.fail(kNoMemoryToExpand);
  InputWindow input(source, io);
  bool inStream = false;
  // The library's memory for a stream, several MB, goes with it; each way out of the loop ends the one that
  // is open.
  const auto endStream = [&] {
    if (inStream) stream.end();
    inStream = false;
  };
  const ScopeExit atExit(endStream);

  // Until a stream has shown its signature, bytes behind the one before may also be something else.
  unsigned long long streams = 0;
  unsigned long long bytesOfStream = 0;
  const char* bytes = nullptr;
  unsigned left = 0;
  while (true) {
    if (left == 0) {
      stream.beforeRead();
      if (!input.next(bytes, left)) return false;
    }
    if (left == 0) {
      if (!inStream && streams > 0) return true;
      // Fewer bytes than a signature behind a whole stream are ignored, too: no further stream has begun
      // before its signature is complete.
      if (inStream && streams > 0 && bytesOfStream < kSignature) break;
      return io.fail(cutShort(streams > 0 || bytesOfStream > 0));
    }
    // The library begins a stream before it has seen any of it; so it is begun for bytes that may turn out to
    // be none.
    if (!inStream) {
      if (!stream.begin()) return io.fail(kNoMemoryToExpand);
      inStream = true;
      bytesOfStream = 0;
    }
    // It returns when the input is used up, the output is full or the stream has ended; each of them is an
    // ordinary round.
    Bzip2Step step{bytes, left, buffer.get(), kOut};
    const int state = stream.step(step);
    bytesOfStream += left - step.left;
    bytes = step.bytes;
    left = step.left;
    // The library may have brought out nothing, while it gathers a block. Also what came out in front of
    // damage: a member keeps what had arrived.
    if (step.produced > 0 && !out.writeBytesPM(buffer.get(), step.produced, io.monitor, io.log)) return false;
    // A wrong signature within its four bytes is no stream at all, and ignored like what bzip2 calls trailing
    // garbage; a wrong one in the first stream, or anything wrong later, is damage.
    if (state == BZ_DATA_ERROR_MAGIC && streams > 0 && bytesOfStream <= kSignature) break;
    if (state != BZ_OK && state != BZ_STREAM_END) return io.fail(reasonOf(state));
    if (state == BZ_STREAM_END) {
      endStream();
      ++streams;
    }
  }
  io.log.LogInfo("Bytes behind the bzip2 data are ignored.");
  return true;
}

}  // namespace morvane
