// Writing compressed archives with several threads: the bytes against those of one, and what ends it.
#include <sched.h>
#include <unistd.h>

#include <csignal>

#include "FailingSystemCalls.h"
#include "ParallelCodecSupport.h"
#include "runtime/io/BufferedDataSource.h"

namespace morvane::testing {
namespace {

std::string decode(Compression compression, const std::string& bytes) {
  CodecOptions options;
  options.verifyGzip = options.gzipAllMembers = true;
  TricklingSource source(bytes, 100'000);
  BufferedDataSource buffered(source);
  LimitedOutput out;
  _mvLogger log;
  const Codec& codec = codecOf(compression);
  EXPECT_TRUE(!codec.readHeader || codec.readHeader(buffered, Io(log)));
  EXPECT_TRUE(codec.decode(buffered, out, options, Io(log))) << log.text();
  return out.bytes;
}

TEST(ParallelEncoders, BytesDependOnWhetherThereAreThreads) {
  constexpr size_t kBlock = 256 * 1024, kBzip2Block = 900'000;
  for (const Compression compression : compressionsWritten()) {
    for (const size_t n : {size_t{1}, kBlock - 1, kBlock, kBlock + 1, 2 * kBzip2Block, size_t{3'000'001}}) {
      const std::string bytes = contents(n);
      for (const long long fast : {0, 1, 3}) {
        if (fast > 0 && compression != Compression::Gzip) continue;
        std::string first;
        for (const long long threads : {2, 3, 8}) {
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

// What the threads have done by the end of the archive goes out bit by bit.
TEST(ParallelEncoders, TheEndTakesLittleMemory) {
  const std::string bytes = noise(9'000'000, 6);
  for (const Compression compression : compressionsWritten()) {
    CodecOptions options;
    options.threads = 8;
    options.level = 1;
    mostAtOnce = 0;
    ASSERT_TRUE(decode(compression, encode(compression, bytes, 20'000, options)) == bytes);
    EXPECT_LT(mostAtOnce, 1'500'000u) << compressionName(compression);
  }
}

// Where there is one processor, where a library's threads would not pay, and where the system gives none.
TEST(ParallelEncoders, OneThreadIsEnough) {
  const std::string bytes = contents(1'500'000);
  const auto with = [&](Compression compression, long long threads, long long level) {
    CodecOptions options;
    options.threads = threads;
    options.level = level;
    return encode(compression, bytes, bytes.size(), options);
  };
  cpu_set_t all, one;
  ASSERT_EQ(0, sched_getaffinity(0, sizeof all, &all));
  CPU_ZERO(&one);
  CPU_SET(static_cast<size_t>(sched_getcpu()), &one);
  for (const Compression compression : compressionsWritten()) {
    const char* const name = compressionName(compression);
    const std::string alone = with(compression, 1, 1), side = with(compression, 2, 1);
    ASSERT_EQ(0, sched_setaffinity(0, sizeof one, &one));
    EXPECT_TRUE(alone == with(compression, 0, 1)) << name;
    EXPECT_TRUE(side == with(compression, 2, 1)) << name;
    ASSERT_EQ(0, sched_setaffinity(0, sizeof all, &all));
    const bool isLibrarys = compression == Compression::Zstd || compression == Compression::Xz;
    EXPECT_TRUE(
        withoutThreads([&] { return with(compression, 4, 1) == (isLibrarys ? alone : side); }).value_or(true))
        << name;
  }
  if (isBuilt(Compression::Zstd)) {
    EXPECT_TRUE(with(Compression::Zstd, 1, 20) == with(Compression::Zstd, 2, 20));
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
  ClsTar plain;
  ASSERT_TRUE(plain.AddDirRoot(dir / "tree") && plain.WriteTar(dir / "plain.tar"));
  for (const auto& each : kCases) {
    const std::string path = dir / ("a.tar."s + each.name);
    TarWith tar("Threads=4,Level=1");
    const bool isWritten = tar.AddDirRoot(dir / "tree") && (tar.*each.write)(path, nullptr);
    if (logHas(tar, "This build has no ")) continue;
    ASSERT_TRUE(isWritten) << logOf(tar);
    must(dir,
         each.program + " -t "s + path + " && " + each.program + " -dc < " + path + " | cmp - plain.tar");
  }
}

// Aborts when it is asked first, and looks who would be given SIGINT then.
struct AbortAtOnce : ProgressEvent {
  void onAbortCheck(bool& abort) override {
    abort = true;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
      const std::string status = readFile(task.path() / "status");
      const std::string mask = status.substr(status.find("SigBlk:") + 7);
      if ((std::stoull(mask, nullptr, 16) >> (SIGINT - 1) & 1) == 0)
        takers += task.path().filename().string();
    }
  }
  std::string takers;
};

// Where a library's threads have seconds of work, whoever waits for them is asked, and hears signals.
TEST(ParallelEncoders, WaitingForALibraryMayBeAborted) {
  const std::string bytes = contents(100'000'000), some = noise(3'000'000, 7);
  const std::string self = std::to_string(getpid());
  for (const auto& [compression, level] : {std::pair{Compression::Xz, 6}, {Compression::Zstd, 19}}) {
    if (!isBuilt(compression)) continue;
    for (const std::string* each : {&bytes, &some}) {
      CodecOptions options;
      options.threads = 2;
      options.level = level;
      const auto encoder = codecOf(compression).makeEncoder(options);
      AbortAtOnce event;
      ProgressMonitor monitor(event, 1, 0, 0);
      _mvLogger log;
      const Io io(log, &monitor);
      DataBuffer ready;
      const auto* const data = reinterpret_cast<const unsigned char*>(each->data());
      const bool isAdded = encoder->add(data, static_cast<unsigned>(each->size()), ready, io);
      EXPECT_TRUE(each == &some || !isAdded) << compressionName(compression);
      bool isOut = false;
      EXPECT_FALSE(isAdded && encoder->finish(ready, isOut, io)) << compressionName(compression);
      EXPECT_TRUE(has(log.text(), "Aborted by application.")) << log.text();
      EXPECT_EQ(self, event.takers) << compressionName(compression);
    }
  }
}

}  // namespace
}  // namespace morvane::testing
