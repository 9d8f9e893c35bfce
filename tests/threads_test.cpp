// One object used from many threads, and many objects at once; what the thread sanitizer is run on.
#include <atomic>
#include <thread>

#include "ArchiveSupport.h"

namespace morvane::testing {
namespace {

void inThreads(size_t count, const std::function<void(size_t)>& work) {
  std::vector<std::thread> threads;
  for (size_t i = 0; i < count; ++i) threads.emplace_back(work, i);
  for (std::thread& thread : threads) thread.join();
}

TEST(Threads, OneObjectServesMany) {
  ScratchDir dir;
  writeFile(dir / "tree/file", "contents");
  writeFile(dir / "tree/sub/large", noise(100'000, 1));
  const XString plain(dir / "a.tar"), gzip(dir / "a.tgz"), sub(dir / "tree/sub");
  XString debugLog(dir / "debug.log");
  TarWith tar("", dir / "out");
  ASSERT_TRUE(tar.AddDirRoot(dir / "tree") && tar.WriteTar(plain) && tar.WriteTarGz(gzip));
  tar.put_DebugLogFilePath(debugLog);
  RecordingEvent writing, reading;
  const std::function<void(int)> kWorks[] = {
      [&](int) { EXPECT_TRUE(tar.WriteTar(plain, &writing) && tar.Untar(plain, &writing) >= 0); },
      [&](int) { EXPECT_TRUE(tar.WriteTarGz(gzip) && tar.UntarGz(gzip, &reading)); },
      [&](int) { EXPECT_TRUE(tar.AddFile(dir / "tree/file") && tar.AddDirRoot(sub)); },
      [&](int round) {
        tar.put_UntarDebugLog(round % 2);
        tar.put_FileMode(round);
        tar.put_AbortCheckMs(round);
        EXPECT_TRUE(tar.get_FileMode() == round && tar.get_UntarDebugLog() == (round % 2 > 0));
      },
      [&](int round) {
        XString text("name" + std::to_string(round)), kept;
        tar.put_UserName(text);
        tar.get_UserName(kept);
        EXPECT_EQ(text.str(), kept.str());
        tar.put_WriteFormat(round % 2 ? "pax" : "ustar");
        tar.put_UncommonOptions(round % 2 ? "FullRead" : "NoTotal");
        tar.put_DirPrefix(round % 2 ? "p//" : "");
      },
      [&](int) {
        XString text;
        tar.get_LogText(text);
        tar.injectError("tag", "text");
        EXPECT_GT(tar.get_NumDirRoots(), 0);
      }};
  inThreads(std::size(kWorks), [&](size_t i) {
    for (int round = 0; round < 20; ++round) kWorks[i](round);
  });
  EXPECT_EQ(21, tar.get_NumDirRoots());
  EXPECT_TRUE(tar.VerifyTar(plain));
}

// Steps hold no lock while they work; another thread may set what they go by.
TEST(Threads, PropertiesAreSetWhileStepsRun) {
  ScratchDir dir;
  TarWith tar("", dir / "out");
  const std::string archive = member("one", "data") + member("two", "data");
  std::atomic<bool> isDone{false};
  inThreads(2, [&](size_t i) {
    for (int round = 0; i == 1 && !isDone; ++round) {
      tar.put_Charset(round % 2 ? "iso-8859-1" : "utf-8");
      tar.put_MustNotMatch(round % 2 ? "*" + std::string(40, 'x') : "");
      tar.put_UncommonOptions(round % 2 ? "FullRead" : "NoTotal");
    }
    if (i == 1) return;
    LogNull log;
    tar.BeginStreamingUntar(log);
    bool finished = false, isTaken = true;
    for (int piece = 0; piece < 200; ++piece) {
      isTaken &= tar.StreamingUntarNext(reinterpret_cast<const unsigned char*>(archive.data()),
                                        static_cast<unsigned>(archive.size()), finished, nullptr, log);
      isTaken &= !tar.excludeByMatch(XString("name"), log);
    }
    EXPECT_TRUE(isTaken && tar.FinishStreamingUntar(nullptr, log));
    isDone = true;
  });
  EXPECT_TRUE(exists(dir / "out/two"));
}

TEST(Threads, ManyObjectsDoNotMeet) {
  ScratchDir dir;
  writeFile(dir / "tree/file", noise(100'000, 1));
  inThreads(6, [&](size_t i) {
    const std::string out = dir / ("out" + std::to_string(i));
    const XString archive(out + ".tar");
    for (int round = 0; round < 3; ++round) {
      TarWith tar("", out);
      RecordingEvent event;
      tar.put_WriteFormat(i % 2 ? "pax" : "gnu");
      tar.put_Charset(i % 2 ? "iso-8859-1" : "utf-8");
      tar.put_MustNotMatch("*.NOT");
      EXPECT_TRUE(tar.AddDirRoot(dir / "tree"));
      EXPECT_TRUE(i % 3 == 0   ? tar.WriteTar(archive, &event) && tar.Untar(archive, &event) >= 0
                  : i % 3 == 1 ? tar.WriteTarGz(archive, &event) && tar.UntarGz(archive, &event)
                               : tar.WriteTarBz2(archive, &event) && tar.UntarBz2(archive, &event));
    }
    EXPECT_EQ(treeOf(dir / "tree"), treeOf(out));
  });
}

}  // namespace
}  // namespace morvane::testing
