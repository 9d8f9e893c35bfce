// Expands a compressed archive into an engine: within the limit MaxRatio, and, where Threads allows, ahead of
// the engine, which writes small files behind it.
#pragma once

#include "runtime/codec/Codec.h"
#include "tar/stream/RatioLimit.h"

namespace morvane {

class StreamingUntar;
struct Io;

// `source` stands behind the codec's header. The output is the engine's, and is used by the calling thread
// alone, as the source is. False, with the reason in the log, when the data are damaged or the output refuses
// a piece. `tell` is for an output that has something of before to tell first, see RatioLimit.
bool expandArchive(const Codec& codec, _mvDataSource& source, _mvOutput& out, const CodecOptions& options,
                   long long maxRatio, const Io& io, const RatioLimit::Tell& tell = {});

// The same into an engine that makes files, whose run has begun and is finished by the caller. False also
// where a file that was still to be written could not be; that is in the log. Exceptions of callbacks pass
// through, and no thread is left behind them.
bool extractArchive(const Codec& codec, _mvDataSource& source, StreamingUntar& engine,
                    const CodecOptions& options, long long maxRatio, const Io& io);

}  // namespace morvane
