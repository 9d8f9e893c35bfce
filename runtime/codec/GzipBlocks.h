// gzip written by several threads. One thread writes by GzipEncoder (Codec.cpp) instead.
#pragma once

#include <memory>

#include "runtime/codec/Codec.h"

namespace morvane {

// One member like any other. Its blocks of 256 KiB are compressed side by side, each with the 32 KiB in front
// of it as dictionary and ended at a byte's end: that is some bytes a block more than one thread writes. The
// bytes depend on nothing but the archive, the level, and the library.
std::unique_ptr<Encoder> makeGzipBlockEncoder(const CodecOptions& options);

}  // namespace morvane
