// The words of UncommonOptions, each on one input twice: what happens without it, and with it.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "ArchiveSupport.h"
#include "runtime/progress/TarMemberInfo.h"

namespace morvane::testing {
namespace {

using namespace std::string_literals;

// What the archive says of its members.
struct DescribingEvent : RecordingEvent {
  void onTarHeader(const TarMemberInfo& info) override {
    seen += std::string(info.path) + " -> " + info.linkPath + " " + std::to_string(info.size) + " " +
            std::to_string(info.mtime) + " " + std::to_string(info.mode) + " " + std::to_string(info.uid) +
            "\n";
  }
  std::string seen;
};

// ---- Writing

TEST(Options, SkipOutputFile) {
  for (const char* word : {"", "SkipOutputFile"}) {
    ScratchDir dir;
    writeFile(dir / "t/a.tar", "");
    writeFile(dir / "t/b", "b");
    std::filesystem::create_hard_link(dir / "t/a.tar", dir / "t/same");
    ClsTar tar;
    tar.put_UncommonOptions(word);
    tar.AddDirRoot(dir / "t");
    EXPECT_TRUE(tar.WriteTar(dir / "t/a.tar"));
    const Lines members = membersOf(readFile(dir / "t/a.tar"));
    EXPECT_EQ(*word ? Lines{"b 1"} : (Lines{"a.tar 0", "b 1", "same 0"}), members);
    EXPECT_EQ(*word ? 2 : 0, countInLog(tar, "The archive is not put into itself.\n")) << logOf(tar);
  }
}

// Something is gone at the moment when `at` is announced.
TEST(Options, SkipUnreadable) {
  const struct {
    const char *gone, *at, *skip;
    Lines rest;
    const char* told;
  } kCases[] = {
      {"single", "single", "", {"d/ 0", "d/f 1", "d/g 1", "e/ 0", "z 1"}, "single"},
      {"d/g", "d/f", "", {"single 1", "d/ 0", "d/f 1", "e/ 0", "z 1"}, "d/g"},
      {"d", "d", "", {"single 1", "e/ 0", "z 1"}, "d"},
      {"d", "d", "d", {"single 1", "e/ 0", "z 1"}, "d"},
      {"e", "d/f", "", {"single 1", "d/ 0", "d/f 1", "d/g 1", "z 1"}, "e"},
      {"z", "d", "", {"single 1", "d/ 0", "d/f 1", "d/g 1", "e/ 0"}, "z"},
      {".", "single", "", {"single 1"}, ""},
  };
  for (const auto& each : kCases) {
    for (const char* word : {"", "SkipUnreadable"}) {
      SCOPED_TRACE(std::string(each.gone) + " at " + each.at + " " + each.skip + word);
      ScratchDir dir;
      for (const char* file : {"t/d/f", "t/d/g", "t/z", "single"}) writeFile(dir / file, "x");
      run({"mkdir", dir / "t/e"});
      const auto place = [&](const std::string& name) {
        return name == "single" ? dir / name : name.empty() || name == "." ? dir / "t" : dir / ("t/" + name);
      };
      ClsTar tar;
      tar.AddFile(dir / "single");
      tar.AddDirRoot(dir / "t");
      tar.put_UncommonOptions(word);
      ActingEvent event;
      if (*each.skip) event.skipEntry = place(each.skip);
      event.act = [&](const std::string& path) {
        if (path == place(each.at)) run({"rm", "-rf", place(each.gone)});
      };
      LimitedOutput out;
      EXPECT_FALSE(tar.WriteTar(out, &event));
      EXPECT_TRUE(logHas(tar, place(each.told) + "\n")) << logOf(tar);
      EXPECT_EQ(*word ? each.rest : Lines{"broken"}, membersOf(out.bytes)) << logOf(tar);
      EXPECT_EQ(*word ? Lines{"unreadable=" + place(each.told)} : Lines{}, event.infos) << logOf(tar);
      EXPECT_EQ(*word ? 1 : 0, countInLog(tar, "It cannot be read and is left out.\n"));
    }
  }
}

// A file that has another size when it is read than when it was examined.
TEST(Options, WriteExactSizes) {
  const struct {
    size_t before, after;
    bool inTree, brokenByDefault;
  } kCases[] = {{600, 100, true, true}, {600, 0, true, true},       {100, 600, true, true},
                {0, 1, true, false},    {600, 100, false, true},    {100, 600, false, true},
                {0, 1, false, false},   {50000, 30000, true, true}, {512, 512, true, false}};
  for (const auto& each : kCases) {
    for (const char* word : {"", "WriteExactSizes", "WriteExactSizes,SkipUnreadable"}) {
      SCOPED_TRACE(std::to_string(each.before) + " to " + std::to_string(each.after) + " " + word);
      const std::string before = noise(each.before, 1), after = noise(each.after, 1);
      ScratchDir dir;
      writeFile(dir / "t/f", before);
      writeFile(dir / "z/next", "next");
      ClsTar tar;
      tar.put_UncommonOptions(word);
      if (each.inTree) tar.AddDirRoot(dir / "t");
      if (!each.inTree) tar.AddFile(dir / "t/f");
      tar.AddDirRoot(dir / "z");
      ActingEvent event;
      event.act = [&](const std::string& path) {
        if (path == dir / "t/f") writeFile(path, after);
      };
      const bool changed = each.before != each.after;
      LimitedOutput out;
      EXPECT_EQ(!*word || !changed, tar.WriteTar(out, &event)) << logOf(tar);
      const Lines whole = {"f " + std::to_string(each.before), "next 4"};
      EXPECT_EQ(!*word && each.brokenByDefault, membersOf(out.bytes) != whole);
      EXPECT_EQ(*word && changed ? Lines{"sizeChanged=" + (dir / "t/f")} : Lines{}, event.infos);
      if (!*word) continue;
      std::string data = after;
      data.resize(each.before, '\0');
      EXPECT_TRUE(data == out.bytes.substr(512, each.before));
    }
  }
}

// Such a file says that it is empty.
TEST(Options, WriteExactSizesOfAFileThatTheSystemMakesUp) {
  ClsTar tar;
  tar.put_UncommonOptions("WriteExactSizes");
  tar.AddFile("/proc/version");
  LimitedOutput out;
  ActingEvent event;
  EXPECT_FALSE(tar.WriteTar(out, &event));
  EXPECT_EQ(Lines{"sizeChanged=/proc/version"}, event.infos);
}

// The default never ends: a child tries it, with little time on the processor.
TEST(OptionsDeathTest, CountSkipsExcluded) {
  ScratchDir dir;
  writeFile(dir / "t/a", "12");
  writeFile(dir / "t/b", "345");
  const auto countWith = [&](const char* word) {
    ClsTar tar;
    tar.put_UncommonOptions(word);
    tar.put_MustNotMatch("*/a");
    tar.AddDirRoot(dir / "t");
    RecordingEvent event;
    LimitedOutput out;
    return tar.WriteTar(out, &event) && membersOf(out.bytes) == Lines{"b 3"} &&
           event.percents == std::vector{100};
  };
  const auto countWithOneSecond = [&] {
    const rlimit second{1, 1}, none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    setrlimit(RLIMIT_CPU, &second);
    countWith("");
  };
  const auto killed = [](int status) { return WIFSIGNALED(status); };
  EXPECT_EXIT(countWithOneSecond(), killed, "");
  EXPECT_TRUE(countWith("CountSkipsExcluded"));
}

TEST(Options, NoTotal) {
  for (const char* word : {"", "NoTotal"}) {
    ScratchDir dir;
    writeFile(dir / "t/a", "12");
    ClsTar tar;
    tar.put_UncommonOptions(word);
    tar.AddDirRoot(dir / "t");
    RecordingEvent event, aborting;
    LimitedOutput out;
    EXPECT_TRUE(tar.WriteTar(out, &event));
    EXPECT_EQ(*word ? 3 : 4, event.questions);
    EXPECT_EQ(*word == '\0', event.percents == std::vector{100});
    aborting.abortAtQuestion = *word ? 1 : 2;  // the last before anything is written
    EXPECT_FALSE(tar.WriteTar(dir / "none.tar", &aborting));
    EXPECT_FALSE(exists(dir / "none.tar"));
  }
}

TEST(Options, UstarPrefixes) {
  for (size_t prefix = 150; prefix <= 168; ++prefix) {  // its slash included
    for (const char* words :
         {"", "UstarOverflow=fail", "UstarPlainPrefix", "UstarPlainPrefix,UstarOverflow=fail"}) {
      SCOPED_TRACE(std::to_string(prefix) + words);
      const bool fails = std::string(words).find("fail") != std::string::npos;
      const size_t stored = prefix - (std::string(words).find("Plain") != std::string::npos);
      if (stored > 167 && !fails) continue;  // stops the process
      const std::string path = std::string(prefix - 1, 'd') + "/name";
      ClsTar tar;
      tar.put_WriteFormat("ustar");
      tar.put_UncommonOptions(words);
      ScratchDir dir;
      writeFile(dir / "f", "");
      tar.AddFile2(dir / "f", path);
      LimitedOutput out;
      const bool ok = tar.WriteTar(out);
      EXPECT_EQ(!fails || stored <= 155, ok);
      if (ok) {
        EXPECT_EQ(path.substr(0, stored), out.bytes.substr(345, stored));
        EXPECT_EQ('\0', out.bytes[345 + stored]);
        EXPECT_EQ(stored <= 155 || stored == prefix, membersOf(out.bytes) == Lines{path + " 0"});
      } else {
        EXPECT_TRUE(out.bytes.empty());
        EXPECT_TRUE(logHas(tar, "Max lengths for ustar format are 100 bytes") &&
                    logHas(tar, "filePathTooLong: " + path));
      }
    }
  }
}

TEST(Options, PaxExact) {
  for (const size_t length : {101u, 989u, 990u, 9988u, 9989u, 20000u, 99988u, 100000u}) {
    for (const char* word : {"", "PaxExact"}) {
      SCOPED_TRACE(std::to_string(length) + word);
      std::string path(length, 'p');
      for (size_t i = 200; i < length; i += 200) path[i] = '/';
      ScratchDir dir;
      writeFile(dir / "f", "data");
      ClsTar tar;
      tar.put_WriteFormat("pax");
      tar.put_UncommonOptions(word);
      tar.AddFile2(dir / "f", path);
      ASSERT_TRUE(tar.WriteTar(dir / "a.tar"));
      const bool exact = *word || length <= 9988;
      const std::string record = paxRecord("path", path);
      EXPECT_EQ(exact, readFile(dir / "a.tar").compare(512, record.size(), record) == 0);
      if (!exact) continue;
      EXPECT_EQ(path + "\n", run({"tar", "-tf", dir / "a.tar"}).out);
      EXPECT_EQ(path + "\n", run({"bsdtar", "-tf", dir / "a.tar"}).out);
      tar.put_UncommonOptions("FullRead");
      RecordingEvent event;
      EXPECT_TRUE(tar.VerifyTar(dir / "a.tar", &event));
      EXPECT_EQ(1u, event.headers.size());
      EXPECT_EQ(0u, event.headers.at(0).find("0 " + path + " 4 "));
    }
  }
}

// ---- Reading

TEST(Options, FullRead) {
  const auto x = [](const std::string& keyword, const std::string& value) {
    return paxHeader(keyword, value);
  };
  const std::string link(300, 'l'), name(100000, 'n'), plain = " 0 1700000000 420 0\n";
  const struct {
    std::string archive, byDefault, full;  // as DescribingEvent shows them
  } kCases[] = {
      {x("comment", "v\n11 path=evil") + member("m"), "evil -> " + plain, "m -> " + plain},
      {x("SCHILY.xattr.user.a", "\0\n11 path=evil\n"s) + x("path", "p") + member("m"), "p -> " + plain,
       "p -> " + plain},
      {x("path", "a\nb") + member("m"), "a -> " + plain, "a\nb -> " + plain},
      {x("path", name) + member("m"), "", name + " -> " + plain},
      {x("path", name.substr(0, 1200)) + member("m"), name.substr(0, 999) + " -> " + plain,
       name.substr(0, 1200) + " -> " + plain},
      {longName(name) + member("m"), "", name + " -> " + plain},
      {longName(link, 'K') + member("m", "", '2'), "record ->  301 1700000000 420 0\nm -> target" + plain,
       "m -> " + link + plain},
      {x("linkpath", link) + member("m", "", '2'), "m -> " + link + plain, "m -> " + link + plain},
      {x("mtime", "5.25") + member("m"), "m -> " + plain, "m ->  0 5 420 0\n"},
      {x("mtime", "-1.5") + member("m"), "m -> " + plain, "m ->  0 -2 420 0\n"},
      // The record's own block has no say in what the record does not give.
      {patched(x("mtime", "7"), kUidField, "0000007") + member("m"), "m ->  0 1700000000 420 7\n",
       "m ->  0 7 420 0\n"},
      {patched(longName("m"), kModeField, "0000007") + member("n"), "m -> " + plain, "m -> " + plain},
      {x("uid", "7") + member("m"), "m ->  0 1700000000 420 7\n", "m ->  0 1700000000 420 7\n"},
      {member("g", paxRecord("path", "evil") + paxRecord("uid", "9"), 'g') + member("m") + member("n"),
       "g ->  21 1700000000 420 0\nm -> " + plain + "n -> " + plain,
       "m ->  0 1700000000 420 9\nn ->  0 1700000000 420 9\n"},
      {member("V", "", 'V') + member("D", "d", 'D') + member("M", "m", 'M') + member("N", "n", 'N') +
           member("m"),
       "V -> " + plain +
           "D ->  1 1700000000 420 0\nM ->  1 1700000000 420 0\nN ->  1 1700000000 420 0\nm -> " + plain,
       "m -> " + plain},
      {x("path", "d/") + member("m"), "d/ -> " + plain, "d/ -> " + plain},
  };
  for (const auto& each : kCases) {
    for (const char* word : {"", "FullRead"}) {
      ClsTar tar;
      tar.put_UncommonOptions(word);
      tar.put_SuppressOutput(true);
      DescribingEvent event;
      const std::string& expected = *word ? each.full : each.byDefault;
      EXPECT_EQ(expected.empty(), untar(tar, each.archive + kEnd, &event) < 0);
      EXPECT_TRUE(expected == event.seen)
          << each.archive.substr(512, 40) << word << event.seen.substr(0, 200);
      const bool hasGlobal = each.archive[156] == 'g';
      EXPECT_EQ(*word && hasGlobal,
                logHas(tar, "A global PAX record that can hold for one member only is ignored."));
    }
  }
  // A size of more than 32 bits, of which nothing is there.
  for (const auto& [word, size] : {std::pair("", "4294967295"), {"FullRead", "9223372036854775807"}}) {
    ClsTar tar;
    tar.put_UncommonOptions(word);
    tar.put_SuppressOutput(true);
    RecordingEvent event;
    EXPECT_EQ(-1, untar(tar, x("size", "9223372036854775807") + member("m") + kEnd, &event));
    EXPECT_EQ(Lines{"0 m "s + size + " 1024"}, event.headers);
  }
  // A NUL does not cut the name that a file gets, and times reach it with their fractions.
  ScratchDir dir;
  ClsTar tar;
  tar.put_UncommonOptions("FullRead");
  tar.put_UntarFromDir(dir.path());
  EXPECT_EQ(-1, untar(tar, x("path", "m\0x"s) + member("n") + kEnd));
  EXPECT_TRUE(treeOf(dir.path()).empty() && logHas(tar, "Member refused: its path leaves the target."));
  EXPECT_EQ(1, untar(tar, x("mtime", "4294967296.000000007") + x("atime", "-5.5") + member("m") + kEnd))
      << logOf(tar);
  struct stat status;
  ASSERT_EQ(0, stat((dir / "m").c_str(), &status));
  EXPECT_EQ(4294967296, status.st_mtim.tv_sec);
  EXPECT_EQ(7, status.st_mtim.tv_nsec);
  EXPECT_EQ(-6, status.st_atim.tv_sec);
}

TEST(Options, MaxExtensionBytes) {
  for (const char flag : {'x', 'L', 'K', 'g'}) {
    const auto result = [flag](const std::string& words, size_t size) {
      ClsTar tar;
      tar.put_UncommonOptions(words.c_str());
      tar.put_SuppressOutput(true);
      std::string data = paxRecord("comment", std::string(size - 20, 'c'));
      data.resize(size, '\0');
      const int count = untar(tar, member("r", data, flag) + member("m") + kEnd);
      EXPECT_EQ(count < 0,
                logHas(tar, "Extension data too large.\n            size: " + std::to_string(size) + "\n"));
      return count;
    };
    EXPECT_EQ(1, result("FullRead,MaxExtensionBytes=1000", 1000));
    EXPECT_EQ(-1, result("FullRead,MaxExtensionBytes=1000", 1001));
    EXPECT_EQ(1, result("FullRead", 100001));
    EXPECT_EQ(flag == 'x' ? -1 : 1, result("FullRead", flag == 'x' ? (64 << 20) + 1 : 1000));
  }
}

TEST(Options, FullReadOfGitArchives) {
  ScratchDir dir;
  const std::string deep = std::string(80, 'a') + "/" + std::string(80, 'b') + "/" + std::string(120, 'c');
  writeFile(dir / ("r/" + deep), "deep");
  writeFile(dir / "r/f", "f");
  ASSERT_EQ(0, symlink(deep.c_str(), (dir / "r/l").c_str()));
  const CommandResult made =
      run({"sh", "-c",
           "git init -q && git add -A && git -c user.name=n -c user.email=e@x commit -qm m && "
           "git archive -o ../a.tar HEAD"},
          "", dir / "r");
  ASSERT_EQ(0, made.status) << made.err;
  for (const char* word : {"", "FullRead"}) {
    ClsTar tar;
    tar.put_UncommonOptions(word);
    tar.put_UntarFromDir(dir / word + "out");
    EXPECT_GT(tar.Untar(dir / "a.tar"), 0) << logOf(tar);
    EXPECT_EQ(*word == '\0', exists(dir / word + "out/pax_global_header"));
    EXPECT_EQ("deep", readFile(dir / word + "out/" + deep));
  }
}

// Links planted in the target; beside it lies a directory that nobody may touch.
TEST(Options, Confine) {
  constexpr char kOutside = 'o', kInside = 'i', kRefused = 'r', kFailed = 'f';
  const struct {
    const char *prepare, *name;
    char byDefault, beneath, nolinks;
  } kCases[] = {
      {"true", "a/b", kInside, kInside, kInside},
      {"true", "../outer/new", kOutside, kRefused, kRefused},
      {"true", "a/../../outer/new", kOutside, kRefused, kRefused},
      {"ln -s ../outer l", "l/new", kOutside, kRefused, kRefused},
      {"ln -s ../outer/new l", "l", kOutside, kInside, kInside},  // the link itself gives way
      {"ln -s ../outer l", "l", kFailed, kInside, kInside},
      {"ln -s \"$PWD/../outer\" l", "l/new", kOutside, kRefused, kRefused},
      {"mkdir d; ln -s d l", "l/new", kInside, kInside, kRefused},
      {"ln -s ../outer a; ln -s a b", "b/new", kOutside, kRefused, kRefused},
      {"mkdir -p full/x", "full", kFailed, kRefused, kRefused},
      {"ln ../outer/old hard", "hard", kOutside, kInside, kInside},
  };
  for (const auto& each : kCases) {
    for (const char* how : {"", "Confine=beneath", "Confine=nolinks"}) {
      SCOPED_TRACE(std::string(each.prepare) + ": " + each.name + " " + how);
      const char expected = !*how ? each.byDefault : how[8] == 'b' ? each.beneath : each.nolinks;
      ScratchDir dir;
      writeFile(dir / "outer/old", "old");
      writeFile(dir / "out/x", "");
      ASSERT_EQ(0, run({"sh", "-c", each.prepare}, "", dir / "out").status);
      const auto outer = treeOf(dir / "outer"), inner = treeOf(dir / "out");
      ClsTar tar;
      tar.put_UncommonOptions(how);
      tar.put_UntarFromDir(dir / "out");
      ActingEvent event;
      const int count = untar(tar, member(each.name, "new") + member("last") + kEnd, &event);
      EXPECT_EQ(expected == kRefused || expected == kFailed ? -1 : 2, count) << logOf(tar);
      EXPECT_EQ(expected == kOutside, treeOf(dir / "outer") != outer);
      EXPECT_EQ(expected != kFailed, exists(dir / "out/last"));  // the run went on
      const bool refused = expected == kRefused;
      EXPECT_EQ(refused, logHas(tar, "Member refused: its path leaves the target.\n            entryPath: "s +
                                         each.name));
      EXPECT_EQ(refused ? Lines{"refused="s + each.name} : Lines{}, event.infos);
      if (!refused) continue;
      auto after = treeOf(dir / "out");
      after.erase("last");
      EXPECT_EQ(inner, after);   // nothing created
      tar.put_UntarMaxCount(2);  // what is refused does not count
      EXPECT_EQ(-1, untar(tar, member(each.name) + member("last") + member("more") + kEnd));
      EXPECT_TRUE(exists(dir / "out/more"));
      event.skipEntry = dir / "out/" + each.name;  // the skip flag is heard first
      EXPECT_EQ(1, untar(tar, member(each.name) + member("last") + kEnd, &event)) << logOf(tar);
    }
  }
  // Absolute names are refused where they are kept, and a missing target is made.
  ScratchDir dir;
  ClsTar tar;
  tar.put_UncommonOptions("Confine=beneath");
  tar.put_UntarFromDir(dir / "a/b");
  EXPECT_EQ(1, untar(tar, member(dir / "abs", "new") + kEnd));
  tar.put_NoAbsolutePaths(false);
  EXPECT_EQ(-1, untar(tar, member(dir / "abs", "new") + kEnd));
  EXPECT_FALSE(exists(dir / "abs"));
  EXPECT_EQ("new", readFile(dir / "a/b" + dir / "abs"));
}

TEST(Options, SkipUncreatable) {
  const std::string tooLong(300, 'x'), tooLongMember = longName(tooLong) + member("x", "a");
  const std::string archive =
      member("f") + tooLongMember + member("f/below") + directory("f") + member("last") + kEnd;
  for (const std::string confine : {"", ",Confine=beneath"}) {
    for (const std::string word : {"", "SkipUncreatable"}) {
      SCOPED_TRACE(word + confine);
      ScratchDir dir;
      ClsTar tar;
      tar.put_UncommonOptions((word + confine).c_str());
      tar.put_UntarFromDir(dir / "out");
      ActingEvent event;
      EXPECT_EQ(-1, untar(tar, archive, &event));
      EXPECT_EQ(!word.empty(), exists(dir / "out/last"));
      EXPECT_EQ(!word.empty(), logHas(tar,
                                      "reason: File name too long\n            Member left out: it cannot be "
                                      "created.\n            entryPath: " +
                                          tooLong))
          << logOf(tar);
      // Confined, a file among the parents is a way that leaves the target, and one in a directory's place
      // goes.
      if (word.empty()) continue;
      EXPECT_EQ(confine.empty() ? (Lines{"uncreatable=" + tooLong, "uncreatable=f/below", "uncreatable=f"})
                                : (Lines{"uncreatable=" + tooLong, "refused=f/below"}),
                event.infos);
      tar.put_UntarMaxCount(2);  // what is left out does not count
      EXPECT_EQ(-1, untar(tar, tooLongMember + member("one") + member("two") + member("three") + kEnd));
      EXPECT_TRUE(exists(dir / "out/two") && !exists(dir / "out/three"));
    }
  }
}

}  // namespace
}  // namespace morvane::testing
