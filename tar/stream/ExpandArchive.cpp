// The limit counts what the decompressor took when its turn came, not what was read ahead. So a bomb ends at
// the same byte with one thread and with many.
#include "tar/stream/ExpandArchive.h"

#include <algorithm>

#include "runtime/codec/ExpandAhead.h"
#include "runtime/io/AheadSource.h"
#include "runtime/parallel/WorkerPool.h"
#include "tar/stream/StreamSink.h"

namespace morvane {

namespace {

// A thread is not worth its start for less. What is not known yet may be.
bool mayBeWorthThread(_mvDataSource& source) {
  const long long size = source.sizeIfKnown();
  return size < 0 || size - std::max(source.ftell64(), 0LL) >= kWorthExpandingAhead;
}

}  // namespace

// With threads the decompressor runs ahead in one of its own, and here the same steps are done again in
// order, for the events and the limit; so the metered source stands on this side. A codec that can do better
// with several threads has a function for it.
bool expandArchive(const Codec& codec, _mvDataSource& source, _mvOutput& out, const CodecOptions& options,
                   long long maxRatio, const Io& io, const RatioLimit::Tell& tell) {
  if (workerCount(options.threads) == 0 || !mayBeWorthThread(source)) {
    MeteredSource metered(source);
    RatioLimit limited(out, metered, maxRatio, tell);
    return codec.decode(metered, limited, options, io);
  }
  AheadSource ahead(source, io.monitor, io.log);
  MeteredSource metered(ahead);
  RatioLimit limited(out, metered, maxRatio, tell);
  const bool ok = codec.decodeAhead ? codec.decodeAhead(ahead, metered, limited, options, io)
                                    : expandAhead(codec.decode, ahead, metered, limited, options, io);
  // What was read beyond the compressed data is handed back where the source can be moved, so that it stands
  // where one thread would have left it.
  ahead.giveBack();
  return ok;
}

// Small files may go behind, because all pieces come within this call, and it ends behind the last of them.
// Workers are out of the target on every way from here: also when a callback throws, whose exception goes on
// afterwards.
bool extractArchive(const Codec& codec, _mvDataSource& source, StreamingUntar& engine,
                    const CodecOptions& options, long long maxRatio, const Io& io) {
  engine.beginBehind();
  HeldLog said;
  said.beginLike(io.log);
  StreamSink direct(engine), ordered(engine, said, io);
  const auto tell = [&](const char* word, long long value) { return ordered.failInTurn(word, value); };
  bool isExpanded = false, isPlaced = false;
  try {
    isExpanded = engine.writesBehind() ? expandArchive(codec, source, ordered, options, maxRatio,
                                                       Io(said, io.monitor, io.event), tell)
                                       : expandArchive(codec, source, direct, options, maxRatio, io);
    isPlaced = engine.endBehind(io);
  } catch (...) {
    engine.endBehindQuietly();
    said.tellTo(io.log);
    throw;
  }
  // Where a file of before has failed, with one thread there would have been nothing more to say.
  isPlaced ? said.tellTo(io.log) : io.log.LogError(StreamSink::kNextFailed);
  // Behind earlier files, whose lines come before those of the member that the data end in.
  if (!isExpanded) engine.namePart(io);
  return isPlaced && isExpanded;
}

}  // namespace morvane
