// A deflate compressor that gives up some size for speed (the word FastDeflate). Built over ISA-L where that
// was found; otherwise there is none, and zlib's own fast levels serve.
#pragma once

#include <memory>

namespace morvane {

class DataBuffer;

class FastDeflate {
 public:
  FastDeflate();
  ~FastDeflate();
  FastDeflate(const FastDeflate&) = delete;
  FastDeflate& operator=(const FastDeflate&) = delete;

  // Whether this build has one.
  static bool isAvailable();
  // Level 1 (fastest) to 3. False when there is no memory.
  bool begin(int level);
  // Takes the whole input and appends what became ready; the last call brings out everything.
  bool run(const unsigned char* bytes, unsigned n, bool last, DataBuffer& to);

 private:
  struct Engine;
  std::unique_ptr<Engine> m_engine;
};

}  // namespace morvane
