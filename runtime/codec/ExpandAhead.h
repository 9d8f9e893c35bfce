// Expands an archive in a thread of its own, ahead of whoever takes what comes out.
#pragma once

#include "runtime/codec/Codec.h"

namespace morvane {

class AheadSource;
struct Io;

// Compressed bytes that are worth a thread; they are about a megabyte of members.
constexpr long long kWorthExpandingAhead = 256 * 1024;

// Does what decode(heard, out, ...) does, with the same events, bytes and log, by reading `ahead` before
// its time. `heard` is `ahead`, or stands in front of it and counts what is taken; it is read as the
// decompressor reads, when the turn of that comes. Source, output, monitor and log are used by the calling
// thread alone. Where there is no thread to be had, it just decodes; so it does where the size of `ahead`
// is not known, until it is seen to be worth a thread. Memory: 2 MiB of what came out, as much kept for
// what will, and 1 MiB of what goes in, beside the decompressor's. What the decompressor throws is thrown
// here, in its turn.
bool expandAhead(Decode decode, AheadSource& ahead, _mvDataSource& heard, _mvOutput& out,
                 const CodecOptions& options, const Io& io);

}  // namespace morvane
