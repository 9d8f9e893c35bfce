// Compressions with several threads: the bytes, the events and the log against those of one.
#include "ArchiveSupport.h"
#include "runtime/codec/Codec.h"
#include "runtime/io/BufferedDataSource.h"
#include "runtime/io/Io.h"
#include "runtime/io/OutputDataBuffer.h"
#include "runtime/log/_mvLogger.h"

namespace morvane::testing {
namespace {

constexpr Compression kWritten[] = {Compression::Gzip, Compression::Bzip2, Compression::Zstd,
                                    Compression::Xz};

std::string encode(Compression compression, const std::string& bytes, size_t piece,
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
  ready.clear();
  EXPECT_TRUE(encoder->finish(ready, io) && all.append(ready));
  EXPECT_TRUE(encoder->end(out, static_cast<long long>(bytes.size()), io)) << log.text();
  return textOf(all);
}

std::string decode(Compression compression, const std::string& bytes) {
  CodecOptions options;
  options.verifyGzip = options.gzipAllMembers = true;
  TricklingSource source(bytes, 100'000);
  BufferedDataSource buffered(source);
  LimitedOutput out;
  _mvLogger log;
  EXPECT_TRUE(codecOf(compression).decode(buffered, out, options, Io(log))) << log.text();
  return out.bytes;
}

// Text, noise and long runs, about as an archive has them.
std::string contents(size_t n) {
  std::string bytes = noise(n / 8, 5);
  while (bytes.size() < n)
    bytes += "line " + std::to_string(bytes.size() % 977) + std::string(bytes.size() % 301, '\0');
  return bytes.substr(0, n);
}

TEST(ParallelEncoders, BytesDependOnWhetherThereAreThreads) {
  constexpr size_t kBlock = 256 * 1024, kBzip2Block = 900'000;
  for (const Compression compression : kWritten) {
    for (const size_t n : {size_t{1}, kBlock - 1, kBlock, kBlock + 1, 2 * kBzip2Block, size_t{3'000'001}}) {
      const std::string bytes = contents(n);
      for (const long long fast : {0, 1, 3}) {
        if (fast > 0 && compression != Compression::Gzip) continue;
        std::string first;
        for (const long long threads : {2, 3, 8, 0}) {
          CodecOptions options;
          options.threads = threads;
          options.fastDeflate = fast;
          options.level = compression == Compression::Xz ? 1 : 0;
          const size_t piece = threads == 3 ? 20'000 : n;
          const std::string packed = encode(compression, bytes, piece, options);
          if (first.empty()) first = packed;
          ASSERT_TRUE(first == packed) << compressionName(compression) << " " << n << " " << threads;
        }
        ASSERT_TRUE(decode(compression, first) == bytes) << compressionName(compression) << " " << n;
      }
    }
  }
}

TEST(ParallelEncoders, OthersReadThem) {
  ScratchDir dir;
  writeFile(dir / "tree/file", contents(2'500'000));
  const struct {
    const char *name, *program;
    bool (ClsTar::*write)(const XString&, ProgressEvent*);
  } kCases[] = {{"gz", "gzip", &ClsTar::WriteTarGz},
                {"bz2", "bzip2", &ClsTar::WriteTarBz2},
                {"zst", "zstd -q", &ClsTar::WriteTarZst},
                {"xz", "xz", &ClsTar::WriteTarXz}};
  TarWith plain("Reproducible=1");
  ASSERT_TRUE(plain.AddDirRoot(dir / "tree") && plain.WriteTar(dir / "plain.tar"));
  for (const auto& each : kCases) {
    const std::string path = dir / ("a.tar."s + each.name);
    TarWith tar("Threads=4,Level=1,Reproducible=1");
    ASSERT_TRUE(tar.AddDirRoot(dir / "tree") && (tar.*each.write)(path, nullptr)) << logOf(tar);
    must(dir,
         each.program + " -t "s + path + " && " + each.program + " -dc < " + path + " | cmp - plain.tar");
  }
}

}  // namespace
}  // namespace morvane::testing
