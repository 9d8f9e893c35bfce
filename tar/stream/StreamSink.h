// What a decompressor writes into: hands each piece to the push engine.
#pragma once

#include "runtime/io/Io.h"
#include "runtime/io/_mvOutput.h"
#include "runtime/log/HeldLog.h"
#include "tar/place/RunLimits.h"
#include "tar/stream/StreamingUntar.h"

namespace morvane {

// It has no end: whoever runs the decompressor finishes the stream behind it. The engine is not owned. It
// keeps no bytes itself. It is used on the engine's thread. A failure is the engine's, which stays as it is
// for whoever finishes the run.
class StreamSink : public _mvOutput {
 public:
  // Where the decompressor is stopped: at its own end, where it checks its checksum, or, for one member into
  // an output, once that is complete. It then takes the refusal for a failed write, and what it returns says
  // nothing.
  enum class Until { End, Member };
  // The engine must outlive it.
  explicit StreamSink(StreamingUntar& stream, Until until = Until::End) : m_stream(stream), m_until(until) {}
  // For an engine that writes behind: the decompressor has `said` for its log, and the engine `io`. What the
  // one says comes behind the files that the engine has under way then, and so in its place.
  StreamSink(StreamingUntar& stream, HeldLog& said, const Io& io)
      : m_stream(stream), m_until(Until::End), m_said(&said), m_io(&io) {}

  // Pieces that arrive behind the end of the archive succeed and are ignored. Behind the engine's line there
  // is one of this room where a whole archive is extracted, as the logs have always had. False refuses the
  // piece, and ends the decompressor.
  bool _writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) override {
    if (m_said && !m_said->isEmpty() && !comeUp()) return false;
    LogBase& engines = m_io ? m_io->log : log;
    bool finished = false;
    const auto* const data = reinterpret_cast<const unsigned char*>(bytes);
    const bool taken = m_stream.StreamingUntarNext(data, n, finished, io.monitor(), engines);
    if (m_until == Until::Member) return taken && m_stream.completeMembers() == 0;
    if (!taken) engines.LogError(kNextFailed);
    return taken;
  }
  // failAtLimit, behind what the engine has under way.
  bool failInTurn(const char* word, long long value) { return comeUp() && failAtLimit(word, value, *m_io); }

  static constexpr char kNextFailed[] = "StreamingUntarNext failed.";

 private:
  // Tells what was said. False where a file of before ends the run: that is the failure, and what was said is
  // forgotten.
  bool comeUp() {
    if (m_stream.comeUp(*m_io)) {
      m_said->tellTo(m_io->log);
      return true;
    }
    m_said->beginLike(m_io->log);
    m_io->log.LogError(kNextFailed);
    return false;
  }

  // Borrowed; begun by whoever made the sink. What it has completed decides where one member is wanted.
  StreamingUntar& m_stream;
  const Until m_until;
  // Both, or neither.
  HeldLog* const m_said = nullptr;
  const Io* const m_io = nullptr;
};

}  // namespace morvane
