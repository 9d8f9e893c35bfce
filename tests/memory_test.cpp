// Memory that runs out at each single allocation: no call then says that all is well with less than all of
// it.
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

}  // namespace
}  // namespace morvane::testing
