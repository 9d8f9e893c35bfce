// bzip2 data expanded by several threads. The way of bzip2 for Codec::decodeAhead; one thread uses
// MorvaneBzip2.
#pragma once

#include "runtime/codec/Codec.h"

namespace morvane {

class AheadSource;

// As expandAhead, for bzip2. The blocks of the streams are looked for ahead of their turn and expanded side
// by side. In a block that is not what it seemed, or is damaged, one thread goes on from its beginning, and
// to the end of the data. Memory: for each thread two blocks, as they are and expanded (at most 4 MiB each;
// what comes of a block may be 46 MB, and is then made anew in its turn, piece by piece), and the library's 4
// MiB.
bool expandBzip2Ahead(AheadSource& ahead, _mvDataSource& heard, _mvOutput& out, const CodecOptions& options,
                      const Io& io);

}  // namespace morvane
