// xz by liblzma. What a stream claims to need for its dictionary is bounded by the library's own limit on
// memory, before it is allocated, and so has to be computed as the library does.
#include "runtime/codec/XzCodec.h"

#include <lzma.h>

#include <algorithm>
#include <vector>

#include "runtime/buffer/DataBuffer.h"
#include "runtime/codec/InputWindow.h"
#include "runtime/codec/LateEncoder.h"
#include "runtime/io/Abort.h"
#include "runtime/io/Io.h"
#include "runtime/io/_mvOutput.h"
#include "runtime/parallel/WorkerPool.h"

namespace morvane {

namespace {

// Of output, in both directions; input comes in the pieces of InputWindow.
constexpr size_t kPiece = 128 * 1024;
constexpr unsigned kDefaultLevel = 6, kHighestLevel = 9;  // as the library's own programs have them

// The library's state, ended with the object.
struct Stream {
  ~Stream() { lzma_end(&state); }
  lzma_stream state = LZMA_STREAM_INIT;
};

// One stream (.xz file format, section 2) with one block or, where threads compress, with as many as it
// takes.
class XzEncoder : public UnframedEncoder {
 public:
  // `threads` 0 compresses in the calling thread, into one block. With a preset of its own the library
  // fails to begin for lack of memory alone.
  XzEncoder(long long level, unsigned threads) : m_out(kPiece), m_hasThreads(threads > 0) {
    const auto chosen =
        level == 0 ? kDefaultLevel : static_cast<unsigned>(std::min<long long>(level, kHighestLevel));
    const lzma_ret begun = m_hasThreads ? beginThreads(chosen, threads)
                                        : lzma_easy_encoder(&m_stream.state, chosen, LZMA_CHECK_CRC64);
    if (begun != LZMA_OK) throw std::bad_alloc();
  }

  // The library takes all of the input before this returns, because the bytes are the caller's.
  bool add(const unsigned char* bytes, unsigned n, DataBuffer& ready, const Io& io) override {
    m_stream.state.next_in = bytes;
    m_stream.state.avail_in = n;
    while (m_stream.state.avail_in > 0) {
      const lzma_ret result = run(LZMA_RUN, ready);
      if (result != LZMA_OK) return fail(result, io);
      if (m_stream.state.avail_in > 0 && !mayWait(io)) return false;
    }
    return true;
  }

  // The library says LZMA_OK until the end of the stream has come out.
  bool finish(DataBuffer& ready, bool& isOut, const Io& io) override {
    for (isOut = false; !isOut && ready.getSize() < kEnoughReady;) {
      const lzma_ret result = run(LZMA_FINISH, ready);
      isOut = result == LZMA_STREAM_END;
      if (!isOut && result != LZMA_OK) return fail(result, io);
      if (!isOut && !mayWait(io)) return false;
    }
    return true;
  }

 private:
  // Blocks of three times the dictionary, whose size the preset alone decides, and so the bytes. Fewer
  // threads where they would take more than a gigabyte. The library blocks all signals in its threads.
  lzma_ret beginThreads(unsigned preset, unsigned threads) {
    // At the highest level a thread takes more than this by itself; then there is one of them all the same.
    constexpr uint64_t kMostMemory = 1024ULL * 1024 * 1024;
    // As often as an application is asked by default whether to abort (AbortCheckMs).
    constexpr uint32_t kMostWaitMs = 100;
    lzma_mt options{};
    options.preset = preset;
    options.check = LZMA_CHECK_CRC64;
    options.threads = threads;
    options.timeout = kMostWaitMs;
    while (options.threads > 1 && lzma_stream_encoder_mt_memusage(&options) > kMostMemory) --options.threads;
    return lzma_stream_encoder_mt(&m_stream.state, &options);
  }

  // A block is seconds of work, so the library comes back from waiting for one to let this be asked. To give
  // it up is quick: its threads look for that every few kilobytes.
  bool mayWait(const Io& io) const { return !m_hasThreads || !isAbortedWhileWaiting(io); }

  static bool fail(lzma_ret result, const Io& io) {
    io.log.LogError("xz compression failed.");
    if (result == LZMA_MEM_ERROR) io.log.LogData("reason", "No memory or no thread for it.");
    return false;
  }

  // One call of the library, whose output is brought to `ready`. LZMA_BUF_ERROR, for a call that could do
  // nothing, is not met: there is always room, and input or an end.
  lzma_ret run(lzma_action action, DataBuffer& ready) {
    m_stream.state.next_out = m_out.data();
    m_stream.state.avail_out = m_out.size();
    const lzma_ret result = lzma_code(&m_stream.state, action);
    const size_t produced = m_out.size() - m_stream.state.avail_out;
    if (produced > 0 && !ready.append(m_out.data(), static_cast<unsigned>(produced))) return LZMA_MEM_ERROR;
    return result;
  }

  Stream m_stream;
  std::vector<unsigned char> m_out;
  const bool m_hasThreads;
};

// What a person is told. Only results that the decoder gives are here.
const char* reasonOf(lzma_ret result, bool anyInput) {
  switch (result) {
    case LZMA_FORMAT_ERROR:
      return "What follows is no xz data.";
    case LZMA_MEMLIMIT_ERROR:
      return "The xz data need a larger dictionary than MaxWindowBytes allows.";
    case LZMA_MEM_ERROR:
      return "Out of memory for xz decompression.";
    case LZMA_BUF_ERROR:
      return anyInput ? "The xz data end before the stream does." : "There are no xz data.";
    case LZMA_OPTIONS_ERROR:
    case LZMA_UNSUPPORTED_CHECK:
      return "The xz data use something that this library does not know.";
    default:
      return "The xz data are damaged.";
  }
}

// What the library takes for the largest dictionary that may be. Dictionaries are of 2^n or 2^n + 2^(n-1)
// bytes (.xz, section 5.3.1), from 4 KiB on: so there is room for what the other filters of a block take
// without the next larger dictionary passing, but for those under 8 KiB, which count as one.
uint64_t memoryFor(long long most) {
  constexpr uint64_t kSmallest = 8 * 1024, kOtherFilters = 3 * 1024;
  uint64_t dictionary = kSmallest;
  while (dictionary * 2 <= static_cast<uint64_t>(most) && dictionary < UINT32_MAX) dictionary *= 2;
  if (dictionary / 2 * 3 <= static_cast<uint64_t>(most)) dictionary = dictionary / 2 * 3;
  lzma_options_lzma options{};
  options.dict_size = static_cast<uint32_t>(std::min<uint64_t>(dictionary, UINT32_MAX));
  const lzma_filter chain[] = {{LZMA_FILTER_LZMA2, &options}, {LZMA_VLI_UNKNOWN, nullptr}};
  return lzma_raw_decoder_memusage(chain) + kOtherFilters;
}

}  // namespace

std::unique_ptr<Encoder> makeXzEncoder(const CodecOptions& options) {
  const unsigned workers = workerCount(options.threads);
  if (workers == 0) return std::make_unique<XzEncoder>(options.level, 0);
  // The calling thread has nothing to do meanwhile.
  return std::make_unique<LateEncoder>(workers + 1, [level = options.level](unsigned threads) {
    return std::make_unique<XzEncoder>(level, threads);
  });
}

// The library's decoder with threads (lzma_stream_decoder_mt) would expand blocks side by side. It is not
// taken, because how far it reads in front of what comes out depends on how its threads happen to run: so
// would events, MaxRatio, and how much of a source is read before the first member. It knows no .lzma, has
// no effect on streams of one block, and holds whole blocks. Joined streams and the zero bytes between them
// are part of the format (.xz, section 2.2): LZMA_CONCATENATED has the library read them to the end of the
// data. A check that the library does not know would be passed over, if it were not told to say so.
bool decodeXz(_mvDataSource& source, _mvOutput& out, const CodecOptions& options, const Io& io) {
  constexpr long long kMostByDefault = 256LL * 1024 * 1024;
  const long long most = options.maxWindowBytes > 0 ? options.maxWindowBytes : kMostByDefault;
  Stream stream;
  lzma_ret result =
      lzma_auto_decoder(&stream.state, memoryFor(most), LZMA_CONCATENATED | LZMA_TELL_UNSUPPORTED_CHECK);
  if (result != LZMA_OK) return io.fail(reasonOf(result, false));
  std::vector<unsigned char> buffer(kPiece);
  InputWindow input(source, io);
  bool anyInput = false, atEnd = false;
  while (true) {
    // Only when all input is used: what comes out of one piece may take many rounds.
    if (stream.state.avail_in == 0 && !atEnd) {
      const char* bytes = nullptr;
      unsigned n = 0;
      if (!input.next(bytes, n)) return false;
      atEnd = n == 0;
      // Newer versions of the library would read lzip's format, too, and pass over what follows it.
      if (!anyInput && n > 0 && *bytes == 'L') return io.fail(reasonOf(LZMA_FORMAT_ERROR, true));
      anyInput |= n > 0;
      stream.state.next_in = reinterpret_cast<const unsigned char*>(bytes);
      stream.state.avail_in = n;
    }
    stream.state.next_out = buffer.data();
    stream.state.avail_out = buffer.size();
    // With joined streams the library has to be told that no further one comes.
    result = lzma_code(&stream.state, atEnd ? LZMA_FINISH : LZMA_RUN);
    const size_t produced = buffer.size() - stream.state.avail_out;
    const char* const bytes = reinterpret_cast<const char*>(buffer.data());
    // What came out in front of damage is written as well: a member keeps what had arrived.
    if (produced > 0 && !out.writeBytesPM(bytes, static_cast<unsigned>(produced), io.monitor, io.log))
      return false;
    if (result == LZMA_STREAM_END) return true;
    if (result != LZMA_OK) return io.fail(reasonOf(result, anyInput));
  }
}

}  // namespace morvane
