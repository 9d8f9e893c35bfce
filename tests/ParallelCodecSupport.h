// What tests of compressions with several threads share.
#pragma once

#include "ArchiveSupport.h"
#include "runtime/codec/Codec.h"
#include "runtime/io/Io.h"
#include "runtime/io/OutputDataBuffer.h"
#include "runtime/log/_mvLogger.h"

namespace morvane::testing {

// Whether the build has the library that it needs.
inline bool isBuilt(Compression compression) {
  _mvLogger log;
  return codecOf(compression).makeEncoder({})->isThere(Io(log));
}

inline std::vector<Compression> compressionsWritten() {
  std::vector<Compression> written = {Compression::Gzip, Compression::Bzip2};
  for (const Compression compression : {Compression::Zstd, Compression::Xz})
    if (isBuilt(compression)) written.push_back(compression);
  return written;
}

// The most that became ready in one call at the end of an archive.
inline unsigned mostAtOnce = 0;

inline std::string encode(Compression compression, const std::string& bytes, size_t piece,
                          const CodecOptions& options) {
  const auto encoder = codecOf(compression).makeEncoder(options);
  DataBuffer all, ready;
  OutputDataBuffer out(all);
  _mvLogger log;
  const Io io(log);
  EXPECT_TRUE(encoder->begin(out, io));
  for (size_t at = 0; at < bytes.size(); at += piece) {
    const size_t n = std::min(piece, bytes.size() - at);
    ready.clear();
    const auto* const data = reinterpret_cast<const unsigned char*>(bytes.data()) + at;
    EXPECT_TRUE(encoder->add(data, static_cast<unsigned>(n), ready, io) && all.append(ready));
  }
  for (bool isOut = false, isGood = true; isGood && !isOut;) {
    ready.clear();
    isGood = encoder->finish(ready, isOut, io) && all.append(ready);
    EXPECT_TRUE(isGood);
    mostAtOnce = std::max(mostAtOnce, ready.getSize());
  }
  EXPECT_TRUE(encoder->end(out, static_cast<long long>(bytes.size()), io)) << log.text();
  return textOf(all);
}

// Text, noise and long runs, about as an archive has them.
inline std::string contents(size_t n) {
  std::string bytes = noise(n / 8, 5);
  while (bytes.size() < n)
    bytes += "line " + std::to_string(bytes.size() % 977) + std::string(bytes.size() % 301, '\0');
  return bytes.substr(0, n);
}

inline int threadsOfProcess() {
  return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator()));
}

}  // namespace morvane::testing
