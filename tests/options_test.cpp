// The words of UncommonOptions, each on one input twice: what happens without it, and with it.
#include <sys/resource.h>
#include <sys/stat.h>

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

// Something is gone at the moment when `at` is announced.
TEST(Options, SkipUnreadable) {
  const struct {
    const char *gone, *at;
    Lines rest;
  } kCases[] = {
      {"single", "single", {"d/ 0", "d/f 1", "d/g 1", "e/ 0"}},
      {"t/d/g", "t/d/f", {"single 1", "d/ 0", "d/f 1", "e/ 0"}},
      {"t/d", "t/d", {"single 1", "e/ 0"}},
      {"t/e", "t/d/f", {"single 1", "d/ 0", "d/f 1", "d/g 1"}},
      {"t", "single", {"single 1"}},
  };
  for (const auto& each : kCases) {
    for (const char* word : {"", "SkipUnreadable"}) {
      SCOPED_TRACE(std::string(each.gone) + " at " + each.at + word);
      ScratchDir dir;
      for (const char* file : {"t/d/f", "t/d/g", "single"}) writeFile(dir / file, "x");
      std::filesystem::create_directory(dir / "t/e");
      ClsTar tar;
      tar.AddFile(dir / "single");
      tar.AddDirRoot(dir / "t");
      tar.put_UncommonOptions(word);
      ActingEvent event;
      event.act = [&](const std::string& path) {
        if (path == dir / each.at) std::filesystem::remove_all(dir / each.gone);
      };
      LimitedOutput out;
      EXPECT_FALSE(tar.WriteTar(out, &event));
      EXPECT_TRUE(logHas(tar, dir / each.gone + "\n")) << logOf(tar);
      EXPECT_EQ(*word ? each.rest : Lines{"broken"}, membersOf(out.bytes));
      EXPECT_EQ(*word ? Lines{"unreadable=" + dir / each.gone} : Lines{}, event.infos);
      EXPECT_EQ(*word ? 1 : 0, countInLog(tar, "It cannot be read and is left out.\n"));
    }
  }
  // A file that has become a directory is not entered, nor another one in its place.
  ScratchDir dir;
  for (const char* file : {"t/a", "t/b", "t/c/x"}) writeFile(dir / file, "x");
  ClsTar tar;
  tar.AddDirRoot(dir / "t");
  tar.put_UncommonOptions("SkipUnreadable,NoTotal");
  ActingEvent event;
  event.skipEntry = dir / "t/c";
  event.act = [&](const std::string& path) {
    if (path != dir / "t/a") return;
    std::filesystem::remove(dir / "t/b");
    writeFile(dir / "t/b/other", "x");
  };
  LimitedOutput out;
  EXPECT_TRUE(tar.WriteTar(out, &event)) << logOf(tar);
  EXPECT_EQ((Lines{"a 1", "b/ 0", "c/x 1"}), membersOf(out.bytes));
}

// A file that has another size when it is read than when it was examined.
TEST(Options, WriteExactSizes) {
  const struct {
    size_t before, after;
    bool inTree, brokenByDefault;
  } kCases[] = {{600, 0, true, true},       {100, 600, true, true},  {0, 1, true, false},
                {50000, 30000, true, true}, {512, 512, true, false}, {600, 100, false, true}};
  for (const auto& each : kCases) {
    for (const char* word : {"", "WriteExactSizes", "WriteExactSizes,SkipUnreadable"}) {
      SCOPED_TRACE(std::to_string(each.before) + " to " + std::to_string(each.after) + " " + word);
      ScratchDir dir;
      writeFile(dir / "t/f", noise(each.before, 1));
      writeFile(dir / "z/next", "next");
      ClsTar tar;
      tar.put_UncommonOptions(word);
      each.inTree ? tar.AddDirRoot(dir / "t") : tar.AddFile(dir / "t/f");
      tar.AddDirRoot(dir / "z");
      ActingEvent event;
      std::string data = noise(each.after, 1);
      event.act = [&](const std::string& path) {
        if (path == dir / "t/f") writeFile(path, data);
      };
      const bool changed = each.before != each.after;
      LimitedOutput out;
      EXPECT_EQ(!*word || !changed, tar.WriteTar(out, &event)) << logOf(tar);
      const Lines whole = {"f " + std::to_string(each.before), "next 4"};
      EXPECT_EQ(!*word && each.brokenByDefault, membersOf(out.bytes) != whole);
      EXPECT_EQ(*word && changed ? Lines{"sizeChanged=" + (dir / "t/f")} : Lines{}, event.infos);
      // A file is another way for the data: they are read into its own buffer.
      writeFile(dir / "t/f", noise(each.before, 1));
      EXPECT_EQ(!*word || !changed, tar.WriteTar(dir / "a.tar", &event)) << logOf(tar);
      EXPECT_TRUE(out.bytes.substr(512) == readFile(dir / "a.tar").substr(512));
      if (!*word) continue;
      data.resize(each.before, '\0');
      EXPECT_TRUE(data == out.bytes.substr(512, each.before));
    }
  }
  // What the system makes up says that it is empty.
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
    return tar.WriteTar(out, &event) && membersOf(out.bytes) == Lines{"b 3"};
  };
  const auto countWithOneSecond = [&] {
    const rlimit second{1, 1}, none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    setrlimit(RLIMIT_CPU, &second);
    countWith("");
  };
  EXPECT_EXIT(
      countWithOneSecond(), [](int status) { return WIFSIGNALED(status); }, "");
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
  ScratchDir dir;
  writeFile(dir / "f", "");
  for (size_t prefix = 20; prefix <= 168; ++prefix) {  // its slash included
    for (const std::string words :
         {"", "UstarOverflow=fail", "UstarPlainPrefix", "UstarPlainPrefix,UstarOverflow=fail"}) {
      SCOPED_TRACE(std::to_string(prefix) + words);
      const bool fails = words.find("fail") != std::string::npos;
      const size_t stored = prefix - (words.find("Plain") != std::string::npos);
      if (stored > 167 && !fails) continue;  // stops the process
      const std::string path = std::string(prefix - 1, 'd') + "/" + std::string(85, 'n');
      ClsTar tar;
      tar.put_WriteFormat("ustar");
      tar.put_UncommonOptions(words.c_str());
      tar.AddFile2(dir / "f", path);
      LimitedOutput out;
      EXPECT_EQ(!fails || stored <= 155, tar.WriteTar(out));
      if (out.bytes.empty()) {
        EXPECT_TRUE(logHas(tar, "Max lengths for ustar format are 100 bytes") &&
                    logHas(tar, "filePathTooLong: " + path));
        continue;
      }
      EXPECT_EQ(path.substr(0, stored) + '\0', out.bytes.substr(345, stored + 1));
      EXPECT_EQ(stored <= 155 || stored == prefix, membersOf(out.bytes) == Lines{path + " 0"});
    }
  }
}

TEST(Options, PaxExact) {
  ScratchDir dir;
  writeFile(dir / "f", "data");
  for (const size_t length : {9988u, 9989u, 100000u}) {
    std::string path(length, 'p');
    for (size_t i = 200; i < length; i += 200) path[i] = '/';
    const std::string record = paxRecord("path", path);
    for (const char* word : {"", "PaxExact"}) {
      SCOPED_TRACE(std::to_string(length) + word);
      ClsTar tar;
      tar.put_WriteFormat("pax");
      tar.put_UncommonOptions(word);
      tar.AddFile2(dir / "f", path);
      ASSERT_TRUE(tar.WriteTar(dir / "a.tar"));
      const bool exact = *word || length <= 9988;
      EXPECT_EQ(exact, readFile(dir / "a.tar").compare(512, record.size(), record) == 0);
      if (!exact) continue;
      for (const std::string reader : {"tar -tf", "bsdtar -tf", "python3 -m tarfile -l"}) {
        const CommandResult listed = run({"sh", "-c", reader + " a.tar"}, "", dir.path());
        EXPECT_TRUE(listed.out.find(path) == 0 && listed.out.size() <= length + 2) << reader;
      }
      tar.put_UncommonOptions("FullRead");
      DescribingEvent event;
      EXPECT_TRUE(tar.VerifyTar(dir / "a.tar", &event));
      EXPECT_EQ(0u, event.seen.find(path + " ->  4 "));
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
      {x("path", "a\nb") + member("m"), "a -> " + plain, "a\nb -> " + plain},
      {x("path", name) + member("m"), "", name + " -> " + plain},
      {longName(name) + member("m"), "", name + " -> " + plain},
      {longName(link, 'K') + member("m", "", '2'), "record ->  301 1700000000 420 0\nm -> target" + plain,
       "m -> " + link + plain},
      // The record's own block has no say in what the record does not give.
      {patched(x("mtime", "-7.5"), kUidField, "0000007") + member("m"), "m ->  0 1700000000 420 7\n",
       "m ->  0 -8 420 0\n"},
      {x("size", "9223372036854775807") + member("m"), "m ->  4294967295 1700000000 420 0\n",
       "m ->  9223372036854775807 1700000000 420 0\n"},
      // An empty value takes a global one back, for its own member.
      {member("g", paxRecord("path", "evil") + paxRecord("size", "1") + paxRecord("uid", "9"), 'g') +
           x("uid", "") + member("m") + member("n"),
       "g ->  30 1700000000 420 0\nm -> " + plain + "n -> " + plain,
       "m -> " + plain + "n ->  0 1700000000 420 9\n"},
      {member("V", "", 'V') + member("D", "", 'D') + member("M", "", 'M') + member("N", "", 'N') +
           member("m"),
       "V -> " + plain + "D -> " + plain + "M -> " + plain + "N -> " + plain + "m -> " + plain,
       "m -> " + plain},
  };
  for (const auto& each : kCases) {
    for (const char* word : {"", "FullRead"}) {
      ClsTar tar;
      tar.put_UncommonOptions(word);
      tar.put_SuppressOutput(true);
      DescribingEvent event;
      const std::string& expected = *word ? each.full : each.byDefault;
      const bool endsEarly = expected.empty() || each.full.find("9223372036854775807") != std::string::npos;
      EXPECT_EQ(endsEarly, untar(tar, each.archive + kEnd, &event) < 0);
      EXPECT_TRUE(expected == event.seen)
          << each.archive.substr(512, 40) << word << event.seen.substr(0, 200);
      EXPECT_EQ(*word && each.archive[156] == 'g',
                logHas(tar, "A global PAX record that can hold for one member only is ignored."));
    }
  }
  // A name for every member is kept short.
  for (const size_t length : {1024u, 1025u}) {
    const std::string owner(length, 'u');
    ClsTar tar;
    tar.put_UncommonOptions("FullRead");
    tar.put_CaptureXmlListing(true);
    tar.put_SuppressOutput(true);
    EXPECT_EQ(1, untar(tar, member("g", paxRecord("uname", owner), 'g') + member("m") + kEnd));
    XString xml;
    tar.get_XmlListing(xml);
    EXPECT_EQ(length == 1024, xml.str().find(owner) != std::string::npos);
    EXPECT_EQ(length == 1025,
              logHas(tar, "A global PAX record is too long to hold for every member and is ignored."));
  }
  // A NUL does not cut the name that a file gets, and times reach it with their fractions.
  ScratchDir dir;
  ClsTar tar;
  tar.put_UncommonOptions("FullRead");
  tar.put_UntarFromDir(dir.path());
  EXPECT_EQ(-1, untar(tar, x("path", "m\0x"s) + member("n") + kEnd));
  EXPECT_TRUE(treeOf(dir.path()).empty() && logHas(tar, "Member refused: its path leaves the target."));
  EXPECT_EQ(1, untar(tar, x("mtime", "4294967296.000000007") + x("atime", "-5.5") + member("m") + kEnd));
  struct stat status;
  ASSERT_EQ(0, stat((dir / "m").c_str(), &status));
  EXPECT_TRUE(status.st_mtim.tv_sec == 4294967296 && status.st_mtim.tv_nsec == 7);
  EXPECT_EQ(-6, status.st_atim.tv_sec);
}

// The map of a sparse file of many pieces goes on in blocks of its own.
TEST(Options, FullReadOfSparseMaps) {
  ScratchDir dir;
  const std::string script =
      "for i in $(seq 60); do truncate -s +128K f; echo $i >> f; done; touch g; tar -S -cf a.tar f g; gzip "
      "-k a.tar";
  ASSERT_EQ(0, run({"sh", "-c", script}, "", dir.path()).status);
  for (const char* word : {"", "FullRead"}) {
    ClsTar tar;
    tar.put_UncommonOptions(word);
    tar.put_UntarFromDir(dir / "out");
    // By default the map's blocks pass for data, and what the archive goes on with is chance.
    EXPECT_EQ(*word != '\0', tar.VerifyTar(dir / "a.tar") && tar.Untar(dir / "a.tar") == 2);
    EXPECT_EQ(*word != '\0', exists(dir / "out/g"));
    std::filesystem::remove_all(dir / "out");
    tar.UntarGz(dir / "a.tar.gz");
    EXPECT_EQ(*word != '\0', exists(dir / "out/g"));
  }
}

// Links planted in the target; beside it lies a directory that nobody may touch.
TEST(Options, Confine) {
  constexpr char kOutside = 'o', kInside = 'i', kRefused = 'r', kFailed = 'f';
  const struct {
    const char *prepare, *name;
    char byDefault, beneath, nolinks;
  } kCases[] = {
      {"true", "a/../../outer/new", kOutside, kRefused, kRefused},
      {"ln -s ../outer l", "l/new", kOutside, kRefused, kRefused},
      {"ln -s ../outer/new l", "l", kOutside, kInside, kInside},  // the link itself gives way
      {"mkdir d; ln -s d l", "l/new", kInside, kInside, kRefused},
      {"mkdir -p full/x", "full", kFailed, kRefused, kRefused},
  };
  for (const auto& each : kCases) {
    for (const std::string how : {"", "Confine=beneath", "Confine=nolinks"}) {
      SCOPED_TRACE(std::string(each.prepare) + ": " + each.name + " " + how);
      const char expected = how.empty() ? each.byDefault : how[8] == 'b' ? each.beneath : each.nolinks;
      ScratchDir dir;
      writeFile(dir / "outer/old", "old");
      std::filesystem::create_directories(dir / "out/x");
      ASSERT_EQ(0, run({"sh", "-c", each.prepare}, "", dir / "out").status);
      const auto outer = treeOf(dir / "outer"), inner = treeOf(dir / "out");
      ClsTar tar;
      tar.put_UncommonOptions(how.c_str());
      tar.put_UntarFromDir(dir / "out");
      ActingEvent event;
      const int count = untar(tar, member(each.name, "new") + member("x/") + kEnd, &event);
      EXPECT_EQ(expected == kRefused || expected == kFailed ? -1 : 2, count) << logOf(tar);
      EXPECT_EQ(expected == kOutside, treeOf(dir / "outer") != outer);
      const bool refused = expected == kRefused;
      EXPECT_EQ(refused, logHas(tar, "Member refused: its path leaves the target.\n            entryPath: "s +
                                         each.name));
      EXPECT_EQ(refused ? Lines{"refused="s + each.name} : Lines{}, event.infos);
      if (!refused) continue;
      EXPECT_EQ(inner, treeOf(dir / "out"));  // nothing created
      tar.put_UntarMaxCount(2);               // what is refused does not count
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
  EXPECT_TRUE(!exists(dir / "abs") && exists(dir / "a/b" + dir / "abs"));
}

}  // namespace
}  // namespace morvane::testing
