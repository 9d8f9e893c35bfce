// A deflate compressor that gives up some size for speed (the word FastDeflate). Built over ISA-L where that
// was found; otherwise there is none, and zlib's own fast levels serve.
#pragma once

#include <memory>

namespace morvane {

class DataBuffer;

// One stream at a time. What comes out is raw deflate (RFC 1951) that any inflater reads, but other bytes
// than zlib's for the same input: an archive written with it cannot be compared byte for byte with one
// written without. For MorvaneDeflate and GzipBlocks, which take zlib where there is none.
class FastDeflate {
 public:
  FastDeflate();
  ~FastDeflate();
  FastDeflate(const FastDeflate&) = delete;
  FastDeflate& operator=(const FastDeflate&) = delete;

  // Whether this build has one. The same answer for the life of the process.
  static bool isAvailable();
  // Level 1 (fastest) to 3. False when there is no memory. A stream begun before is given up. Called only
  // where isAvailable() says true.
  bool begin(int level);
  // The same for a block that others stand in front of: strings of the last n bytes of those, at most 32 KiB,
  // are taken from there. The memory of a stream before is used again.
  bool beginBehind(int level, const unsigned char* before, unsigned n);
  // Takes the whole input and appends what became ready; the last call brings out everything. `last` belongs
  // to the end of the data and may come with none; after it only begin may follow. False when the library
  // refuses, which valid input does not bring about; throws std::bad_alloc when `to` cannot grow.
  bool run(const unsigned char* bytes, unsigned n, bool last, DataBuffer& to);
  // Takes a whole block and brings out everything, up to a byte's end, so that another may stand behind it.
  bool runBlock(const unsigned char* bytes, unsigned n, bool last, DataBuffer& to);

 private:
  // The library's state lies behind a pointer, so that its header is seen by one source file only.
  struct Engine;
  std::unique_ptr<Engine> m_engine;
};

}  // namespace morvane
