// The component object: properties, the frame of its methods, callbacks, its log, and its use from many
// threads.
#include <set>
#include <stdexcept>

#include "ArchiveSupport.h"
#include "runtime/fs/Psdk.h"

namespace morvane::testing {
namespace {

using T = ClsTar;
using E = ProgressEvent*;
using Getter = void (T::*)(XString&);

std::string get(T& tar, Getter getter) {
  XString text("old");
  (tar.*getter)(text);
  return text.str();
}

TEST(Component, PropertiesAreKept) {
  const std::unique_ptr<T> made(T::createNewCls());
  T& tar = *made;
  int number = 0;
  const auto isKept = [&](auto getter, auto setter, auto byDefault, auto other) {
    EXPECT_EQ(byDefault, (tar.*getter)()) << ++number;
    (tar.*setter)(other);
    EXPECT_EQ(other, (tar.*getter)()) << number;
  };
  isKept(&T::get_CaptureXmlListing, &T::put_CaptureXmlListing, false, true);
  isKept(&T::get_SuppressOutput, &T::put_SuppressOutput, false, true);
  isKept(&T::get_NoAbsolutePaths, &T::put_NoAbsolutePaths, true, false);
  isKept(&T::get_UntarDiscardPaths, &T::put_UntarDiscardPaths, false, true);
  isKept(&T::get_UntarDebugLog, &T::put_UntarDebugLog, false, true);
  isKept(&T::get_UntarCaseSensitive, &T::put_MatchCaseSensitive, false, true);
  isKept(&T::get_MatchCaseSensitive, &T::put_UntarCaseSensitive, true, false);
  isKept(&T::get_VerboseLogging, &T::put_VerboseLogging, false, true);
  isKept(&T::get_DirMode, &T::put_DirMode, 493, 1);
  isKept(&T::get_FileMode, &T::put_FileMode, 420, 2);
  isKept(&T::get_ScriptFileMode, &T::put_ScriptFileMode, 493, 3);
  isKept(&T::get_UserId, &T::put_UserId, 1000, 4);
  isKept(&T::get_GroupId, &T::put_GroupId, 1000, -5);
  isKept(&T::get_UntarMaxCount, &T::put_UntarMaxCount, 0, -6);
  isKept(&T::get_AbortCheckMs, &T::put_AbortCheckMs, 100, 7);
  isKept(&T::get_PercentScale, &T::put_PercentScale, 100, 8);
  const auto isText = [&](Getter getter, void (T::*setter)(const XString&), const std::string& byDefault,
                          const char* given, const char* kept) {
    EXPECT_EQ(byDefault, get(tar, getter));
    (tar.*setter)(given);
    EXPECT_EQ(kept, get(tar, getter));
  };
  StringBuffer user;
  Psdk::getUsername(user);
  isText(&T::get_Charset, &T::put_Charset, "utf-8", "x\xFF//", "x\xFF//");
  isText(&T::get_UntarFromDir, &T::put_UntarFromDir, ".", "x\xFF//", "x\xFF//");
  isText(&T::get_MustMatch, &T::put_UntarMatchPattern, "", "x", "x");
  isText(&T::get_UntarMatchPattern, &T::put_MustMatch, "x", "y", "y");
  isText(&T::get_MustNotMatch, &T::put_MustNotMatch, "", "x", "x");
  isText(&T::get_XmlListing, &T::put_XmlListing, "", "x", "x");
  isText(&T::get_UserName, &T::put_UserName, user.str(), "x", "x");
  isText(&T::get_GroupName, &T::put_GroupName, user.str(), "y", "y");
  isText(&T::get_WriteFormat, &T::put_WriteFormat, "gnu", " POSIX\t", "pax");
  isText(&T::get_WriteFormat, &T::put_WriteFormat, "pax", "GNU", "gnu");
  isText(&T::get_WriteFormat, &T::put_WriteFormat, "gnu", "Star\n", "ustar");
  isText(&T::get_WriteFormat, &T::put_WriteFormat, "ustar", "pax gnu", "gnu");
  isText(&T::get_DirPrefix, &T::put_DirPrefix, "", "/a/b ///", "/a/b ");
  isText(&T::get_DirPrefix, &T::put_DirPrefix, "/a/b ", "a\\", "a\\");
  isText(&T::get_DirPrefix, &T::put_DirPrefix, "a\\", "///", "");
  EXPECT_EQ("", logOf(tar)) << "properties never log";
  XString text;
  tar._toString(text);
  EXPECT_STREQ("ClsTar", text.getUtf8());
  tar.dotNetDispose();
}

// Every working method, called so that it succeeds.
struct Method {
  const char* name;
  bool hasVerdict, takesEvent;
  std::function<bool(T&, E)> call;
};

struct Workplace {
  Workplace() {
    writeFile(dir / "tree/file", "contents");
    writeFile(dir / "tree/sub/large", noise(100'000, 1));
    ClsTar tar;
    EXPECT_TRUE(tar.AddDirRoot(dir / "tree") && tar.WriteTar(at("a.tar")) && tar.WriteTarGz(at("a.tgz")) &&
                tar.WriteTarBz2(at("a.tbz")) && bytes.loadFileUtf8(at("a.tar").getUtf8(), nullptr));
  }
  XString at(const char* name) const { return XString(dir / name); }
  void prepare(ClsTar& tar) {
    tar.put_UntarFromDir(dir / "out");
    tar.put_UncommonOptions("Bz2Framed,MemberEvents");
    ASSERT_TRUE(tar.AddDirRoot(dir / "tree"));
  }

  std::vector<Method> methods() {
    return {{"AddDirRoot", true, false, [this](T& t, E) { return t.AddDirRoot(at("tree")); }},
            {"AddDirRoot2", true, false, [this](T& t, E) { return t.AddDirRoot2("p", at("tree")); }},
            {"AddFile", false, false, [this](T& t, E) { return t.AddFile(at("tree/file")); }},
            {"AddFile2", false, false, [this](T& t, E) { return t.AddFile2(at("tree/file"), "f"); }},
            {"AddBytes", false, false, [this](T& t, E) { return t.AddBytes("bytes", bytes); }},
            {"GetDirRoot", true, false, [this](T& t, E) { return t.GetDirRoot(0, text); }},
            {"WriteTar", true, true, [this](T& t, E e) { return t.WriteTar(at("out.tar"), e); }},
            {"WriteTarGz", true, true, [this](T& t, E e) { return t.WriteTarGz(at("out.tgz"), e); }},
            {"WriteTarBz2", true, true, [this](T& t, E e) { return t.WriteTarBz2(at("out.tbz"), e); }},
            {"Untar", true, true, [this](T& t, E e) { return t.Untar(at("a.tar"), e) >= 0; }},
            {"UntarFromMemory", false, true, [this](T& t, E e) { return t.UntarFromMemory(bytes, e) >= 0; }},
            {"VerifyTar", true, true, [this](T& t, E e) { return t.VerifyTar(at("a.tar"), e); }},
            {"ListXml", true, true, [this](T& t, E e) { return t.ListXml(at("a.tar"), text, e); }},
            {"UntarFirstMatchingToMemory", true, false,
             [this](T& t, E) { return t.UntarFirstMatchingToMemory(bytes, "*", data.data()); }},
            {"UntarFirstMatchingToBd", true, false,
             [this](T& t, E) { return t.UntarFirstMatchingToBd(at("a.tar"), "*", data); }},
            {"UntarGz", true, true, [this](T& t, E e) { return t.UntarGz(at("a.tgz"), e); }},
            {"UntarBz2", true, true, [this](T& t, E e) { return t.UntarBz2(at("a.tbz"), e); }},
            {"CreateDeb", true, false,
             [this](T& t, E) { return t.CreateDeb(at("a.tgz"), at("a.tgz"), at("deb")); }},
            {"ClearDirRootsAndFiles", false, false, [](T& t, E) { return t.ClearDirRootsAndFiles(); }}};
  }

  ScratchDir dir;
  DataBuffer bytes;
  XString text;
  ClsBinData data;
};

size_t openFiles() {
  const fs::directory_iterator files("/proc/self/fd");
  return static_cast<size_t>(std::distance(files, fs::directory_iterator()));
}

TEST(Component, EveryMethodRunsInTheFrame) {
  Workplace place;
  TarWith tar("", place.dir / "out");
  XString path(place.dir / "debug.log");
  tar.put_DebugLogFilePath(path);
  EXPECT_EQ(path.str(), get(tar, &T::get_DebugLogFilePath));
  std::string whole;
  const size_t filesBefore = openFiles();
  for (const Method& method : place.methods()) {
    SCOPED_TRACE(method.name);
    EXPECT_TRUE(method.call(tar, nullptr)) << logOf(tar);
    const std::string log = logOf(tar);
    whole += log;
    EXPECT_EQ(0u, log.find(std::string(method.name) + ":\n"));
    EXPECT_EQ(method.hasVerdict ? 1 : 0, countInLog(tar, "    Success.\n"));
    tar.injectStatus("status", true);
    tar.injectError("tag", "text");
    EXPECT_EQ(log + "status: true\ntag: text\n", logOf(tar)) << "every context is closed";
  }
  EXPECT_EQ(whole, readFile(place.dir / "debug.log")) << "each finished log is appended";
  EXPECT_EQ(filesBefore, openFiles());
  must(place.dir, "mkfifo fifo");
  for (const char* nowhere : {"fifo", "no/such/dir", "tree"}) {
    path = (place.dir / nowhere).c_str();
    tar.put_DebugLogFilePath(path);
    EXPECT_TRUE(tar.VerifyTar(place.at("a.tar"))) << "a log that cannot be kept changes nothing";
  }
}

struct CallingEvent : ProgressEvent {
  explicit CallingEvent(std::function<void()> theCall) : call(std::move(theCall)) {}
  void onAbortCheck(bool&) override { call(); }
  void onProgress(int, bool&) override { call(); }
  void onInfo(const char*, const char*) override { call(); }
  void onTarEntry(const char*, long long, bool, bool&) override { call(); }
  void onTarHeader(const TarMemberInfo&) override { call(); }
  void onTarMember(TarMember&) override { call(); }
  std::function<void()> call;
};

TEST(Component, MethodsAreRefusedFromCallbacks) {
  Workplace place;
  const std::vector<Method> methods = place.methods();
  for (const Method& outer : methods) {
    if (!outer.takesEvent) continue;
    SCOPED_TRACE(outer.name);
    ClsTar tar;
    place.prepare(tar);
    CallingEvent event([&] {
      const std::string before = logOf(tar);
      for (const Method& inner : methods) EXPECT_FALSE(inner.call(tar, nullptr)) << inner.name;
      EXPECT_EQ(before, logOf(tar)) << "the running log is left alone";
      EXPECT_EQ(1, tar.get_NumDirRoots());
      tar.put_UserName("from a callback");
    });
    EXPECT_TRUE(outer.call(tar, &event)) << logOf(tar);
    EXPECT_EQ("from a callback", get(tar, &ClsTar::get_UserName));
    EXPECT_TRUE(methods.back().call(tar, nullptr)) << "and allowed again";
  }
}

TEST(Component, WhatACallbackSetsHoldsFromTheNextStepOn) {
  Workplace place;
  ClsTar tar;
  ActingEvent event;
  tar.AddFile(place.at("tree/file"));
  tar.AddFile(place.at("tree/sub/large"));
  event.act = [&](const std::string& path) { tar.put_FileMode(has(path, "large") ? 0600 : 0640); };
  std::string archive = written(tar, &event);
  EXPECT_EQ("0000640 0000600", archive.substr(100, 7) + " " + archive.substr(1124, 7));
  // The last word before the header is onInfo's, and the questions end when they are switched off.
  struct : RecordingEvent {
    void onInfo(const char*, const char*) override {
      tar->put_FileMode(0611);
      tar->put_AbortCheckMs(0);
    }
    ClsTar* tar;
  } late;
  late.tar = &tar;
  archive = written(tar, &late);
  EXPECT_EQ("0000611", archive.substr(100, 7));
  EXPECT_EQ(1 + 2, late.questions)
      << "before writing, after each member; by the output none, for that holds at once";
  tar.put_AbortCheckMs(100);
  event.act = [&](const std::string& path) {
    tar.put_UntarMaxCount(1);
    tar.put_UntarFromDir(path + ".d");
  };
  tar.put_UntarFromDir(place.dir / "out");
  EXPECT_EQ(1, untar(tar, archive, &event));
  EXPECT_TRUE(exists(place.dir / "out/file"));
}

// Each callback throws in turn, in three ways.
TEST(Component, NothingThrownInACallbackEscapes) {
  Workplace place;
  for (const Method& method : place.methods()) {
    for (int kind = 0; method.takesEvent && kind < 3; ++kind) {
      int throwAt = 0;
      for (bool ok = false; !ok;) {
        SCOPED_TRACE(std::string(method.name) + ", callback " + std::to_string(++throwAt));
        ClsTar tar;
        place.prepare(tar);
        const size_t filesBefore = openFiles();
        int calls = 0;
        CallingEvent event([&] {
          if (++calls != throwAt) return;
          if (kind == 0) throw std::runtime_error("thrown\nhere");
          if (kind == 1) throw std::bad_alloc();
          throw 7;
        });
        EXPECT_NO_THROW(ok = method.call(tar, &event));
        ASSERT_EQ(ok, calls < throwAt);
        EXPECT_EQ(ok, !logHas(tar, "    The method was ended by an exception.\n")) << logOf(tar);
        EXPECT_EQ(!ok && kind == 0, logHas(tar, "exception: thrown\\nhere\n"));
        EXPECT_EQ(!ok && method.hasVerdict, logHas(tar, "    Failure.\n"));
        EXPECT_TRUE(method.call(tar, nullptr)) << "the object goes on working: " << logOf(tar);
        EXPECT_EQ(filesBefore, openFiles());
      }
      EXPECT_GT(throwAt, 4);
    }
  }
}

// A misspelt Confine must not let an archive out: until the words are put right nothing is done.
TEST(Component, UnusableWordsFailEveryMethodBeforeItDoesAnything) {
  Workplace place;
  for (const Method& method : place.methods()) {
    for (const char* words : {"FullRead,Bogus", "Confine=benaeth", "MaxPathDepth=-1"}) {
      SCOPED_TRACE(std::string(method.name) + " " + words);
      ClsTar tar;
      place.prepare(tar);
      tar.put_UncommonOptions(words);
      const auto before = treeOf(place.dir / "");
      RecordingEvent event;
      for (int call = 0; call < 2; ++call) {
        EXPECT_FALSE(method.call(tar, &event));
        EXPECT_EQ(1,
                  countInLog(tar, "Unknown option, or a value that makes no sense.\n    uncommonOption: "));
      }
      EXPECT_EQ(before, treeOf(place.dir / ""));
      EXPECT_TRUE(event.questions == 0 && event.headers.empty() && event.entries.empty());
      tar.put_UncommonOptions("Bz2Framed,MemberEvents");
      EXPECT_TRUE(method.call(tar, nullptr));
    }
  }
}

TEST(Progress, PercentagesRiseToTheScale) {
  __extension__ using Wide = __int128;
  constexpr long long kHuge = 0x7FFFFFFFFFFFFFFF;
  LogNull log;
  for (const long long total : {0LL, 1LL, 99LL, 12'345'678LL, kHuge}) {
    for (const int scale : {-1, 0, 1, 3, 100, 0x7FFFFFFF}) {
      RecordingEvent event;
      ProgressMonitor monitor(event, 100, scale, total);
      std::set<int> expected;
      const bool isTold = total > 0 && scale > 0;
      const long long part = total / 7;
      for (int parts = 1; parts < 7 && part > 0; ++parts) {
        EXPECT_FALSE(monitor.consumeProgress(part, log));
        if (isTold) expected.insert(static_cast<int>(static_cast<Wide>(part) * parts * scale / total));
      }
      EXPECT_FALSE(monitor.consumeProgress(kHuge, log)) << "more than there was";
      monitor.consumeRemaining(log);
      if (isTold) expected.insert(scale);
      EXPECT_EQ(std::vector<int>(expected.begin(), expected.end()), event.percents) << total << ", " << scale;
    }
  }
}

}  // namespace
}  // namespace morvane::testing
