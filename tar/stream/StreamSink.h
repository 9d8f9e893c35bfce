// What a decompressor writes into: hands each piece to the push engine.
#pragma once

#include "runtime/io/_mvOutput.h"
#include "runtime/log/LogBase.h"
#include "tar/stream/StreamingUntar.h"

namespace morvane {

// It has no end: whoever runs the decompressor finishes the stream behind it. The engine is not owned. It
// keeps no bytes itself.
class StreamSink : public _mvOutput {
 public:
  // The engine must outlive it.
  explicit StreamSink(StreamingUntar& stream) : m_stream(stream) {}

  // Pieces that arrive behind the end of the archive succeed and are ignored. So a decompressor runs to its
  // own end, where it checks its checksum. Behind the engine's line there is one of this room, as the logs
  // have always had.
  bool _writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) override {
    bool finished = false;
    const auto* const data = reinterpret_cast<const unsigned char*>(bytes);
    if (m_stream.StreamingUntarNext(data, n, finished, io.monitor(), log)) return true;
    log.LogError("StreamingUntarNext failed.");
    return false;
  }

 private:
  // Borrowed; begun by whoever made the sink.
  StreamingUntar& m_stream;
};

}  // namespace morvane
