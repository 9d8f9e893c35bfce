// The decompressor runs in a worker, between a source and an output that only write down what it does: so
// much was read, so much given back, these bytes written, those lines logged. The first thread does the same
// again, with the real source and output, in the same order; that is where events come from, and where
// something may be refused. A refusal ends the worker, which has done some work for nothing then.
#include "runtime/codec/ExpandAhead.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <vector>

#include "runtime/codec/SmallStart.h"
#include "runtime/io/AheadSource.h"
#include "runtime/io/Io.h"
#include "runtime/io/_mvOutput.h"
#include "runtime/parallel/WorkerThread.h"

namespace morvane {

namespace {

// How far the worker may be ahead, and what may be read for it. The step that passes the limit is still
// taken, so there may be one piece of output more.
constexpr size_t kMostProduced = 2 * 1024 * 1024;
// Buffers that are kept for the next bytes: those that the system would be asked for each time.
constexpr size_t kMostKept = 2 * 1024 * 1024, kWorthKeeping = 16 * 1024;
// Steps without bytes take memory too: a decompressor may read byte by byte.
constexpr size_t kMostSteps = 1024;
constexpr long long kMostRead = 1024 * 1024;
// Pieces that lie ready for the worker, so that it need not wait for the first thread. More would only be
// more memory: the first thread comes by with each step.
constexpr size_t kPiecesReady = 2;

// One thing that the decompressor did. The first thread repeats it with the real source and output.
struct Step {
  enum Kind { Lend, Read, TakeBack, Write, End } kind = End;
  unsigned n = 0;
  std::vector<char> bytes;       // Write
  std::unique_ptr<HeldLog> log;  // lines that come before it; null: none
};

// What the two threads hand each other. Steps go one way, pieces of input and used buffers the other.
// Neither side holds the lock while it works.
class Script {
 public:
  // ---- The worker's

  // Waits for room, which is what keeps the worker from running away from the first thread. Once it is
  // stopped nothing waits any more, so that it comes to its end.
  void add(Step step) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_roomCame.wait(lock,
                    [&] { return m_stop || (m_produced < kMostProduced && m_steps.size() < kMostSteps); });
    // Capacity, because a buffer that was used before may be larger than what is in it.
    m_produced += step.bytes.capacity();
    m_steps.push_back(std::move(step));
    m_somethingCame.notify_one();
  }
  // A buffer that was used before, where there is one and n bytes are no waste of it.
  std::vector<char> buffer(size_t n) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_buffers.empty() || n < kWorthKeeping) return {};
    std::vector<char> buffer = std::move(m_buffers.back());
    m_buffers.pop_back();
    m_kept -= buffer.capacity();
    return buffer;
  }
  // Null once nobody wants any more. That it waits is told to the first thread, which otherwise might wait
  // for a step that cannot come.
  AheadSource::PiecePtr nextPiece() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_isWaiting = true;
    if (m_pieces.empty()) m_somethingCame.notify_one();
    m_pieceCame.wait(lock, [&] { return m_stop || !m_pieces.empty(); });
    m_isWaiting = false;
    if (m_stop) return nullptr;
    AheadSource::PiecePtr piece = std::move(m_pieces.front());
    m_pieces.pop_front();
    return piece;
  }
  // How the decompressor ended. Takes no memory. So it can be told of in any case, also where memory is
  // what ran out.
  void end(bool ok, std::exception_ptr thrown) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_hasEnded = true;
    m_ok = ok;
    m_thrown = std::move(thrown);
    m_somethingCame.notify_one();
  }
  bool isStopped() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_stop;
  }

  // ---- The first thread's

  // Asked before a piece is fetched, which is done without the lock: nobody else adds any.
  bool wantsPiece() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_pieces.size() < kPiecesReady;
  }
  void addPiece(AheadSource::PiecePtr piece) {
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_pieces.push_back(std::move(piece));
    }
    m_pieceCame.notify_one();
  }
  // False when the worker has nothing to do before it is given another piece. Steps that are there come
  // first, also behind the end: what was done is repeated up to where the worker stopped.
  bool take(Step& step) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_somethingCame.wait(lock,
                         [&] { return !m_steps.empty() || (m_isWaiting && m_pieces.empty()) || m_hasEnded; });
    if (m_steps.empty()) {
      step = Step();
      return m_hasEnded;
    }
    step = std::move(m_steps.front());
    m_steps.pop_front();
    m_produced -= step.bytes.capacity();
    m_roomCame.notify_one();
    return true;
  }
  // Behind the step End: what the decompressor returned, or threw. No step follows it, so nothing here
  // changes any more.
  bool result() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_thrown) std::rethrow_exception(m_thrown);
    return m_ok;
  }
  // Only as many are kept as the limit allows, and small ones not at all: for those the allocator is as
  // fast.
  void giveBuffer(std::vector<char> buffer) {
    if (buffer.capacity() < kWorthKeeping) return;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_kept + buffer.capacity() > kMostKept) return;
    m_kept += buffer.capacity();
    m_buffers.push_back(std::move(buffer));
  }
  // Ends whatever the worker waits for. The first thread's way out, whether it has all it wanted or not.
  void stop() {
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_stop = true;
    }
    m_roomCame.notify_one();
    m_pieceCame.notify_one();
  }

 private:
  // Guards everything here. It is taken a few times for 64 KiB, and never for long.
  std::mutex m_mutex;
  // The worker waits for one of these two: room for a step, a piece to read. The end sets off both.
  std::condition_variable m_roomCame, m_pieceCame;
  // A step, that the worker waits for a piece that is not there, or its end: for the first thread.
  std::condition_variable m_somethingCame;
  // From the worker to the first thread, in order.
  std::deque<Step> m_steps;
  size_t m_produced = 0;  // bytes that they take
  // From the first thread, which alone reads the source, to the worker.
  std::deque<AheadSource::PiecePtr> m_pieces;
  // Back from the first thread, for the worker to fill again.
  std::vector<std::vector<char>> m_buffers;
  size_t m_kept = 0;  // bytes that these take
  // The worker waits for a piece, or has not woken since there is one.
  bool m_isWaiting = false;
  // Set by the first thread: nobody wants more.
  bool m_stop = false;
  // Set by the worker as the last that it does, with how it ended; read behind that.
  bool m_hasEnded = false, m_ok = false;
  std::exception_ptr m_thrown;
};

// What the decompressor sees. All of it belongs to the worker. It answers as the source and the output of
// the first thread would: the same pieces, cut at the same places, so that the decompressor makes the same
// steps. It asks nobody whether to abort; when the first thread is told to, it stops the worker.
class Recorder : public _mvDataSource, public _mvOutput {
 public:
  Recorder(Script& script, const LogBase& like) : m_script(script) { m_log.beginLike(like); }

  // Lines that no step has taken yet; the first thread's once the worker has ended.
  HeldLog& log() { return m_log; }

  bool canLend() override { return true; }
  bool lendBytes(unsigned most, const char*& bytes, unsigned& n, ProgressMonitor*, LogBase&) override {
    return handOut(Step::Lend, most, bytes, n);
  }
  bool readSourcePM(char* buffer, unsigned n, unsigned& numRead, ProgressMonitor*, LogBase&) override {
    const char* bytes = nullptr;
    if (!handOut(Step::Read, n, bytes, numRead)) return false;
    std::copy_n(bytes, numRead, buffer);
    return true;
  }
  // m_at may become negative: the bytes of the piece before stand in front of each.
  void takeBack(unsigned n) override {
    m_at -= n;
    record(Step::TakeBack, n);
  }
  // The bytes are copied, because they are the decompressor's and will be others by the time the first
  // thread comes to them. False once stopped, which the decompressor takes for a refusal and ends.
  bool _writeBytes(const char* bytes, unsigned n, _mvIoParams&, LogBase&) override {
    Step step;
    step.kind = Step::Write;
    step.n = n;
    step.bytes = m_script.buffer(n);
    step.bytes.assign(bytes, bytes + n);
    add(std::move(step));
    return !m_script.isStopped();
  }

  // Both bases have them; no decompressor seeks.
  bool fseekAbsolute64(long long, LogBase&) override { return false; }
  long long ftell64() override { return -1; }

 private:
  // As AheadSource does it, from the same pieces. A read that the source failed is recorded too: the first
  // thread meets the failure in its turn, with its line in the log.
  bool handOut(Step::Kind kind, unsigned most, const char*& bytes, unsigned& n) {
    n = 0;
    if (!m_piece || (m_at == m_piece->size && !m_piece->isLast())) {
      m_piece = m_script.nextPiece();
      m_at = 0;
      if (!m_piece) return false;
    }
    record(kind, most);
    if (m_piece->isFailed) return false;
    n = static_cast<unsigned>(std::min<long long>(most, m_piece->size - m_at));
    bytes = m_piece->bytes() + m_at;
    m_at += n;
    return !m_script.isStopped();
  }
  void record(Step::Kind kind, unsigned n) {
    Step step;
    step.kind = kind;
    step.n = n;
    add(std::move(step));
  }
  // Lines that were logged since the last step go along with this one, so that the first thread tells them
  // at the same place.
  void add(Step step) {
    if (!m_log.isEmpty()) {
      step.log = std::make_unique<HeldLog>();
      step.log->beginLike(m_log);
      m_log.tellTo(*step.log);
    }
    m_script.add(std::move(step));
  }

  Script& m_script;
  HeldLog m_log;
  AheadSource::PiecePtr m_piece;
  long long m_at = 0;
};

// The worker, from its making to its end. Members stand in the order in which they need each other: the
// thread last, because it uses all that is above it.
class Worker {
 public:
  Worker(Decode decode, const CodecOptions& options, const LogBase& like)
      : m_decode(decode), m_options(options), m_recorder(m_script, like) {}
  // Stopped first, or the join could wait for a worker that waits for room.
  ~Worker() {
    m_script.stop();
    m_thread.join();
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  // False where there is no thread to be had.
  bool start() {
    return m_thread.start([this] { run(); });
  }
  Script& script() { return m_script; }
  // Lines behind the last step come before the result, as they would from the decompressor itself.
  bool end(LogBase& log) {
    m_recorder.log().tellTo(log);
    return m_script.result();
  }

 private:
  // Memory that runs out in here, for a step too, is told like any failure. It has no monitor, and so asks
  // nothing of the application.
  void run() {
    bool ok = false;
    std::exception_ptr thrown;
    try {
      ok = m_decode(m_recorder, m_recorder, m_options, Io(m_recorder.log()));
    } catch (...) {
      thrown = std::current_exception();
    }
    m_script.end(ok, std::move(thrown));
  }

  const Decode m_decode;
  const CodecOptions m_options;
  Script m_script;
  Recorder m_recorder;
  WorkerThread m_thread;
};

// Does again what the worker did. False ends the run. A read is always a lending here, because the bytes
// themselves have been used already: what counts is that the source moves, is counted and asks whether to
// abort.
bool repeat(const Step& step, _mvDataSource& heard, _mvOutput& out, ProgressMonitor* pm, LogBase& log) {
  const char* bytes = nullptr;
  unsigned n = 0;
  if (step.log) step.log->tellTo(log);
  switch (step.kind) {
    case Step::Lend:
    case Step::Read:
      return heard.lend(step.n, bytes, n, pm, log);
    case Step::TakeBack:
      heard.takeBack(step.n);
      return true;
    case Step::Write:
      return out.writeBytesPM(step.bytes.data(), step.n, pm, log);
    case Step::End:
      break;
  }
  return true;
}

}  // namespace

// Where the size is known the caller has seen that it is worth a thread, which is started at once; else the
// calling thread begins by itself. Whatever is left unfinished here, behind a refusal or an exception, the
// end of `worker` stops.
bool expandAhead(Decode decode, AheadSource& ahead, _mvDataSource& heard, _mvOutput& out,
                 const CodecOptions& options, const Io& io) {
  Worker worker(decode, options, io.log);
  Script& script = worker.script();
  // Steps that the worker does again: those that had their effects before it did them, and those in front of
  // which everything has been logged.
  unsigned long long done = 0, told = 0;
  if (ahead.sizeIfKnown() < 0) {
    SmallStart start(ahead, heard, out, kWorthExpandingAhead, [&] { return worker.start(); });
    try {
      return decode(start, start, options, io);
    } catch (const SmallStart::Left&) {
      done = start.steps();
      // What was logged in front of the read that left has been told, too.
      told = done + 1;
      for (AheadSource::PiecePtr& piece : start.pieces()) script.addPiece(std::move(piece));
    }
  } else if (!worker.start()) {
    return decode(heard, out, options, io);
  }
  Step step;
  while (true) {
    // Before a step is repeated, so that the worker has something to do meanwhile.
    while (script.wantsPiece() && ahead.mayFetch(kMostRead)) script.addPiece(ahead.fetch());
    // A read that may wait is left until everything is done that could be done without it.
    if (!script.take(step)) {
      if (AheadSource::PiecePtr piece = ahead.fetch()) script.addPiece(std::move(piece));
      continue;
    }
    if (step.kind == Step::End) return worker.end(io.log);
    if (told > 0) {
      --told;
      step.log = nullptr;
    }
    if (done > 0) {
      --done;
    } else if (!repeat(step, heard, out, io.monitor, io.log)) {
      return false;
    }
    if (step.kind == Step::Write) script.giveBuffer(std::move(step.bytes));
  }
}

}  // namespace morvane
