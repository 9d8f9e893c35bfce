// bzip2 written by several threads. One thread writes by MorvaneBzip2 instead, a single stream.
#pragma once

#include <memory>

#include "runtime/codec/Codec.h"

namespace morvane {

// Each 900,000 bytes of the archive are a stream of their own, compressed side by side; whoever reads bzip2
// reads the streams one behind the other. The bytes depend on nothing but the archive and the library.
// `options` asks for several threads; its level is not looked at, for blocks are always the largest.
std::unique_ptr<Encoder> makeBzip2BlockEncoder(const CodecOptions& options);

}  // namespace morvane
