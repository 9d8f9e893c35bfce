// The words of UncommonOptions, each on one input twice: what happens without it, and with it.
#include "ArchiveSupport.h"

namespace morvane::testing {
namespace {

// ---- Writing

// Something is gone at the moment when `at` is announced.
TEST(Options, SkipUnreadable) {
  const struct {
    const char *gone, *at;
    Lines rest;
  } kCases[] = {{"single", "single", {"d/ 0", "d/f 1", "d/g 1", "e/ 0"}},
                {"t/d/g", "t/d/f", {"single 1", "d/ 0", "d/f 1", "e/ 0"}},
                {"t/d", "t/d", {"single 1", "e/ 0"}},
                {"t/e", "t/d/f", {"single 1", "d/ 0", "d/f 1", "d/g 1"}},
                {"t", "single", {"single 1"}}};
  for (const auto& each : kCases) {
    for (const char* word : {"", "SkipUnreadable"}) {
      SCOPED_TRACE(std::string(each.gone) + " at " + each.at + word);
      ScratchDir dir;
      must(dir, "mkdir -p t/d t/e && printf x | tee t/d/f t/d/g > single");
      TarWith tar(word);
      EXPECT_TRUE(tar.AddFile(dir / "single") && tar.AddDirRoot(dir / "t"));
      ActingEvent event;
      event.act = [&](const std::string& path) {
        if (path == dir / each.at) fs::remove_all(dir / each.gone);
      };
      EXPECT_EQ(*word ? each.rest : Lines{"broken"}, membersOf(written(tar, &event, false)));
      EXPECT_TRUE(logHas(tar, dir / each.gone + "\n")) << logOf(tar);
      EXPECT_EQ(*word ? Lines{"unreadable=" + dir / each.gone} : Lines{}, event.infos);
      EXPECT_EQ(*word ? 1 : 0, countInLog(tar, "It cannot be read and is left out.\n"));
    }
  }
  // A file that has become a directory is not entered, nor another one in its place.
  ScratchDir dir;
  must(dir, "mkdir -p t/c && printf x | tee t/a t/b > t/c/x");
  TarWith tar("SkipUnreadable,NoTotal");
  tar.AddDirRoot(dir / "t");
  ActingEvent event;
  event.skipEntry = dir / "t/c";
  event.act = [&](const std::string& path) {
    if (path == dir / "t/a") must(dir, "rm t/b && mkdir t/b && touch t/b/other");
  };
  EXPECT_EQ((Lines{"a 1", "b/ 0", "c/x 1"}), membersOf(written(tar, &event)));
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
      const std::string path = dir / "t/f";
      writeFile(path, noise(each.before, 1));
      writeFile(dir / "z/next", "next");
      TarWith tar(word);
      EXPECT_TRUE((each.inTree ? tar.AddDirRoot(dir / "t") : tar.AddFile(path)) && tar.AddDirRoot(dir / "z"));
      ActingEvent event;
      event.act = [&](const std::string& at) {
        if (at == path) writeFile(path, noise(each.after, 1));
      };
      const bool changed = each.before != each.after, ok = !*word || !changed;
      const std::string archive = written(tar, &event, ok);
      EXPECT_EQ(!*word && each.brokenByDefault,
                membersOf(archive) != Lines({"f " + std::to_string(each.before), "next 4"}));
      EXPECT_EQ(*word && changed ? Lines{"sizeChanged=" + path} : Lines{}, event.infos);
      // A file is another way for the data: they are read into its own buffer.
      writeFile(path, noise(each.before, 1));
      EXPECT_EQ(ok, tar.WriteTar(dir / "a.tar", &event)) << logOf(tar);
      EXPECT_TRUE(archive.substr(512) == readFile(dir / "a.tar").substr(512));
      std::string data = noise(each.after, 1);
      data.resize(each.before, '\0');
      EXPECT_TRUE(!*word || data == archive.substr(512, each.before));
    }
  }
  // What the system makes up says that it is empty.
  TarWith tar("WriteExactSizes");
  tar.AddFile("/proc/version");
  ActingEvent event;
  written(tar, &event, false);
  EXPECT_EQ(Lines{"sizeChanged=/proc/version"}, event.infos);
  // Of one with holes the ranges were there, but not all of it.
  ScratchDir dir;
  must(dir, "truncate -s 1M t && echo end >> t");
  TarWith sparse("Store=sparse,WriteExactSizes");
  ASSERT_TRUE(sparse.AddFile(dir / "t"));
  event.infos.clear();
  event.act = [&](const std::string&) { must(dir, "echo more >> t"); };
  written(sparse, &event, false);
  EXPECT_EQ(Lines{"sizeChanged=" + dir / "t"}, event.infos);
}

TEST(Options, NoTotal) {
  for (const char* word : {"", "NoTotal"}) {
    ScratchDir dir;
    writeFile(dir / "t/a", "12");
    TarWith tar(word);
    tar.AddDirRoot(dir / "t");
    RecordingEvent event, aborting;
    written(tar, &event);
    EXPECT_EQ(*word ? 3 : 4, event.questions);
    EXPECT_EQ(*word == '\0', event.percents == std::vector{100});
    aborting.abortAtQuestion = *word ? 1 : 2;  // the last before anything is written
    EXPECT_EQ("", written(tar, &aborting, false));
  }
}

// (Where a path is cut is shown where that is done.)
TEST(Options, UstarPrefixes) {
  ScratchDir dir;
  writeFile(dir / "f", "");
  const struct {
    size_t prefix;  // its slash included
    const char* words;
    bool isWritten, comesBack;
  } kCases[] = {{167, "", true, true},
                {155, "UstarOverflow=fail", true, true},
                {156, "UstarOverflow=fail", false, false},
                {157, "UstarPlainPrefix", true, false},
                {156, "UstarPlainPrefix,UstarOverflow=fail", true, true},
                {157, "UstarPlainPrefix,UstarOverflow=fail", false, false}};
  for (const auto& [prefix, words, isWritten, comesBack] : kCases) {
    SCOPED_TRACE(std::to_string(prefix) + words);
    const std::string path = std::string(prefix - 1, 'd') + "/" + std::string(85, 'n');
    TarWith tar(words);
    tar.put_WriteFormat("ustar");
    tar.AddFile2(dir / "f", path);
    const std::string archive = written(tar, nullptr, isWritten);
    EXPECT_EQ(comesBack, membersOf(archive) == Lines{path + " 0"});
    EXPECT_EQ(!isWritten, logHas(tar, "filePathTooLong: " + path));
    const std::string stored = path.substr(0, prefix - has(words, "Plain")) + '\0';
    EXPECT_TRUE(!isWritten || archive.compare(345, stored.size(), stored) == 0);
  }
}

// (The lengths that need it are shown where the record's text is made.)
TEST(Options, PaxExact) {
  ScratchDir dir;
  writeFile(dir / "f", "data");
  std::string path(9989, 'p');
  for (size_t i = 200; i < path.size(); i += 200) path[i] = '/';
  for (const char* word : {"", "PaxExact"}) {
    TarWith tar(word);
    tar.put_WriteFormat("pax");
    tar.AddFile2(dir / "f", path);
    ASSERT_TRUE(tar.WriteTar(dir / "a.tar"));
    const std::string record = paxRecord("path", path);
    EXPECT_EQ(*word != '\0', readFile(dir / "a.tar").compare(512, record.size(), record) == 0);
    for (const std::string reader : {"tar -tf", "bsdtar -tf", "python3 -m tarfile -l"})
      EXPECT_EQ(*word != '\0', shell(dir, reader + " a.tar").out.find(path) == 0) << reader;
  }
}

// ---- Reading

// (What it makes of members is shown with both engines.)
TEST(Options, FullRead) {
  // A NUL does not cut the name that a file gets, and times reach it with their fractions.
  ScratchDir dir;
  TarWith tar("FullRead", dir.path());
  EXPECT_EQ(-1, untar(tar, paxHeader("path", "m\0x"s) + member("n") + kEnd));
  EXPECT_TRUE(treeOf(dir.path()).empty() && logHas(tar, "Member refused: its path leaves the target."));
  EXPECT_EQ(1, untar(tar, paxHeader("mtime", "4294967296.000000007") + paxHeader("atime", "-5.5") +
                              member("m") + kEnd));
  EXPECT_EQ("4294967296.000000007 -6\n", shell(dir, "stat -c '%.9Y %X' m").out);
}

// The map of a sparse file of many pieces goes on in blocks of its own.
TEST(Options, FullReadOfSparseMaps) {
  ScratchDir dir;
  must(dir, "for i in $(seq 60); do truncate -s +128K f; echo $i >> f; done; touch g; tar -S -cf a.tar f g");
  must(dir, "gzip -k a.tar");
  for (const char* word : {"", "FullRead"}) {
    TarWith tar(word, dir / "out");
    // By default the map's blocks pass for data, and what the archive goes on with is chance.
    EXPECT_EQ(*word != '\0', tar.VerifyTar(dir / "a.tar") && tar.Untar(dir / "a.tar") == 2);
    EXPECT_EQ(*word != '\0', exists(dir / "out/g"));
    fs::remove_all(dir / "out");
    tar.UntarGz(dir / "a.tar.gz");
    EXPECT_EQ(*word != '\0', exists(dir / "out/g"));
  }
}

// Links planted in the target; beside it lies a directory that nobody may touch. What becomes of the member
// by default, beneath the target and without links: outside, inside, failed, or refused for its path, its way
// or its place.
TEST(Options, Confine) {
  const char* const kCases[][3] = {{"true", "a/../../outer/new", "orr"},
                                   {"ln -s ../outer l", "l/new", "orw"},
                                   {"ln -s ../outer/new l", "l", "oii"},  // the link itself gives way
                                   {"mkdir d; ln -s d l", "l/new", "iiw"},
                                   {"mkdir -p full/x", "full", "fpp"}};
  for (const auto& [prepare, name, outcomes] : kCases) {
    for (const int how : {0, 1, 2}) {
      SCOPED_TRACE(prepare + ": "s + name + std::to_string(how));
      ScratchDir dir;
      must(dir, "mkdir -p outer out/x; cd out; "s + prepare);
      const auto inner = treeOf(dir / "out");
      const char* const kWords[] = {"", "Confine=beneath", "Confine=nolinks"};
      TarWith tar(kWords[how], dir / "out");
      ActingEvent event;
      const std::map<char, std::string> kRefusals = {{'r', "its path leaves the target"},
                                                     {'w', "a link or file on its way may not be passed"},
                                                     {'p', "what is in its place may not be removed"}};
      const auto refusal = kRefusals.find(outcomes[how]);
      const bool refused = refusal != kRefusals.end(), ok = !refused && outcomes[how] != 'f';
      EXPECT_EQ(ok ? 2 : -1, untar(tar, member(name) + member("x/") + kEnd, &event));
      EXPECT_EQ(outcomes[how] == 'o', exists(dir / "outer/new"));
      EXPECT_EQ(refused, refused && logHas(tar, "Member refused: " + refusal->second +
                                                    ".\n            entryPath: " + name));
      EXPECT_EQ(refused ? Lines{"refused="s + name} : Lines{}, event.infos);
      if (!refused) continue;
      EXPECT_EQ(inner, treeOf(dir / "out"));  // nothing created
      tar.put_UntarMaxCount(2);               // what is refused does not count
      EXPECT_EQ(-1, untar(tar, member(name) + member("last") + member("more") + kEnd));
      EXPECT_TRUE(exists(dir / "out/more"));
      event.skipEntry = dir / "out/" + name;  // the skip flag is heard first
      EXPECT_EQ(1, untar(tar, member(name) + member("last") + kEnd, &event)) << logOf(tar);
    }
  }
}

}  // namespace
}  // namespace morvane::testing
