// Reading compressed archives with several threads: the bytes, the events and the log against those of one.
#include <malloc.h>
#include <unistd.h>

#include <thread>

#include "ParallelCodecSupport.h"
#include "runtime/codec/ExpandAhead.h"
#include "runtime/io/AheadSource.h"

namespace morvane::testing {
namespace {

// Everything that the application hears, in its order; it may abort or throw at the n-th of it.
struct Heard : ProgressEvent {
  void note(const std::string& what, bool* abort = nullptr) {
    all.push_back(what);
    threads = std::max(threads, threadsOfProcess());
    if (abort && static_cast<int>(all.size()) == abortAt) *abort = true;
    if (static_cast<int>(all.size()) == throwAt) throw std::runtime_error("thrown");
  }
  void onAbortCheck(bool& abort) override { note("abort?", &abort); }
  void onProgress(int percent, bool& abort) override { note("percent " + std::to_string(percent), &abort); }
  void onInfo(const char* name, const char* value) override { note(name + " "s + value); }
  void onTarEntry(const char* path, long long size, bool, bool&) override {
    note(path + " "s + std::to_string(size));
  }
  void onTarHeader(const TarMemberInfo& member) override { note("header "s + member.path); }
  std::vector<std::string> all;
  int abortAt = 0, throwAt = 0;
  int threads = 0;  // the most that the process had meanwhile
};

// An application's source is read when one thread would read it: whoever feeds it may wait for what it
// brought about.
class NotingSource : public TricklingSource {
 public:
  NotingSource(const std::string& bytes, unsigned most, Heard* heard)
      : TricklingSource(bytes, most), m_heard(heard) {}
  bool readSourcePM(char* buffer, unsigned int n, unsigned int& numRead, ProgressMonitor* pm,
                    LogBase& log) override {
    if (m_heard) m_heard->all.push_back("read");
    return TricklingSource::readSourcePM(buffer, n, numRead, pm, log);
  }

 private:
  Heard* const m_heard;
};

struct Outcome {
  bool ok = false;
  int threads = 0;  // not compared
  std::string log;
  std::vector<std::string> events;
  std::map<std::string, std::string> tree;
  bool operator==(const Outcome& other) const {
    return ok == other.ok && log == other.log && events == other.events && tree == other.tree;
  }
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  out << outcome.ok << ", " << outcome.tree.size() << " in the tree, " << outcome.log;
  for (const std::string& event : outcome.events) out << event << "; ";
  return out;
}

struct ReadCase {
  std::string words = "Profile=usual,Restore=off";
  int abortAt = 0, throwAt = 0;
  unsigned trickle = 0;  // bytes that a source of the application's gives at a time; 0: a file
  bool notesReads = false;
};

Outcome readWith(long long threads, const std::string& bytes, const ReadCase& each,
                 bool (ClsTar::*method)(_mvDataSource&, ProgressEvent*)) {
  ScratchDir dir;
  fs::create_directory(dir / "out");
  TarWith tar(each.words + ",Threads=" + std::to_string(threads), dir / "out");
  tar.put_AbortCheckMs(1'000'000);
  Heard heard;
  heard.abortAt = each.abortAt;
  heard.throwAt = each.throwAt;
  Outcome outcome;
  if (each.trickle > 0) {
    NotingSource source(bytes, each.trickle, each.notesReads ? &heard : nullptr);
    outcome.ok = (tar.*method)(source, &heard);
  } else {
    writeFile(dir / "archive", bytes);
    _mvFileDataSource source;
    _mvLogger log;
    EXPECT_TRUE(source.openDataSourceFile(XString(dir / "archive"), log));
    outcome.ok = (tar.*method)(source, &heard);
  }
  outcome.log = logOf(tar);
  outcome.events = heard.all;
  outcome.threads = heard.threads;
  outcome.tree = treeOf(dir / "out");
  for (std::string* text : {&outcome.log}) {
    for (size_t at = 0; (at = text->find(dir.path(), at)) != std::string::npos;)
      text->erase(at, dir.path().size());
  }
  for (std::string& event : outcome.events) {
    const size_t at = event.find(dir.path());
    if (at != std::string::npos) event.erase(at, dir.path().size());
  }

  return outcome;
}

using ReadMethod = bool (ClsTar::*)(_mvDataSource&, ProgressEvent*);

struct Packed {
  const char* name;
  std::string bytes;
  ReadMethod method;
};

// Archives of some hundred members, each of them well over what is worth a thread.
std::vector<Packed> packedArchives(const ScratchDir& dir) {
  ArchiveBuilder builder;
  for (size_t i = 0; i < 60; ++i) {
    const std::string data = noise(i * 210, static_cast<unsigned>(i)) + contents(i * 70);
    builder.add({"file" + std::to_string(i), data});
  }
  builder.add({"zeros", std::string(700'000, '\0')});
  const std::string tar = builder.bytes();
  writeFile(dir / "plain.tar", tar);
  std::vector<Packed> packed;
  for (const long long threads : {1, 4}) {
    CodecOptions options;
    options.threads = threads;
    options.level = 1;
    for (const auto& [compression, method] :
         {std::pair<Compression, ReadMethod>{Compression::Gzip, &ClsTar::UntarGz},
          {Compression::Bzip2, &ClsTar::UntarBz2},
          {Compression::Zstd, &ClsTar::UntarZst},
          {Compression::Xz, &ClsTar::UntarXz}}) {
      if (!isBuilt(compression)) continue;
      packed.push_back({compressionName(compression), encode(compression, tar, 20'000, options), method});
    }
  }
  must(dir, "compress -c plain.tar > plain.tar.Z; bzip2 -1 -c plain.tar > small.bz2");
  packed.push_back({"compress", readFile(dir / "plain.tar.Z"), &ClsTar::UntarZ});
  packed.push_back({"small bzip2", readFile(dir / "small.bz2"), &ClsTar::UntarBz2});
  const std::string half = tar.substr(0, tar.size() / 2), rest = tar.substr(half.size());
  packed.push_back({"two members",
                    encode(Compression::Gzip, half, 20'000, {}) + encode(Compression::Gzip, rest, 512, {}),
                    &ClsTar::UntarAny});
  packed.push_back({"two streams",
                    encode(Compression::Bzip2, half, 20'000, {}) + encode(Compression::Bzip2, rest, 512, {}) +
                        "garbage behind",
                    &ClsTar::UntarAny});
  return packed;
}

// Either its own method, whose log has always been what it is, or the one with every check.
void expectSame(const Packed& packed, const std::string& bytes, const ReadCase& each, long long threads,
                const std::string& what) {
  for (const ReadMethod method : {packed.method, static_cast<ReadMethod>(&ClsTar::VerifyAny)}) {
    const Outcome one = readWith(1, bytes, each, method);
    ASSERT_EQ(one, readWith(threads, bytes, each, method)) << packed.name << ", " << what << ", " << threads;
    if (threads > 2) break;
  }
}

TEST(ParallelDecoders, HearAndSayWhatOneThreadDoes) {
  ScratchDir dir;
  std::thread([] {}).join();  // a sanitizer makes one of its own with the first
  const int threadsBefore = threadsOfProcess();
  for (const Packed& packed : packedArchives(dir)) {
    ASSERT_GE(packed.bytes.size(), 300'000u) << packed.name;
    const Outcome whole = readWith(4, packed.bytes, {}, packed.method);
    ASSERT_TRUE(whole.ok && whole.tree.size() == 61) << packed.name << whole;
    EXPECT_GT(whole.threads, threadsBefore) << packed.name << " was worth a thread";
    for (const long long threads : {2, 8}) expectSame(packed, packed.bytes, {}, threads, "");
    expectSame(packed, packed.bytes, {"", 0, 0, 0}, 2, "no words");
    const ReadCase trickling{"", 0, 0, 10'000};
    EXPECT_GT(readWith(4, packed.bytes, trickling, packed.method).threads, threadsBefore) << packed.name;
    // For bzip2 the mark behind a block has to be seen.
    const bool isBzip2 = has(packed.name, "bzip2") || has(packed.name, "streams");
    expectSame(packed, packed.bytes, {"", 0, 0, 10'000, !isBzip2}, 2, "trickling");
    expectSame(packed, packed.bytes, {"MaxRatio=3,Restore=mode", 0, 0, 0}, 2, "ratio");
    expectSame(packed, packed.bytes, {"MaxMembers=40", 0, 0, 0}, 4, "members");
    const int events = static_cast<int>(whole.events.size());
    for (const int at : {1, events / 2, events - 1}) {
      expectSame(packed, packed.bytes, {"", at, 0, 0}, 4, "aborted at " + std::to_string(at));
      expectSame(packed, packed.bytes, {"", 0, at, 0}, 4, "thrown at " + std::to_string(at));
      expectSame(packed, packed.bytes, {"", at, 0, 10'000}, 4, "trickling, aborted at " + std::to_string(at));
    }
    for (int i = 0; i < 1000 && threadsOfProcess() != threadsBefore; ++i) usleep(1000);
    ASSERT_EQ(threadsBefore, threadsOfProcess()) << packed.name;
  }
}

// Whether or not it is known how little it is.
TEST(ParallelDecoders, LittleIsNotWorthAThread) {
  ArchiveBuilder builder;
  for (int i = 0; i < 12; ++i) builder.add({"file" + std::to_string(i), noise(500, 3)});
  const std::string tar = builder.bytes();
  std::thread([] {}).join();
  const int threadsBefore = threadsOfProcess();
  for (const Compression compression : compressionsWritten()) {
    const std::string packed = encode(compression, tar, tar.size(), {});
    for (const ReadMethod method : {static_cast<ReadMethod>(&ClsTar::UntarAny), &ClsTar::VerifyAny}) {
      for (const unsigned trickle : {0u, 1'000u}) {
        const Outcome outcome = readWith(4, packed, {"", 0, 0, trickle}, method);
        EXPECT_TRUE(outcome.ok && !outcome.events.empty()) << outcome;
        EXPECT_EQ(threadsBefore, outcome.threads) << compressionName(compression) << trickle;
      }
    }
  }
}

TEST(ParallelDecoders, DamageIsToldAsByOneThread) {
  ScratchDir dir;
  for (const Packed& packed : packedArchives(dir)) {
    std::mt19937 random(7);
    const size_t size = packed.bytes.size();
    ASSERT_GE(size, 300'000u) << packed.name;
    for (int i = 0; i < 4; ++i) {
      const size_t at = i < 2 ? size - 1 - static_cast<size_t>(i) * 5 : random() % size;
      ReadCase each;
      each.trickle = i % 2 ? 10'000 : 0;
      expectSame(packed, packed.bytes.substr(0, std::max<size_t>(at, 280'000)), each, 4,
                 "cut at " + std::to_string(at));
      std::string flipped = packed.bytes;
      flipped[at] = static_cast<char>(flipped[at] ^ (1 << random() % 8));
      expectSame(packed, flipped, each, 4, "flipped at " + std::to_string(at));
    }
  }
}

// A second gzip member, whose header is a line of the log, while the data of a small file come.
TEST(ParallelDecoders, AFileMayComeInTwoGzipMembers) {
  ArchiveBuilder builder;
  for (int i = 0; i < 150; ++i)
    builder.add({"d/" + std::to_string(i), noise(3000, static_cast<unsigned>(i))});
  const std::string tar = builder.bytes();
  for (size_t at = 400'000; at < 408'000; at += 700) {
    const std::string packed = encode(Compression::Gzip, tar.substr(0, at), 20'000, {}) +
                               encode(Compression::Gzip, tar.substr(at), 512, {});
    for (const long long threads : {2, 4})
      expectSame({"gzip", packed, &ClsTar::UntarAny}, packed, {"Profile=usual,Restore=mode+time"}, threads,
                 std::to_string(at));
  }
}

// What was read ends exactly behind the header of the second member, which is logged by then, where the first
// thread hands over to another.
TEST(ParallelDecoders, WhatTheFirstThreadLoggedIsNotLoggedAgain) {
  constexpr size_t kHeader = 10, kNameFlagAt = 3;
  const std::string second = encode(Compression::Gzip, noise(400'000, 8), 20'000, {});
  std::string first = encode(Compression::Gzip, noise(260'000, 9), 20'000, {});
  first[kNameFlagAt] = 8;
  const std::string name(kWorthExpandingAhead - kHeader - first.size() - 1, 'n');
  first.insert(kHeader, name + '\0');
  const Decode decode = [](_mvDataSource& source, _mvOutput& out, const CodecOptions& options, const Io& io) {
    const Codec& gzip = codecOf(Compression::Gzip);
    return gzip.readHeader(source, io) && gzip.decode(source, out, options, io);
  };
  CodecOptions options;
  options.gzipAllMembers = true;
  std::string logs[2];
  for (const bool isAhead : {false, true}) {
    TricklingSource source(first + second, 64 * 1024);
    _mvLogger log;
    LimitedOutput out;
    AheadSource ahead(source, nullptr, log);
    EXPECT_TRUE(isAhead ? expandAhead(decode, ahead, ahead, out, options, Io(log))
                        : decode(ahead, out, options, Io(log)));
    EXPECT_EQ(660'000u, out.bytes.size());
    logs[isAhead] = log.text();
  }
  EXPECT_EQ(logs[0], logs[1]);
}

// Memory in use, at the most, whenever something comes out.
struct MemoryInUse : _mvOutput {
  bool _writeBytes(const char*, unsigned int n, _mvIoParams&, LogBase&) override {
    const struct mallinfo2 now = mallinfo2();
    most = std::max(most, now.uordblks + now.hblkhd);
    bytes += n;
    return true;
  }
  size_t most = 0, bytes = 0;
};

// Large pieces that many small ones follow again and again do not leave their memory with these.
TEST(ParallelDecoders, TakeLittleMemory) {
  constexpr size_t kPiece = 128 * 1024;
  const Decode decode = [](_mvDataSource&, _mvOutput& out, const CodecOptions&, const Io& io) {
    const std::string piece(kPiece, 'x');
    for (unsigned i = 0; i < 100'000; ++i) {
      if (!out.writeBytesPM(piece.data(), i % 1100 < 20 ? kPiece : 1, nullptr, io.log)) return false;
    }
    return true;
  };
  _mvMemoryDataSource nothing;  // whose size is known
  nothing.initializeMemSource(nullptr, 0);
  _mvLogger log;
  AheadSource ahead(nothing, nullptr, log);
  MemoryInUse out;
  const struct mallinfo2 before = mallinfo2();
  ASSERT_TRUE(expandAhead(decode, ahead, ahead, out, {}, Io(log)));
  EXPECT_EQ(1820 * kPiece + 98'180, out.bytes);
  EXPECT_LT(out.most, before.uordblks + before.hblkhd + 5'500'000);
}

// Every piece that comes out, in its size; fails at the n-th.
struct Pieces : _mvOutput {
  bool _writeBytes(const char* bytes, unsigned int n, _mvIoParams&, LogBase&) override {
    all.append(bytes, n);
    sizes.push_back(n);
    return sizes.size() != failAt;
  }
  std::string all;
  std::vector<unsigned> sizes;
  size_t failAt = 0;
};

void expectSameBzip2(const std::string& packed, const std::string& what, size_t failAt = 0) {
  Pieces one, more;
  one.failAt = more.failAt = failAt;
  _mvLogger oneLog, moreLog;
  const Codec& codec = codecOf(Compression::Bzip2);
  CodecOptions options;
  options.threads = 3;
  _mvMemoryDataSource source, memory;
  for (_mvMemoryDataSource* each : {&source, &memory})
    each->initializeMemSource(reinterpret_cast<const unsigned char*>(packed.data()),
                              static_cast<unsigned>(packed.size()));
  const bool oneOk = codec.decode(source, one, options, Io(oneLog));
  AheadSource ahead(memory, nullptr, moreLog);
  const bool moreOk = codec.decodeAhead(ahead, ahead, more, options, Io(moreLog));
  ASSERT_EQ(oneOk, moreOk) << what << moreLog.text();
  ASSERT_EQ(oneLog.text(), moreLog.text()) << what;
  ASSERT_TRUE(!oneOk || one.sizes == more.sizes) << what;
  ASSERT_TRUE(one.all == more.all) << what << ", " << one.all.size() << " and " << more.all.size()
                                   << " bytes";
}

// Small blocks, of which many are damaged, are cut, or hold what looks like the beginning of another.
TEST(ParallelDecoders, Bzip2BlocksAreWhatTheyAre) {
  ScratchDir dir;
  writeFile(dir / "plain",
            noise(250'000, 3) + contents(500'000) + std::string(6'000'000, 'z') + noise(90'000, 4));
  must(
      dir,
      "bzip2 -1 -k plain && bzip2 -c plain > nine; (cat plain.bz2; bzip2 -c < /dev/null; cat nine) > joined");
  const std::string one = readFile(dir / "plain.bz2"), joined = readFile(dir / "joined");
  ASSERT_TRUE(one.size() > 300'000 && joined.size() > 2 * one.size() - 100'000);
  for (const std::string& whole : {one, joined, joined + "garbage", one + one, one + "BZh9", "BZh9"s, ""s})
    expectSameBzip2(whole, "whole");
  for (const size_t failAt : {1u, 2u, 5u}) expectSameBzip2(joined, "refused", failAt);
  const std::string mark = "\x31\x41\x59\x26\x53\x59", end = "\x17\x72\x45\x38\x50\x90";
  std::mt19937 random(11);
  for (int i = 0; i < 40; ++i) {
    const std::string& whole = i % 4 ? one : joined;
    std::string damaged = whole;
    const size_t at = i < 10 ? whole.size() - 1 - static_cast<size_t>(i) : random() % whole.size();
    const int kind = i % 5;
    if (kind == 0) damaged.resize(at);
    if (kind == 1 || kind == 2) damaged[at] = static_cast<char>(damaged[at] ^ (1 << random() % 8));
    if (kind == 3) damaged.replace(std::min(at, whole.size() - 20), 6, random() % 2 ? mark : end);
    if (kind == 4) damaged.insert(at, random() % 2 ? "BZh1" + mark : noise(1 + random() % 40, 5));
    expectSameBzip2(damaged, "damaged " + std::to_string(i) + " at " + std::to_string(at));
  }
}

}  // namespace
}  // namespace morvane::testing
