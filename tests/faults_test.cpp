// What fails on its own: memory that runs out at each single allocation, sources that fail while they are
// skipped or never end, and callbacks that do what they should not. Nothing is then reported as done that is
// not.
#include <cstdlib>
#include <new>

#include "ArchiveSupport.h"
#include "MvtarSupport.h"
#include "ParallelCodecSupport.h"
#include "runtime/codec/Bzip2Block.h"
#include "runtime/parallel/OrderedRing.h"

namespace {

// The allocations of this thread until one fails; 0: none does.
thread_local long g_allocationsLeft = 0;

bool failsNow() { return g_allocationsLeft > 0 && --g_allocationsLeft == 0; }

}  // namespace

// The whole program's. Every form stands here, because a sanitizer's own would not know of ours.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return failsNow() ? nullptr : std::malloc(size ? size : 1);
}
void* operator new(std::size_t size) {
  void* const bytes = operator new(size, std::nothrow);
  if (!bytes) throw std::bad_alloc();
  return bytes;
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return operator new(size, std::nothrow);
}
void operator delete(void* bytes) noexcept { std::free(bytes); }
void operator delete(void* bytes, std::size_t) noexcept { std::free(bytes); }
void operator delete(void* bytes, const std::nothrow_t&) noexcept { std::free(bytes); }
void operator delete[](void* bytes) noexcept { std::free(bytes); }
void operator delete[](void* bytes, std::size_t) noexcept { std::free(bytes); }
void operator delete[](void* bytes, const std::nothrow_t&) noexcept { std::free(bytes); }

namespace morvane::testing {
namespace {

struct MemoryCase {
  const char* name;
  std::function<std::string(ClsTar&)> run;  // what came of it, empty for a call that failed
};

class OutOfMemory : public ::testing::Test {
 protected:
  OutOfMemory() {
    writeFile(m_dir / "d/sub/file", "contents");
    writeFile(m_dir / ("d/" + std::string(150, 'n')), "a long name");
    ClsTar tar;
    EXPECT_TRUE(tar.AddDirRoot(m_dir / "d") && tar.WriteTar(m_dir / "a.tar") &&
                tar.WriteTarGz(m_dir / "a.tgz"));
  }
  std::string written(ClsTar& tar, bool (ClsTar::*write)(_mvOutput&, ProgressEvent*)) {
    LimitedOutput out;
    out.bytes.reserve(1 << 20);
    const bool ok = tar.AddFile2(m_dir / "d/sub/file", "single") && tar.AddDirRoot2("prefix", m_dir / "d") &&
                    (tar.*write)(out, nullptr);
    return ok ? out.bytes : "";
  }
  std::string extracted(bool ok) {
    std::string tree;
    const long left = std::exchange(g_allocationsLeft, 0);
    for (const auto& [path, what] : treeOf(m_dir / "out")) tree += path + " " + what + "\n";
    g_allocationsLeft = left;
    return ok ? tree : "";
  }
  std::string listed(ClsTar& tar) {
    XString xml;
    return tar.ListXml(m_dir / "a.tar", xml) ? xml.str() : "";
  }

  const ScratchDir m_dir;
};

// Each allocation fails once: the call fails, or what came of it is what comes of it otherwise.
TEST_F(OutOfMemory, NoCallSucceedsWithSomethingMissing) {
  const std::string archive = m_dir / "a.tar", gzip = m_dir / "a.tgz";
  const MemoryCase cases[] = {{"WriteTar", [&](ClsTar& tar) { return written(tar, &ClsTar::WriteTar); }},
                              {"WriteTar pax",
                               [&](ClsTar& tar) {
                                 tar.put_WriteFormat("pax");
                                 return written(tar, &ClsTar::WriteTar);
                               }},
                              {"ListXml", [&](ClsTar& tar) { return listed(tar); }},
                              {"Untar", [&](ClsTar& tar) { return extracted(tar.Untar(archive) >= 0); }},
                              {"UntarGz", [&](ClsTar& tar) { return extracted(tar.UntarGz(gzip)); }},
                              {"UntarFirstMatching", [&](ClsTar& tar) {
                                 ClsBinData found;
                                 const bool ok = tar.UntarFirstMatchingToBd(archive, "*file", found);
                                 return ok ? "found " + std::to_string(found.data().getSize()) : "";
                               }}};
  for (const MemoryCase& each : cases) {
    for (const char* words : {"", "FullRead,Confine=beneath"}) {
      std::string expected;
      long allocations = 0;
      for (bool counted = false;; ++allocations) {
        SCOPED_TRACE(std::string(each.name) + " " + words + " " + std::to_string(allocations));
        fs::remove_all(m_dir / "out");
        std::string result;
        ClsTar tar;
        tar.put_UserName("u");
        tar.put_GroupName("g");
        tar.put_UntarFromDir(m_dir / "out");
        tar.put_UncommonOptions(words);
        g_allocationsLeft = counted ? allocations : 0;
        try {
          result = each.run(tar);
        } catch (const std::bad_alloc&) {  // of the test's own
        }
        const bool allPassed = g_allocationsLeft > 0;
        g_allocationsLeft = 0;
        if (!counted) expected = result;
        counted = true;
        ASSERT_FALSE(expected.empty()) << logOf(tar);
        ASSERT_TRUE(result.empty() || result == expected) << result;
        if (allPassed) break;
      }
      EXPECT_GT(allocations, 10);
    }
  }
}

// Whatever fails while words or properties are taken, the call behind it goes by them.
TEST_F(OutOfMemory, NothingOfAnOlderSettingIsKept) {
  const std::string bytes = member("../escaped", "data") + kEnd;
  DataBuffer archive;
  archive.append(bytes.data(), static_cast<unsigned>(bytes.size()));
  const XString target(m_dir / "deep/target");
  fs::create_directories(m_dir / "deep/before/x");
  for (long failing = 1; failing < 60; ++failing) {
    TarWith tar("", m_dir / "deep/before/x");
    EXPECT_EQ(1, tar.UntarFromMemory(archive)) << "not confined yet";
    fs::remove(m_dir / "deep/before/escaped");
    XString words("Confine=beneath,FullRead,VerifyGzip");
    g_allocationsLeft = failing;
    tar.put_UncommonOptions(words);
    tar.put_UntarFromDir(target);
    tar.UntarFromMemory(archive);
    g_allocationsLeft = 0;
    tar.UntarFromMemory(archive);
    ASSERT_FALSE(exists(m_dir / "deep/escaped") || exists(m_dir / "deep/before/escaped")) << failing;
  }
}

// However many texts a class has: as long as any was not set there is one that is known to be.
TEST(NoMemory, TextsThatWereNotSet) {
  struct Texts : ClsBase {
    Texts() : ClsBase("Texts") {}
    using ClsBase::hasUnsetText;
    using ClsBase::putText;
    XString texts[40];
  };
  for (const int count : {1, 16, 17, 40}) {
    Texts object;
    const std::string_view value = "longer than what a string holds without memory";
    for (int i = 0; i < count; ++i) {
      g_allocationsLeft = 1;
      object.putText(object.texts[i], value);
      g_allocationsLeft = 0;
    }
    for (int i = 0; i < count; ++i) {
      EXPECT_TRUE(object.hasUnsetText() && object.texts[i].isEmpty()) << i;
      object.putText(object.texts[i], value);
    }
    EXPECT_EQ(count > 16, object.hasUnsetText()) << count;
  }
}

// What could not be handed in is not waited for.
TEST(NoMemory, JobsThatWereNotHandedIn) {
  struct Job : OrderedRing::Job {
    void work() override { isDone = true; }
    bool isDone = false;
  };
  for (long failing = 1; failing < 5; ++failing) {
    RingOf<Job> ring(0, 2000);
    unsigned submitted = 0;
    g_allocationsLeft = failing;
    try {
      for (; !ring.isFull(); ++submitted) ring.submit(1);
    } catch (const std::bad_alloc&) {
    }
    g_allocationsLeft = 0;
    ASSERT_LT(submitted, 2000u);
    EXPECT_EQ(submitted, ring.underWay());
    while (!ring.isEmpty()) EXPECT_TRUE(ring.take().isDone);
  }
}

// A block that there is no memory for counts as none, and nothing is thrown: libbzip2 is given it then.
TEST(NoMemory, Bzip2BlocksAreLeftToTheLibrary) {
  const std::string bytes = noise(3'000, 3);
  const std::string packed = encode(Compression::Bzip2, bytes, bytes.size(), {});
  // Between the header and what stands behind a block: a mark and a checksum, and up to a byte's end.
  constexpr size_t kHeader = 4, kEnd = 10;
  bool isRight = false;
  int failed = 0;
  for (long failing = 1; failing < 40 && !isRight; ++failing) {
    int found = 0;
    for (long long bits = 0; bits < 8 && !isRight; ++bits) {
      Bzip2Block block;
      block.firstBit = kHeader * 8;
      block.endBit = static_cast<long long>(packed.size() - kEnd) * 8 - bits;
      block.raw.assign(packed.begin() + kHeader, packed.end());
      g_allocationsLeft = failing;
      EXPECT_NO_THROW(block.work());
      g_allocationsLeft = 0;
      found += block.isRight() ? 1 : 0;
    }
    failed += found == 0 ? 1 : 0;
    isRight = found > 0;
  }
  EXPECT_TRUE(isRight && failed > 0) << failed;
}

// The command, with each of its allocations failing, and with all behind it: never a signal, never 0 with
// less.
TEST_F(OutOfMemory, TheCommandSaysSoAndEndsWithTwo) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers have allocations of their own";
#endif
  must(m_dir, "mvtar -cjf a.tbz d; compress -c a.tar > a.Z; cp a.tgz b.tgz");
  const char* const lines[] = {"-cf out d",
                               "-czf out d",
                               "-cjf out d",
                               "-cvf - d",
                               "-xf a.tar -C out",
                               "-xvf a.tgz -C out",
                               "-xf a.tbz -C out",
                               "-xf a.Z -C out",
                               "-tvf a.tar",
                               "-tf a.tgz --xml",
                               "-tf a.Z --charset=latin1",
                               "-xOf a.tbz d/sub/file",
                               "--verify -f a.tgz",
                               "--deb -f out a.tgz b.tgz"};
  int kind = 0;
  for (const std::string line : lines) {
    const bool comparesFile = has(line, " out") && line[1] != '-';
    const auto run = [&](const std::string& environment) {
      fs::remove_all(m_dir / "out");
      const CommandResult result = shell(m_dir, environment + " LD_PRELOAD=" FAILING_MALLOC " mvtar " + line);
      std::string made;
      for (const auto& [path, what] : treeOf(m_dir.path()))
        made += path.rfind("out", 0) == 0 ? path + what : "";
      return std::pair(result, comparesFile ? made : "");
    };
    const auto [whole, wholeMade] = run("COUNT_ALLOCATIONS=count");
    ASSERT_EQ(0, whole.status) << line << whole.err;
    const int allocations = std::stoi(readFile(m_dir / "count"));
    // All of one command's, and of the others every seventh, each time others.
    for (int failing = 1 + kind % 7; failing <= allocations; failing += kind == 0 ? 1 : 7) {
      for (const char* behind : {"", "FAIL_ALL_BEHIND=1 "}) {
        SCOPED_TRACE(line + " " + behind + std::to_string(failing));
        const auto [result, made] = run(behind + ("FAIL_ALLOCATION=" + std::to_string(failing)));
        if (result.status == 0) {
          EXPECT_TRUE(result.out == whole.out && made == wholeMade) << "something is missing";
        } else {
          EXPECT_EQ(2, result.status);
          EXPECT_TRUE(has(result.err, "out of memory\n") && has(result.err, said("", 2))) << result.err;
        }
      }
    }
    ++kind;
  }
}

// A listing of any length is printed as it comes, plain and compressed.
TEST(Memory, AListingTakesNone) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers take far more";
#endif
  ScratchDir dir;
  std::string archive;
  for (int i = 0; i < 40'000; ++i)
    archive += member("a/name/of/some/length/that/is/listed/" + std::to_string(i));
  writeFile(dir / "a.tar", archive + kEnd);
  must(dir, "gzip -1k a.tar");
  for (const char* name : {"a.tar", "a.tar.gz"}) {
    must(dir,
         std::string("(ulimit -v 20000; mvtar -tf ") + name + " --xml) | grep -c '<entry' | grep -qx 40000");
  }
}

// Single calls of the system that fail: what is lost by it is said with the right reason, what can be tried
// again is.
TEST(SystemCalls, WhatFailsIsSaidAndWhatIsInterruptedIsTriedAgain) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers stand in front of these calls";
#endif
  ScratchDir dir;
  must(dir, "mkdir d && echo text > d/f && tar -cf a.tar d && gzip -k a.tar");
  const std::string kTimes =
      "d/f: the times are not kept: Operation not permitted\nARCHIVE: 2 members without their times";
  const struct {
    const char *environment, *line;
    std::string facts, out;
  } kCases[] = {{"FAIL_TIMES=1", "-xf a.tar -C out", kTimes, ""},
                {"FAIL_TIMES=1", "-xf a.tar.gz -C out", kTimes, ""},
                {"FAIL_PREAD=1", "-cf out d", "d/f: Input/output error", ""},
                {"FAIL_USERS=1", "-cf out d",
                 "user database: Input/output error; owners are stored by number alone", ""},
                {"END_PREAD=2", "--deb -f out a.tar.gz a.tar.gz", "a.tar.gz: The file ended early.", ""},
                {"FULL_OPENAT2=2", "-xf a.tar -C out",
                 "d/f: No space left on device\na.tar: the rest was not extracted", ""},
                {"FULL_OPENAT2=2", "-xf a.tar.gz -C out",
                 "d/f: No space left on device\na.tar.gz: the rest was not extracted", ""},
                {"INTERRUPT=1", "-xvf a.tar -C out", "", "d/\nd/f\n"},
                {"INTERRUPT=1", "-tf - < <(cat a.tar)", "", "d/\nd/f\n"},
                {"INTERRUPT=1", "-tf a.tar", "", "d/\nd/f\n"}};
  for (const auto& each : kCases) {
    SCOPED_TRACE(std::string(each.environment) + " " + each.line);
    must(dir, "rm -rf out");
    const std::string command =
        std::string(each.environment) + " LD_PRELOAD=" FAILING_CALLS " mvtar " + each.line;
    std::string facts = each.facts;
    if (const size_t at = facts.find("ARCHIVE"); at != std::string::npos)
      facts.replace(at, 7, split(each.line, ' ')[1]);
    expect(shell(dir, command), facts.empty() ? 0 : 2, each.out, facts);
  }
}

// ---- Sources

// A source that cannot seek and fails when it has given so much.
class FailingSource : public TricklingSource {
 public:
  FailingSource(const std::string& bytes, long long failAt) : TricklingSource(bytes, 512), m_left(failAt) {}
  bool readSourcePM(char* buffer, unsigned n, unsigned& numRead, ProgressMonitor* pm, LogBase& log) override {
    if (m_left <= 0) return false;
    const bool ok = TricklingSource::readSourcePM(buffer, n, numRead, pm, log);
    m_left -= numRead;
    return ok;
  }

 private:
  long long m_left;
};

// Data that look like an archive are not read as headers where passing over them failed.
TEST(Sources, AFailedSkipEndsTheRun) {
  const std::string inner = member("inner", "x") + kEnd;
  const std::string archive = member("outer", std::string(2048, 'x') + inner) + member("last") + kEnd;
  for (const long long failAt : {512, 1024, 1536, 2560}) {
    SCOPED_TRACE(failAt);
    ClsTar tar;
    XString xml;
    ClsBinData found;
    EXPECT_FALSE(FailingSource(archive, failAt).endOfStream());
    FailingSource one(archive, failAt), two(archive, failAt), three(archive, failAt);
    EXPECT_FALSE(tar.VerifyTar(one));
    EXPECT_TRUE(logHas(tar, "Failed to pass over data of the archive.")) << logOf(tar);
    EXPECT_FALSE(tar.ListXml(two, xml));
    EXPECT_FALSE(has(xml.str(), "inner"));
    EXPECT_FALSE(tar.UntarFirstMatchingToBd(three, "inner", found));
  }
}

// A source of which nothing ever comes out, and that never asks whether to abort.
class EndlessSource : public _mvDataSource {
 public:
  EndlessSource(std::string start, std::string again)
      : m_bytes(std::move(start)), m_again(std::move(again)) {}
  bool readSourcePM(char* buffer, unsigned n, unsigned& numRead, ProgressMonitor*, LogBase&) override {
    while (m_bytes.size() < n) m_bytes += m_again;
    m_bytes.copy(buffer, numRead = n);
    m_bytes.erase(0, n);
    given += n;
    return given < 100'000'000;
  }
  long long given = 0;

 private:
  std::string m_bytes;
  const std::string m_again;
};

TEST(Sources, AbortIsHeardWhereNothingComesOut) {
  // The name in a gzip header, zeros behind a member, empty bzip2 streams, LZW's code for "forget the table".
  const std::string header("\x1F\x8B\x08\x08\0\0\0\0\0\3", 10), bare("\x1F\x8B\x08\0\0\0\0\0\0\3", 10);
  const std::string emptyGzip = bare + "\3\0"s + std::string(8, '\0');
  const std::string emptyBzip2 = "BZh9\x17\x72\x45\x38\x50\x90\0\0\0\0"s;
  const std::string clears("\x00\x01\x02\x04\x08\x10\x20\x40\x80", 9);  // 256, eight times in nine bits
  const struct {
    const char* name;
    std::string start, again;
    bool (ClsTar::*untar)(_mvDataSource&, ProgressEvent*);
  } kCases[] = {{"gzip name", header, "name", &ClsTar::UntarGz},
                {"gzip padding", emptyGzip, std::string(64, '\0'), &ClsTar::UntarGz},
                {"bzip2 streams", "", emptyBzip2, &ClsTar::UntarBz2},
                {"LZW",
                 "\x1F\x9D\x90"
                 "a\0"s,
                 clears, &ClsTar::UntarZ}};
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.name);
    TarWith tar("GzipAllMembers,Bz2Framed");
    tar.put_AbortCheckMs(1);
    EndlessSource source(each.start, each.again);
    struct : ProgressEvent {
      void onAbortCheck(bool& abort) override { abort = source->given > 0; }
      EndlessSource* source;
    } event;
    event.source = &source;
    EXPECT_FALSE((tar.*each.untar)(source, &event));
    EXPECT_LE(source.given, 256 * 1024) << logOf(tar);
  }
}

// A source may lend without being able to show what comes.
TEST(Sources, TheLeastThatTheySupplyIsEnough) {
  class Lending : public _mvMemoryDataSource {
   public:
    bool canPeek() override { return false; }
    bool peekBytes(unsigned, const char*&, unsigned&, ProgressMonitor*, LogBase&) override { return false; }
  } lending;
  const std::string archive = member("f", "data") + kEnd;
  lending.initializeMemSource(reinterpret_cast<const unsigned char*>(archive.data()),
                              static_cast<unsigned>(archive.size()));
  LimitedOutput data;
  ClsTar tar;
  EXPECT_TRUE(tar.UntarMemberToOutput(lending, data)) << logOf(tar);
  EXPECT_EQ("data", data.bytes);
}

// ---- Callbacks

// What a callback's exception leaves of a member is not taken for headers by what comes next.
TEST(Callbacks, AThrownOneLeavesNoHalfReadMember) {
  ScratchDir dir;
  writeFile(dir / "a.tar", member("a", std::string(3000, 'a')) + member("b", "b") + kEnd);
  ASSERT_EQ(0, run({"sh", "-c", "gzip -k a.tar; bzip2 -k a.tar"}, "", dir.path()).status);
  struct : ProgressEvent {
    void onTarEntry(const char*, long long, bool, bool&) override { throw 1; }
  } event;
  TarWith tar("EntryEvents", dir / "out");
  EXPECT_FALSE(tar.UntarGz(dir / "a.tar.gz", &event));
  EXPECT_FALSE(tar.FinishStreamingUntar(nullptr, tar.log()));
  _mvIoParams io;
  EXPECT_FALSE(tar._writeBytes("more", 4, io, tar.log())) << "the run is over";
  EXPECT_TRUE(tar.UntarBz2(dir / "a.tar.bz2")) << logOf(tar);
  EXPECT_EQ("b", readFile(dir / "out/b"));
}

// The steps are refused like the methods, and the call that goes on ends as it would.
TEST(Callbacks, StepsAreRefused) {
  ScratchDir dir;
  writeFile(dir / "a.tar", member("a", std::string(3000, 'a')) + member("b", "b") + kEnd);
  ASSERT_EQ(0, run({"gzip", "-k", "a.tar"}, "", dir.path()).status);
  TarWith tar("EntryEvents", dir / "out");
  ActingEvent event;
  event.act = [&](const std::string&) {
    _mvIoParams io;
    LimitedOutput out;
    bool finished = false;
    _mvLogger log;
    mvFileInfo info;
    XString path("p");
    TricklingSource source("", 1);
    tar.BeginStreamingUntar(log);
    tar.xmlListingInit();
    EXPECT_FALSE(tar.StreamingUntarNext(nullptr, 0, finished, nullptr, log) ||
                 tar.FinishStreamingUntar(nullptr, log) || tar._writeBytes("x", 1, io, log) ||
                 tar.unTarGz(source, nullptr, log) || tar.writeTarToOutput(out, nullptr, log, nullptr) ||
                 tar.copySourceToOutput(source, nullptr, log) ||
                 tar.writeTarHeaderToOutput(path, info, nullptr, log) ||
                 tar._untar(source, true, log, nullptr, nullptr) >= 0);
    EXPECT_EQ("", log.text());
  };
  EXPECT_TRUE(tar.UntarGz(dir / "a.tar.gz", &event)) << logOf(tar);
  EXPECT_EQ(2u, event.entries.size());
  EXPECT_EQ(std::string(3000, 'a'), readFile(dir / "out/a"));
}

// The counting pass examines an excluded entry for ever, as it always did, but it can be ended.
TEST(Callbacks, ACountThatNeverEndsCanBeAborted) {
  ScratchDir dir;
  writeFile(dir / "tree/file", "x");
  ClsTar tar;
  tar.AddDirRoot(dir / "tree");
  tar.put_MustNotMatch("*file");
  RecordingEvent event;
  event.abortAtQuestion = 100;
  written(tar, &event, false);
  EXPECT_EQ(100, event.questions);
}

// A single file that becomes a link while its event is told is not followed; the directory that a callback
// sets holds from the next member on, in both engines.
TEST(Callbacks, WhatTheyChange) {
  ScratchDir dir;
  must(dir, "printf secret > secret && printf plain! > file");
  ClsTar tar;
  tar.AddFile(dir / "file");
  ActingEvent exchanging;
  exchanging.act = [&](const std::string&) { must(dir, "ln -sf secret file"); };
  EXPECT_FALSE(has(written(tar, &exchanging, false), "secret"));

  writeFile(dir / "a.tar", member("a", "a") + member("b", "b") + kEnd);
  must(dir, "gzip -k a.tar");
  for (const std::string words : {"EntryEvents", "EntryEvents,Confine=beneath"}) {
    for (const bool gzip : {false, true}) {
      must(dir, "rm -rf 1 2");
      TarWith reader(words, dir / "1");
      ActingEvent moving;
      moving.act = [&](const std::string&) { reader.put_UntarFromDir(dir / "2"); };
      EXPECT_TRUE(gzip ? reader.UntarGz(dir / "a.tar.gz", &moving)
                       : reader.Untar(dir / "a.tar", &moving) == 2);
      EXPECT_TRUE(exists(dir / "1/a") && exists(dir / "2/b") && !exists(dir / "2/a")) << words << gzip;
    }
  }
}

// ---- Names and arguments that are not what they seem

TEST(Arguments, NulsAreRefusedAndOneTextMayBeTwo) {
  ScratchDir dir;
  writeFile(dir / "x", "x");
  const XString nul((dir / "x") + "\0y"s);
  ClsTar tar;
  EXPECT_FALSE(tar.AddFile(nul) || tar.AddFile2(dir / "x", std::string("a\0b", 3)) || tar.AddDirRoot(nul) ||
               tar.AddDirRoot2(std::string("p\0", 2), dir.path()) || tar.VerifyTar(nul) || tar.WriteTar(nul));
  EXPECT_TRUE(tar.AddFile(dir / "x"));
  tar.put_DirPrefix(std::string("p\0q", 3));
  written(tar, nullptr, false);
  EXPECT_TRUE(logHas(tar, "A path with a NUL byte cannot be archived."));
  tar.put_UntarFromDir(nul);
  EXPECT_EQ(-1, untar(tar, member("a") + kEnd));

  // A path that becomes absolute by being decoded.
  tar.put_Charset("utf-7");
  tar.put_UncommonOptions("Confine=beneath");
  tar.put_UntarFromDir(dir / "out");
  EXPECT_EQ(-1, untar(tar, member("+AC8-" + (dir / "escaped").substr(1)) + kEnd));
  EXPECT_TRUE(logHas(tar, "Member refused: its path leaves the target.") && !exists(dir / "escaped"));

  writeFile(dir / "a.tar", member("a") + kEnd);
  XString both(dir / "a.tar");
  EXPECT_TRUE(tar.ListXml(both, both));
  EXPECT_TRUE(has(both.str(), "<path>a</path>"));
  XString path(std::string(60, 'd') + "/" + std::string(60, 'n')), name(path), prefix(path);
  EXPECT_TRUE(tar.splitPathForTar(name, name, prefix, tar.log()) &&
              tar.splitPathForTar(path, name, path, tar.log()));
  EXPECT_EQ(std::string(60, 'n') + std::string(60, 'd') + "/", name.str() + path.str());
}

// A path of more parts than other programs can remove again ends the run when it would be made, by default.
TEST(Arguments, MaxPathDepth) {
  const struct {
    std::string words;
    int parts;
    bool extracts, walks;
  } kCases[] = {{"", 4096, true, true},
                {"", 4097, false, true},
                {",MaxPathDepth=3", 3, true, true},
                {",MaxPathDepth=3", 4, false, false},
                {",MaxPathDepth=0", 4097, true, true}};
  for (const auto& [words, parts, extracts, walks] : kCases) {
    std::string path = "f";
    for (int i = 1; i < parts; ++i) path.insert(0, "d/");
    const std::string archive = member("first") + longName(path) + member("short") + kEnd;
    for (const bool gzip : {false, true}) {
      SCOPED_TRACE(words + " " + std::to_string(parts));
      ScratchDir dir;
      writeFile(dir / "a", gzip ? run({"gzip", "-c"}, archive).out : archive);
      TarWith tar("FullRead" + words, dir / "out");
      RecordingEvent event;
      const auto reads = [&] {
        return gzip ? tar.UntarGz(dir / "a", &event) : tar.Untar(dir / "a", &event) >= 0;
      };
      EXPECT_EQ(extracts, reads());
      EXPECT_EQ(2u, event.headers.size());
      EXPECT_TRUE(exists(dir / "out/first"));
      EXPECT_EQ(!extracts, logHas(tar, "Limit reached.\n"));
      const std::string limit = words.empty() ? "4096" : "3";
      EXPECT_TRUE(extracts ||
                  (logHas(tar, "limit: MaxPathDepth\n") && logHas(tar, "value: " + limit + "\n")));
      EXPECT_EQ(gzip ? 0u : 1u + extracts, event.entries.size());
      tar.put_SuppressOutput(true);
      EXPECT_EQ(walks, reads());
    }
  }
}

}  // namespace
}  // namespace morvane::testing
