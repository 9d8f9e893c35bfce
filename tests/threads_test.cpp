// One object used from many threads, and many objects at once; what the thread sanitizer is run on.
#include <functional>
#include <memory>
#include <thread>

#include "TestSupport.h"

namespace morvane::testing {
namespace {

// A tree and an archive of it in two forms.
struct Workplace {
  Workplace() {
    writeFile(dir / "tree/file", "contents");
    writeFile(dir / "tree/sub/large", noise(100'000, 1));
    ClsTar tar;
    EXPECT_TRUE(tar.AddDirRoot(dir / "tree") && tar.WriteTar(at("a.tar")) && tar.WriteTarGz(at("a.tgz")));
  }
  XString at(const char* name) const { return XString(dir / name); }
  ScratchDir dir;
};

std::string textOf(ClsTar& tar, void (ClsTar::*get)(XString&)) {
  XString text;
  (tar.*get)(text);
  return text.str();
}

void inThreads(size_t count, const std::function<void(size_t)>& work) {
  std::vector<std::thread> threads;
  for (size_t i = 0; i < count; ++i) threads.emplace_back(work, i);
  for (std::thread& thread : threads) thread.join();
}

TEST(Threads, OneObjectServesMany) {
  Workplace place;
  ClsTar tar;
  ASSERT_TRUE(tar.AddDirRoot(place.dir / "tree"));
  tar.put_UntarFromDir(place.dir / "out");
  XString debugLog(place.dir / "debug.log");
  tar.put_DebugLogFilePath(debugLog);
  const XString first = place.at("first"), second = place.at("second");
  RecordingEvent writing, reading;
  const std::function<void(int)> kWorks[] = {
      [&](int) { EXPECT_TRUE(tar.WriteTar(first, &writing) && tar.VerifyTar(first, &writing)); },
      [&](int) { EXPECT_TRUE(tar.WriteTarGz(second)); },
      [&](int) { EXPECT_GE(tar.Untar(place.at("a.tar")), 0); },
      [&](int) { EXPECT_TRUE(tar.UntarGz(place.at("a.tgz"), &reading)); },
      [&](int) { EXPECT_TRUE(tar.AddFile(place.at("tree/file")) && tar.AddDirRoot(place.at("tree/sub"))); },
      [&](int round) {
        for (const auto put : {&ClsTar::put_UntarDebugLog, &ClsTar::put_MatchCaseSensitive})
          (tar.*put)(round % 2);
        tar.put_VerboseLogging(round % 2);
        tar.put_FileMode(round);
        tar.put_AbortCheckMs(round);
        tar.put_PercentScale(round);
        EXPECT_TRUE(tar.get_FileMode() == round && tar.get_UntarDebugLog() == (round % 2 > 0));
      },
      [&](int round) {
        XString text("name" + std::to_string(round));
        tar.put_UserName(text);
        EXPECT_EQ(text.str(), textOf(tar, &ClsTar::get_UserName));
        tar.put_WriteFormat(round % 2 ? "pax" : "ustar");
        tar.put_UncommonOptions(round % 2 ? "FullRead" : "Bogus");
        tar.put_DirPrefix("p//");
        EXPECT_EQ("p", textOf(tar, &ClsTar::get_DirPrefix));
      },
      [&](int) {
        XString text;
        tar.get_LogText(text);
        tar.get_DebugLogFilePath(text);
        tar.injectStatus("status", true);
        tar.injectError("tag", "text");
        EXPECT_GT(tar.get_NumDirRoots(), 0);
      }};
  inThreads(std::size(kWorks), [&](size_t i) {
    for (int round = 0; round < 20; ++round) kWorks[i](round);
  });
  EXPECT_EQ(21, tar.get_NumDirRoots());
  EXPECT_EQ(treeOf(place.dir / "tree"), treeOf(place.dir / "out"));
  EXPECT_TRUE(tar.VerifyTar(first));
}

TEST(Threads, ManyObjectsDoNotMeet) {
  Workplace place;
  constexpr size_t kThreads = 6;
  inThreads(kThreads, [&](size_t i) {
    const XString archive(place.dir / ("archive" + std::to_string(i)));
    for (int round = 0; round < 3; ++round) {
      const std::unique_ptr<ClsTar> made(ClsTar::createNewCls());
      ClsTar& tar = *made;
      RecordingEvent event;
      tar.put_UntarFromDir(place.dir / ("out" + std::to_string(i)));
      tar.put_WriteFormat(i % 2 ? "pax" : "gnu");
      tar.put_Charset(i % 2 ? "iso-8859-1" : "utf-8");
      tar.put_MustNotMatch("*.NOT");
      EXPECT_TRUE(tar.AddDirRoot(place.dir / "tree"));
      EXPECT_TRUE(i % 3 == 0   ? tar.WriteTar(archive, &event) && tar.Untar(archive, &event) >= 0
                  : i % 3 == 1 ? tar.WriteTarGz(archive, &event) && tar.UntarGz(archive, &event)
                               : tar.WriteTarBz2(archive, &event) && tar.UntarBz2(archive, &event));
    }
  });
  for (size_t i = 0; i < kThreads; ++i) {
    EXPECT_EQ(treeOf(place.dir / "tree"), treeOf(place.dir / ("out" + std::to_string(i))));
  }
}

}  // namespace
}  // namespace morvane::testing
