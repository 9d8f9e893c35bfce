// What zlib is told for deflate data without a frame: gzip's is written and read by this room itself.
#pragma once

namespace morvane {

// A window's size as a power of two, the largest there is, and negative for raw data.
constexpr int kRawDeflate = -15;
// memLevel: what deflateInit takes by itself, so that the bytes are those of zlib's default.
constexpr int kDefaultMemory = 8;

}  // namespace morvane
