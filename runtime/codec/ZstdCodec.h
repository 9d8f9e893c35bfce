// zstd frames (RFC 8878), by libzstd where the build has it.
#pragma once

#include <memory>

#include "runtime/codec/Codec.h"

namespace morvane {

// One frame with a checksum, at options.level (1 to 22; 0: 3). Where the build has no zstd, one that
// is not there. A level above the highest is the highest.
std::unique_ptr<Encoder> makeZstdEncoder(const CodecOptions& options);

// Expands every frame to the source's end, skippable ones passed over, checksums compared. False, with the
// reason in the log, for data that are damaged, cut, followed by something else, or that claim a window
// over options.maxWindowBytes. A success leaves the source at its end.
bool decodeZstd(_mvDataSource& source, _mvOutput& out, const CodecOptions& options, const Io& io);

}  // namespace morvane
