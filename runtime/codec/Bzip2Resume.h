// Begins in the middle of a bzip2 stream: for a stream whose first blocks were expanded elsewhere, and
// whose rest is to be read by the library.
#pragma once

#include <string>

namespace morvane {

// What a library that has not seen the first part of a stream can be given in its place: a stream's beginning
// with one small block.
struct Bzip2Beginning {
  std::string
      bytes;  // the lowest bits of the last byte are free, as many as stand before the next byte's first
  unsigned output = 0;  // bytes that come of it, which nobody wants
};

// The block ends `phase` bits (0 to 7) behind a byte's first, and is of the sum `crc`, which is the
// combined one of all blocks up to there. So the rest of the stream stands behind it as in its own place,
// with its own last checksum. `level` is the stream's, 1 to 9. The output is some ten bytes. False for lack
// of memory; also where no try comes out at that bit, which is so unlikely that it has no reason of its own.
bool makeBzip2Beginning(int level, unsigned phase, unsigned crc, Bzip2Beginning& beginning);

}  // namespace morvane
