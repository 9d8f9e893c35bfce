// The component object: properties, the frame of its methods, callbacks, its log, and its use from many
// threads.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>

#include "TestSupport.h"
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

template <class Value>
struct Plain {
  Value (T::*get)() const;
  void (T::*put)(Value);
  Value byDefault;
};

template <class Value, size_t n>
void takeAnyValue(T& tar, const Plain<Value> (&properties)[n], std::initializer_list<Value> values) {
  for (const auto& each : properties) {
    for (const auto& other : properties) EXPECT_EQ(other.byDefault, (tar.*other.get)());
    for (const Value value : values) {
      (tar.*each.put)(value);
      EXPECT_EQ(value, (tar.*each.get)());
    }
    (tar.*each.put)(each.byDefault);
  }
}

TEST(Component, DefaultsAndProperties) {
  const std::unique_ptr<T> made(T::createNewCls());
  ASSERT_TRUE(made);
  T& tar = *made;
  takeAnyValue<bool>(tar,
                     {{&T::get_CaptureXmlListing, &T::put_CaptureXmlListing, false},
                      {&T::get_SuppressOutput, &T::put_SuppressOutput, false},
                      {&T::get_NoAbsolutePaths, &T::put_NoAbsolutePaths, true},
                      {&T::get_UntarDiscardPaths, &T::put_UntarDiscardPaths, false},
                      {&T::get_UntarDebugLog, &T::put_UntarDebugLog, false},
                      {&T::get_UntarCaseSensitive, &T::put_MatchCaseSensitive, false},
                      {&T::get_MatchCaseSensitive, &T::put_UntarCaseSensitive, false}},
                     {true, false});
  takeAnyValue<int>(tar,
                    {{&T::get_DirMode, &T::put_DirMode, 493},
                     {&T::get_FileMode, &T::put_FileMode, 420},
                     {&T::get_ScriptFileMode, &T::put_ScriptFileMode, 493},
                     {&T::get_UserId, &T::put_UserId, 1000},
                     {&T::get_GroupId, &T::put_GroupId, 1000},
                     {&T::get_UntarMaxCount, &T::put_UntarMaxCount, 0},
                     {&T::get_AbortCheckMs, &T::put_AbortCheckMs, 100},
                     {&T::get_PercentScale, &T::put_PercentScale, 100}},
                    {-1, 0, 0x7FFFFFFF, -0x7FFFFFFF - 1});
  StringBuffer user;
  Psdk::getUsername(user);
  const struct {
    Getter getter;
    void (T::*setter)(const XString&);
    std::string value;
  } kTexts[] = {
      {&T::get_Charset, &T::put_Charset, "utf-8"},        {&T::get_UntarFromDir, &T::put_UntarFromDir, "."},
      {&T::get_MustMatch, &T::put_UntarMatchPattern, ""}, {&T::get_UntarMatchPattern, &T::put_MustMatch, ""},
      {&T::get_MustNotMatch, &T::put_MustNotMatch, ""},   {&T::get_XmlListing, &T::put_XmlListing, ""},
      {&T::get_UserName, &T::put_UserName, user.str()},   {&T::get_GroupName, &T::put_GroupName, user.str()}};
  for (const auto& each : kTexts) {
    for (const auto& other : kTexts) EXPECT_EQ(other.value, get(tar, other.getter));
    (tar.*each.setter)(std::string("kept as given \xFF//"));
    EXPECT_EQ("kept as given \xFF//", get(tar, each.getter));
    (tar.*each.setter)(each.value);
  }
  const char* const kFormats[][2] = {
      {nullptr, "gnu"}, {" GNU\t", "gnu"},  {"POSIX", "pax"}, {"Pax\n", "pax"},      {" star ", "ustar"},
      {"zip", "gnu"},   {"Ustar", "ustar"}, {"", "gnu"},      {"p\xC3\xA4x", "gnu"}, {"pax ustar", "gnu"}};
  for (const auto& [given, kept] : kFormats) {
    if (given) tar.put_WriteFormat(given);
    EXPECT_EQ(kept, get(tar, &T::get_WriteFormat));
  }
  const char* const kPrefixes[][2] = {{nullptr, ""},  {"a/b///", "a/b"}, {"///", ""}, {"/a", "/a"},
                                      {"a\\", "a\\"}, {"a/ ", "a/ "},    {"", ""}};
  for (const auto& [given, kept] : kPrefixes) {
    if (given) tar.put_DirPrefix(given);
    EXPECT_EQ(kept, get(tar, &T::get_DirPrefix));
  }
  XString text;
  tar._toString(text);
  EXPECT_STREQ("ClsTar", text.getUtf8());
  tar.dotNetDispose();
  EXPECT_FALSE(tar.get_VerboseLogging());
  tar.put_VerboseLogging(true);
  EXPECT_TRUE(tar.get_VerboseLogging() && tar.get_NumDirRoots() == 0);
  EXPECT_EQ("", logOf(tar)) << "properties never log";
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

  std::vector<Method> methods() {
    return {{"AddDirRoot", true, false, [this](T& t, E) { return t.AddDirRoot(at("tree")); }},
            {"AddDirRoot2", true, false, [this](T& t, E) { return t.AddDirRoot2("p", at("tree")); }},
            {"AddFile", false, false, [this](T& t, E) { return t.AddFile(at("tree/file")); }},
            {"AddFile2", false, false, [this](T& t, E) { return t.AddFile2(at("tree/file"), "f"); }},
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
  const std::filesystem::directory_iterator files("/proc/self/fd");
  return static_cast<size_t>(std::distance(files, std::filesystem::directory_iterator()));
}

TEST(Component, EveryMethodRunsInTheFrame) {
  Workplace place;
  ClsTar tar;
  tar.put_UntarFromDir(place.dir / "out");
  XString path(place.dir / "debug.log"), kept;
  tar.put_DebugLogFilePath(path);
  tar.get_DebugLogFilePath(kept);
  EXPECT_EQ(path.str(), kept.str());
  std::string whole;
  const size_t filesBefore = openFiles();
  for (const Method& method : place.methods()) {
    SCOPED_TRACE(method.name);
    EXPECT_TRUE(method.call(tar, nullptr)) << logOf(tar);
    const std::string log = logOf(tar);
    whole += log;
    EXPECT_EQ(0u, log.find(std::string(method.name) + ":\n"));
    EXPECT_EQ(method.hasVerdict ? 1 : 0, countInLog(tar, "    Success.\n"));
    EXPECT_FALSE(logHas(tar, "Failure."));
    const bool adds = std::string(method.name) == "AddFile" || std::string(method.name) == "AddFile2";
    EXPECT_EQ(adds, logHas(tar, "morvaneVersion: "));
    tar.injectStatus("status", true);
    tar.injectStatus("status", false);
    tar.injectError("tag", "text");
    EXPECT_EQ(log + "status: true\nstatus: false\ntag: text\n", logOf(tar)) << "every context is closed";
  }
  EXPECT_EQ(whole, readFile(place.dir / "debug.log")) << "each finished log is appended";
  EXPECT_EQ(filesBefore, openFiles());
  EXPECT_EQ(treeOf(place.dir / "tree"), treeOf(place.dir / "out"));

  ASSERT_EQ(0, mkfifo((place.dir / "fifo").c_str(), 0600));
  for (const char* nowhere : {"fifo", "no/such/dir", "tree", "tree/file/below"}) {
    path = (place.dir / nowhere).c_str();
    tar.put_DebugLogFilePath(path);
    EXPECT_TRUE(tar.VerifyTar(XString(place.dir / "a.tar"))) << "a log that cannot be kept changes nothing";
  }
}

struct CallingEvent : ProgressEvent {
  explicit CallingEvent(std::function<void()> theCall) : call(std::move(theCall)) {}
  void onAbortCheck(bool&) override { call(); }
  void onProgress(int, bool&) override { call(); }
  void onInfo(const char*, const char*) override { call(); }
  void onTarEntry(const char*, long long, bool, bool&) override { call(); }
  void onTarHeader(const TarMemberInfo&) override { call(); }
  std::function<void()> call;
};

TEST(Component, MethodsAreRefusedFromCallbacks) {
  Workplace place;
  const std::vector<Method> methods = place.methods();
  for (const Method& outer : methods) {
    if (!outer.takesEvent) continue;
    SCOPED_TRACE(outer.name);
    ClsTar tar;
    tar.put_UntarFromDir(place.dir / "out");
    XString path(place.dir / (std::string(outer.name) + ".log"));
    tar.put_UncommonOptions("Bz2Framed");
    ASSERT_TRUE(tar.AddDirRoot(place.dir / "tree"));
    tar.put_DebugLogFilePath(path);
    int calls = 0;
    CallingEvent event([&] {
      ++calls;
      const std::string before = logOf(tar);
      for (const Method& inner : methods) EXPECT_FALSE(inner.call(tar, nullptr)) << inner.name;
      EXPECT_EQ(before, logOf(tar)) << "the running log is left alone";
      EXPECT_EQ(1, tar.get_NumDirRoots());
      tar.put_UserName("from a callback");
      tar.put_FileMode(0600);
    });
    EXPECT_TRUE(outer.call(tar, &event)) << logOf(tar);
    EXPECT_GT(calls, 3);
    EXPECT_EQ("from a callback", get(tar, &ClsTar::get_UserName));
    EXPECT_EQ(logOf(tar), readFile(path.str()));
    EXPECT_TRUE(methods.back().call(tar, nullptr)) << "and allowed again";
  }
}

// Each callback throws in turn, in three ways.
TEST(Component, NothingThrownInACallbackEscapes) {
  Workplace place;
  for (const Method& method : place.methods()) {
    for (int kind = 0; method.takesEvent && kind < 3; ++kind) {
      int throwAt = 0;
      for (bool ok = false; !ok;) {
        SCOPED_TRACE(std::string(method.name) + ", callback " + std::to_string(++throwAt));
        ASSERT_LT(throwAt, 1000);
        ClsTar tar;
        tar.put_UntarFromDir(place.dir / "out");
        tar.put_UncommonOptions("Bz2Framed");
        ASSERT_TRUE(tar.AddDirRoot(place.dir / "tree"));
        const size_t filesBefore = openFiles();
        int calls = 0;
        CallingEvent event([&] {
          if (++calls != throwAt) return;
          if (kind == 0) throw std::runtime_error("thrown\nhere");
          if (kind == 1) throw std::bad_alloc();
          throw 7;
        });
        EXPECT_NO_THROW(ok = method.call(tar, &event));
        EXPECT_EQ(ok, calls < throwAt);
        EXPECT_EQ(ok, !logHas(tar, "    The method was ended by an exception.\n")) << logOf(tar);
        EXPECT_EQ(ok, !logHas(tar, kind == 0 ? "exception: thrown\\nhere\n" : "exception: "));
        EXPECT_EQ(!ok && method.hasVerdict, logHas(tar, "    Failure.\n"));
        EXPECT_TRUE(method.call(tar, nullptr)) << "the object goes on working: " << logOf(tar);
        EXPECT_EQ(filesBefore, openFiles());
      }
      EXPECT_GT(throwAt, 4);
    }
  }
}

TEST(Component, OptionWordsAreComplainedOfOnce) {
  ClsTar tar;
  tar.put_UncommonOptions("FullRead,Bogus,Confine=maybe");
  EXPECT_EQ("", logOf(tar));
  tar.AddFile("x");
  EXPECT_EQ(2, countInLog(tar, "Unknown option, or a value that makes no sense."));
  EXPECT_TRUE(logHas(tar, "    uncommonOption: Bogus\n") &&
              logHas(tar, "    uncommonOption: Confine=maybe\n"));
  tar.AddFile("x");
  EXPECT_EQ(0, countInLog(tar, "ncommon"));
  tar.put_UncommonOptions("Bogus");
  XString words;
  tar.get_UncommonOptions(words);
  EXPECT_STREQ("Bogus", words.getUtf8());
  tar.AddFile("x");
  EXPECT_EQ(1, countInLog(tar, "uncommonOption: Bogus\n")) << "once for each time they are set";
  tar.put_UncommonOptions("");
  tar.AddFile("x");
  EXPECT_EQ(0, countInLog(tar, "ncommon"));
}

TEST(Component, ManyMembersLeaveAShortLogAndTheVerdictStays) {
  const auto archiveOf = [](int members) {
    ArchiveBuilder archive;
    for (int i = 0; i < members; ++i) archive.add({"directory/member" + std::to_string(i), "data"});
    return archive.bytes();
  };
  const std::string many = archiveOf(20'000), few = archiveOf(3);
  ClsTar tar;
  tar.put_SuppressOutput(true);
  const auto logAfter = [&tar](const std::string& archive) {
    _mvMemoryDataSource source;
    source.initializeMemSource(reinterpret_cast<const unsigned char*>(archive.data()),
                               static_cast<unsigned>(archive.size()));
    EXPECT_GE(tar.Untar(source), 3) << logOf(tar);
    return logOf(tar);
  };
  const auto linesOf = [](const std::string& text) { return std::count(text.begin(), text.end(), '\n'); };
  EXPECT_EQ(linesOf(logAfter(few)), linesOf(logAfter(many)));
  tar.put_UntarDebugLog(true);
  tar.put_VerboseLogging(true);
  const std::string text = logAfter(many);
  EXPECT_TRUE(text.size() > 1'000'000 && text.size() < (1 << 20) + 100) << text.size();
  EXPECT_EQ(0u, text.find("Untar:\n"));
  EXPECT_NE(std::string::npos, text.find(" bytes of the log left out ...\n"));
  EXPECT_NE(std::string::npos, text.find("untarCount: 20000\n    Success.\n", text.size() - 100));
}

TEST(Component, DestroyedInTheMiddleOfAStreamItClosesTheFile) {
  ScratchDir dir;
  const std::string archive = ArchiveBuilder().add({"file", std::string(5000, 'x')}).bytes();
  const size_t filesBefore = openFiles();
  {
    ClsTar tar;
    tar.put_UntarFromDir(dir.path());
    bool finished = false;
    tar.BeginStreamingUntar(tar.log());
    EXPECT_TRUE(tar.StreamingUntarNext(reinterpret_cast<const unsigned char*>(archive.data()), 3000, finished,
                                       nullptr, tar.log()));
    EXPECT_FALSE(finished);
    EXPECT_GT(openFiles(), filesBefore);
  }
  EXPECT_EQ(filesBefore, openFiles());
  EXPECT_EQ(std::string(3000 - 512, 'x'), readFile(dir / "file"));
}

TEST(Progress, PercentagesRiseToTheScale) {
  __extension__ using Wide = __int128;
  constexpr long long kHuge = 0x7FFFFFFFFFFFFFFF;
  LogNull log;
  for (const long long total : {0LL, 1LL, 2LL, 99LL, 12'345'678LL, kHuge}) {
    for (const int scale : {-1, 0, 1, 3, 100, 0x7FFFFFFF}) {
      RecordingEvent event;
      ProgressMonitor monitor(event, 100, scale, total);
      std::vector<int> expected;
      for (long long done = total / 7; done < total && total / 7 > 0 && scale > 0; done += total / 7) {
        EXPECT_FALSE(monitor.consumeProgress(total / 7, log));
        const int percent = static_cast<int>(static_cast<Wide>(done) * scale / total);
        if (expected.empty() || percent > expected.back()) expected.push_back(percent);
        if (done > total - total / 7) break;
      }
      EXPECT_FALSE(monitor.consumeProgress(kHuge, log)) << "more than there was";
      monitor.consumeRemaining(log);
      if (total > 0 && scale > 0 && (expected.empty() || expected.back() < scale)) expected.push_back(scale);
      EXPECT_EQ(expected, event.percents) << total << ", " << scale;
    }
  }
}

}  // namespace
}  // namespace morvane::testing
