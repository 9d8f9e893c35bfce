// zstd by libzstd. Its own buffers are as large as it recommends; memory that a frame's header claims is
// bounded before it is allocated (ZstdWindow).
#include "runtime/codec/ZstdCodec.h"

#include <zstd.h>
#include <zstd_errors.h>

#include <algorithm>
#include <vector>

#include "runtime/base/SignalsBlocked.h"
#include "runtime/buffer/DataBuffer.h"
#include "runtime/codec/InputWindow.h"
#include "runtime/codec/LateEncoder.h"
#include "runtime/codec/ZstdWindow.h"
#include "runtime/io/Abort.h"
#include "runtime/io/Io.h"
#include "runtime/io/_mvOutput.h"
#include "runtime/parallel/WorkerPool.h"

namespace morvane {

namespace {

constexpr int kDefaultLevel = 3;  // as the library's own programs have it
// From here on a megabyte is some tenths of a second's work.
constexpr int kFirstSlowLevel = 13;
// Beyond it, levels differ by windows that no job of a second could fill: they are for one thread.
constexpr int kLastLevelWithWorkers = 19;

// Beyond the library's highest level there is none; what it calls its default is 0 here, too.
int chosenLevel(const CodecOptions& options) {
  return options.level == 0 ? kDefaultLevel
                            : static_cast<int>(std::min<long long>(options.level, ZSTD_maxCLevel()));
}

// So many take about a gigabyte: a worker has windows, tables and input of its own. From level 9 on these
// are some three times as large.
unsigned mostWorkers(int level) {
  constexpr int kFirstLargeTables = 9;
  return level < kFirstLargeTables ? 40 : 12;
}

// One frame (RFC 8878, 3.1.1), whatever its size, compressed as the pieces come.
class ZstdEncoder : public UnframedEncoder {
 public:
  // `workers` 0 compresses in the calling thread. Results of setParameter are not looked at, because these
  // values are always in range; a library without threads refuses those that are about threads, and has
  // none then.
  ZstdEncoder(int level, unsigned workers)
      : m_context(ZSTD_createCCtx(), ZSTD_freeCCtx),
        m_out(workers > 0 ? kPieceOfWorkers : ZSTD_CStreamOutSize()),
        m_hasWorkers(workers > 0) {
    if (!m_context) throw std::bad_alloc();
    ZSTD_CCtx_setParameter(m_context.get(), ZSTD_c_compressionLevel, level);
    // Without it a flipped bit may pass for data.
    ZSTD_CCtx_setParameter(m_context.get(), ZSTD_c_checksumFlag, 1);
    if (m_hasWorkers) beginWorkers(level, workers);
  }

  // The library may take a part only, while its workers are busy; the rest waits here, because the bytes
  // are the caller's.
  bool add(const unsigned char* bytes, unsigned n, DataBuffer& ready, const Io& io) override {
    ZSTD_inBuffer in{bytes, n, 0};
    while (in.pos < in.size) {
      // Not looked at: what is still inside comes out later.
      size_t left = 0;
      if (!run(in, ZSTD_e_continue, left, ready, io)) return false;
      if (in.pos < in.size && !mayWait(io)) return false;
    }
    return true;
  }

  // `left` is 0 once the frame's end has come out.
  bool finish(DataBuffer& ready, bool& isOut, const Io& io) override {
    ZSTD_inBuffer none{nullptr, 0, 0};
    for (isOut = false; !isOut && ready.getSize() < kEnoughReady;) {
      size_t left = 0;
      if (!run(none, ZSTD_e_end, left, ready, io)) return false;
      isOut = left == 0;
      if (!isOut && !mayWait(io)) return false;
    }
    return true;
  }

 private:
  // At the end the library comes back when so much is there; less makes it come back more often.
  static constexpr size_t kPieceOfWorkers = 16 * 1024;

  // The library cannot give up a job that was begun, not even when it is freed: so none may be long. By
  // itself it makes jobs of four windows, which are ten seconds' work at slow levels. What a job looks back
  // at has to be taken in first, and may be no more than the job.
  void setJobs(int level) {
    if (level < kFirstSlowLevel) return;
    constexpr int kJob = 2 * 1024 * 1024;
    ZSTD_CCtx_setParameter(m_context.get(), ZSTD_c_jobSize, kJob);
    // Their windows are of 8 MiB; a quarter of that.
    constexpr int kFirstLargeWindow = 17, kQuarterWindow = 7;
    if (level >= kFirstLargeWindow)
      ZSTD_CCtx_setParameter(m_context.get(), ZSTD_c_overlapLog, kQuarterWindow);
  }

  // The first call makes the workers, all of them, and no later one does. A library that was built without
  // threads refuses the number, and has none then.
  void beginWorkers(int level, unsigned workers) {
    const SignalsBlocked signalsBlocked;
    setJobs(level);
    ZSTD_CCtx_setParameter(m_context.get(), ZSTD_c_nbWorkers, static_cast<int>(workers));
    ZSTD_inBuffer in{nullptr, 0, 0};
    ZSTD_outBuffer out{nullptr, 0, 0};
    if (ZSTD_isError(ZSTD_compressStream2(m_context.get(), &out, &in, ZSTD_e_continue)))
      throw std::bad_alloc();
  }

  // Jobs come back in pieces; in between this is asked.
  bool mayWait(const Io& io) const { return !m_hasWorkers || !isAbortedWhileWaiting(io); }

  // One call of the library; `left` tells how much it still holds back at least. The name of an error is
  // the library's own English text.
  bool run(ZSTD_inBuffer& in, ZSTD_EndDirective directive, size_t& left, DataBuffer& ready, const Io& io) {
    ZSTD_outBuffer out{m_out.data(), m_out.size(), 0};
    left = ZSTD_compressStream2(m_context.get(), &out, &in, directive);
    if (ZSTD_isError(left)) {
      io.log.LogError("zstd compression failed.");
      io.log.LogData("reason", ZSTD_getErrorName(left));
      return false;
    }
    return out.pos == 0 || ready.append(m_out.data(), static_cast<unsigned>(out.pos)) ||
           io.fail("Out of memory for zstd compression.");
  }

  const std::unique_ptr<ZSTD_CCtx, size_t (*)(ZSTD_CCtx*)> m_context;
  std::vector<char> m_out;
  const bool m_hasWorkers;
};

// The library takes its limit as an exponent of two, and has one of its own that is lower than what may be
// asked for. So it gets the next power; the limit itself is kept by ZstdWindow.
int windowLogFor(long long bytes) {
  const ZSTD_bounds bounds = ZSTD_dParam_getBounds(ZSTD_d_windowLogMax);
  int log = bounds.lowerBound;
  while (log < bounds.upperBound && 1LL << log < bytes) ++log;
  return log;
}

constexpr char kForeign[] = "What follows is no zstd data.";
constexpr char kTooLarge[] = "The zstd data need a larger window than MaxWindowBytes allows.";

// What a person is told; whatever has no words of its own here is damage.
const char* reasonOf(size_t error) {
  switch (ZSTD_getErrorCode(error)) {
    case ZSTD_error_prefix_unknown:
      return kForeign;
    case ZSTD_error_frameParameter_windowTooLarge:
      return kTooLarge;
    case ZSTD_error_checksum_wrong:
      return "The checksum of the zstd data is wrong.";
    case ZSTD_error_memory_allocation:
      return "Out of memory for zstd decompression.";
    default:
      return "The zstd data are damaged.";
  }
}

}  // namespace

std::unique_ptr<Encoder> makeZstdEncoder(const CodecOptions& options) {
  const int level = chosenLevel(options);
  const unsigned workers = workerCount(options.threads);
  if (workers == 0 || level > kLastLevelWithWorkers) return std::make_unique<ZstdEncoder>(level, 0);
  // The calling thread has nothing to do meanwhile.
  return std::make_unique<LateEncoder>(std::min(workers + 1, mostWorkers(level)), [level](unsigned threads) {
    return std::make_unique<ZstdEncoder>(level, threads);
  });
}

// Frames may stand one behind the other (RFC 8878, 3.1), and the library begins the next by itself. The
// output is one buffer used again and again; the window is the library's own. The default limit is that of
// the library's own programs.
bool decodeZstd(_mvDataSource& source, _mvOutput& out, const CodecOptions& options, const Io& io) {
  constexpr long long kMostByDefault = 128LL * 1024 * 1024;
  const std::unique_ptr<ZSTD_DCtx, size_t (*)(ZSTD_DCtx*)> context(ZSTD_createDCtx(), ZSTD_freeDCtx);
  if (!context) return io.fail("Out of memory for zstd decompression.");
  const long long most = options.maxWindowBytes > 0 ? options.maxWindowBytes : kMostByDefault;
  ZSTD_DCtx_setParameter(context.get(), ZSTD_d_windowLogMax, windowLogFor(most));
  std::vector<char> buffer(ZSTD_DStreamOutSize());
  InputWindow input(source, io);
  ZstdWindow window;
  ZSTD_inBuffer in{nullptr, 0, 0};
  // A frame's first bytes tell how long its header is.
  constexpr size_t kFrameStart = 5;
  // What the library takes next: the end of a block, so that one that is damaged comes alone, and what was in
  // front of it has been written. 0: the last call ended a frame, and nothing of it is held back.
  size_t wanted = kFrameStart;
  bool anyFrame = false;
  while (true) {
    // Only when all input is used, because one piece may hold several frames.
    if (in.pos == in.size) {
      const char* bytes = nullptr;
      unsigned n = 0;
      if (!input.next(bytes, n)) return false;
      if (n == 0) break;
      in = {bytes, n, 0};
    }
    const size_t step = std::min(wanted == 0 ? kFrameStart : wanted, in.size - in.pos);
    if (wanted == 0) window.beginFrame();
    window.add(static_cast<const char*>(in.src) + in.pos, step);
    if (window.isForeign()) return io.fail(kForeign);
    if (window.claimed() > static_cast<uint64_t>(most)) return io.fail(kTooLarge);
    ZSTD_inBuffer next{in.src, in.pos + step, in.pos};
    ZSTD_outBuffer piece{buffer.data(), buffer.size(), 0};
    do {
      piece.pos = 0;
      wanted = ZSTD_decompressStream(context.get(), &piece, &next);
      if (ZSTD_isError(wanted)) return io.fail(reasonOf(wanted));
      if (piece.pos > 0 &&
          !out.writeBytesPM(buffer.data(), static_cast<unsigned>(piece.pos), io.monitor, io.log))
        return false;
      // A full output may mean that there is more of it than there was room for; not behind a frame that has
      // ended, where the library would ask for another one.
    } while (piece.pos == piece.size && wanted != 0);
    in.pos = next.pos;
    anyFrame |= wanted == 0;
  }
  if (wanted == 0) return true;
  return io.fail(anyFrame || in.size > 0 ? "The zstd data end before the frame does."
                                         : "There are no zstd data.");
}

}  // namespace morvane
