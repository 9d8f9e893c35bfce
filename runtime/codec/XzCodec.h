// xz streams (the .xz file format 1.1) and the older .lzma, by liblzma where the build has it.
#pragma once

#include <memory>

#include "runtime/codec/Codec.h"

namespace morvane {

// One stream with CRC-64 checksums, at options.level (1 to 9; 0: 6). Where the build has no xz, one that
// is not there. A level above the highest is the highest. With several threads a large
// archive has several blocks.
std::unique_ptr<Encoder> makeXzEncoder(const CodecOptions& options);

// Expands every stream to the source's end, with the padding that may stand between them, checksums
// compared. False, with the reason in the log, for data that are damaged, cut, followed by something else,
// or that claim a dictionary over options.maxWindowBytes. A success leaves the source at its end.
bool decodeXz(_mvDataSource& source, _mvOutput& out, const CodecOptions& options, const Io& io);

}  // namespace morvane
