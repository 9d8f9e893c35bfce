// The limit counts what the decompressor took when its turn came, not what was read ahead.
#include "tar/stream/ExpandArchive.h"

#include <algorithm>

#include "runtime/codec/ExpandAhead.h"
#include "runtime/io/AheadSource.h"
#include "runtime/parallel/WorkerPool.h"
#include "tar/stream/RatioLimit.h"
#include "tar/stream/StreamSink.h"

namespace morvane {

namespace {

// What is not known yet may be.
bool mayBeWorthThread(_mvDataSource& source) {
  const long long size = source.sizeIfKnown();
  return size < 0 || size - std::max(source.ftell64(), 0LL) >= kWorthExpandingAhead;
}

}  // namespace

bool expandArchive(const Codec& codec, _mvDataSource& source, _mvOutput& out, const CodecOptions& options,
                   long long maxRatio, const Io& io) {
  if (workerCount(options.threads) == 0 || !mayBeWorthThread(source)) {
    MeteredSource metered(source);
    RatioLimit limited(out, metered, maxRatio);
    return codec.decode(metered, limited, options, io);
  }
  AheadSource ahead(source, io.monitor, io.log);
  MeteredSource metered(ahead);
  RatioLimit limited(out, metered, maxRatio);
  const bool ok = codec.decodeAhead ? codec.decodeAhead(ahead, metered, limited, options, io)
                                    : expandAhead(codec.decode, ahead, metered, limited, options, io);
  ahead.giveBack();
  return ok;
}

bool extractArchive(const Codec& codec, _mvDataSource& source, StreamingUntar& engine,
                    const CodecOptions& options, long long maxRatio, const Io& io) {
  engine.beginBehind();
  StreamSink sink(engine);
  bool isExpanded = false;
  try {
    isExpanded = expandArchive(codec, source, sink, options, maxRatio, io);
  } catch (...) {
    engine.endBehindQuietly();
    throw;
  }
  const bool isPlaced = engine.endBehind(io);
  if (!isExpanded) engine.namePart(io);
  return isPlaced && isExpanded;
}

}  // namespace morvane
