// Expands a compressed archive into an engine: within the limit MaxRatio, and ahead of the engine where
// Threads allows.
#pragma once

#include "runtime/codec/Codec.h"

namespace morvane {

struct Io;

// `source` stands behind the codec's header. The output is the engine's, and is used by the calling thread
// alone, as the source is. False, with the reason in the log, when the data are damaged or the output refuses
// a piece.
bool expandArchive(const Codec& codec, _mvDataSource& source, _mvOutput& out, const CodecOptions& options,
                   long long maxRatio, const Io& io);

}  // namespace morvane
