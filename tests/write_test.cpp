// Writing through ClsTar: what an archive holds, in which order and under which names; every failure with its
// lines; outputs that fail and applications that abort at every point.
#include <ctime>

#include "ArchiveSupport.h"

namespace morvane::testing {
namespace {

const std::string kLongName(120, 'n');

// Two single files and a tree of six members.
struct Sources {
  Sources() {
    writeFile(tree + "a/f", noise(600, 1));
    writeFile(tree + "a/" + kLongName, "long");
    writeFile(tree + "z.sh", "");
    writeFile(one, "0123456789");
    EXPECT_EQ(0, run({"mkdir", tree + "a/e", tree + "b"}).status);
    EXPECT_TRUE(tar.AddDirRoot2("", tree));
    EXPECT_TRUE(tar.AddFile(one) && tar.AddFile2(one, "other/two.txt"));
  }
  void only(const std::string& path) {
    tar.ClearDirRootsAndFiles();
    tar.AddFile(path);
  }
  ScratchDir dir;
  const std::string tree = dir / "tree/", one = dir / "one.txt";
  ClsTar tar;
};

TEST(Write, OrderAndNames) {
  Sources sources;
  for (const auto& [dirPrefix, d] : {std::pair("", ""), {"d/e///", "d/e/"}, {"/", ""}}) {
    sources.tar.put_DirPrefix(dirPrefix);
    Lines expected = {"one.txt 10", "other/two.txt 10",      "a/ 0", "a/e/ 0",
                      "a/f 600",    "a/" + kLongName + " 4", "b/ 0", "z.sh 0"};
    for (std::string& line : expected) line = (line[0] == 'o' && line[1] == 't' ? "" : d) + line;
    EXPECT_EQ(expected, membersOf(written(sources.tar)));
  }
  ClsTar tar;
  tar.put_DirPrefix("d");
  for (const char* prefix : {"p", "p\\q/", ""}) tar.AddDirRoot2(prefix, sources.dir / "tree");
  tar.put_MustMatch("*z.sh");
  EXPECT_EQ((Lines{"d/p/z.sh 0", "d/p/q//z.sh 0", "d/z.sh 0"}), membersOf(written(tar)));
  // A link may name a tree; in one, and as a single file, it is an empty file whatever it points at.
  ClsTar links;
  fs::create_directory_symlink("tree/a", sources.dir / "to-a");
  fs::create_directory_symlink("../../tree", sources.tree + "a/e/up");
  EXPECT_TRUE(links.AddDirRoot(sources.dir / "to-a") && links.AddFile(sources.dir / "to-a"));
  const std::string archive = written(links);
  EXPECT_EQ((Lines{"to-a 0", "e/ 0", "e/up 0", "f 600", kLongName + " 4"}), membersOf(archive));
  EXPECT_EQ("050", std::string({archive[156], archive[512 + 156], archive[1024 + 156]}));
}

// Pax cuts at 999 bytes, and a ustar path that is too long goes into a record of GNU tar.
TEST(Write, EveryPathLengthComesBack) {
  ScratchDir dir;
  writeFile(dir / "f", "");
  for (const std::string format : {"gnu", "pax", "ustar"}) {
    for (size_t length = 1; length <= 1030; ++length) {
      std::string path(length, 'p');
      for (size_t i = 39; i + 1 < length; i += 40) path[i] = '/';
      ClsTar tar;
      tar.put_WriteFormat(format.c_str());
      tar.AddFile2(dir / "f", path);
      const std::string archive = written(tar);
      const bool fits = length <= 100 || (format == "ustar" && length <= 255);
      ASSERT_EQ(fits ? '0' : format == "pax" ? 'x' : 'L', archive[156]) << format << length;
      ASSERT_EQ(Lines{(format == "pax" ? path.substr(0, 999) : path) + " 0"}, membersOf(archive));
    }
  }
}

TEST(Write, MembersOverEightGiB) {
  struct : _mvOutput {
    bool _writeBytes(const char*, unsigned n, _mvIoParams&, LogBase&) override { return count += n, true; }
    long long count = 0;
  } out;
  ScratchDir dir;
  must(dir, "truncate -s 9663676417 huge");
  ClsTar tar;
  tar.AddFile(dir / "huge");
  EXPECT_TRUE(tar.WriteTar(out));
  EXPECT_EQ(512 + 9663676928 + 1024, out.count);
}

TEST(Write, EventsFiltersAndProgress) {
  Sources sources;
  ClsTar& tar = sources.tar;
  RecordingEvent event, progress;
  const std::string t = sources.tree, one = sources.one + " 10";
  written(tar, &progress);
  EXPECT_EQ((std::vector<int>{1, 3, 99, 100}), progress.percents);
  event.skipEntry = t + "a";  // what lies below it stays
  tar.put_MustNotMatch("*/z.sh");
  tar.put_UncommonOptions("CountSkipsExcluded");
  tar.put_VerboseLogging(true);
  EXPECT_EQ((Lines{"one.txt 10", "other/two.txt 10", "a/e/ 0", "a/f 600", "a/" + kLongName + " 4", "b/ 0"}),
            membersOf(written(tar, &event)));
  EXPECT_TRUE(logHas(tar, "skippingFile: " + t + "a\n") && logHas(tar, "excludedByMatch: " + t + "z.sh\n"));
  EXPECT_EQ(
      (Lines{one, one, t + "a dir", t + "a/e dir", t + "a/f 600", t + "a/" + kLongName + " 4", t + "b dir"}),
      event.entries);
  EXPECT_EQ("pathInTar=other/two.txt", event.infos[1]);

  // The total counts data only: not what is excluded, missing, or a pair without its second ESC.
  EXPECT_TRUE(tar.AddFile("\33unclosed") && tar.AddFile(sources.dir / "gone"));
  EXPECT_EQ(624, tar.calcTotalProgressForWrite(tar.log(), nullptr));
  tar.put_MustNotMatch("*/a/f");
  EXPECT_EQ(24, tar.calcTotalProgressForWrite(tar.log(), nullptr));
}

// As much as the format takes of holes and further names, whichever way the sources are named.
TEST(Write, TheTotalIsWhatIsStored) {
  ScratchDir dir;
  must(dir, "mkdir t && truncate -s 1M t/hole && echo data > t/a && ln t/a t/b");
  for (const bool isTree : {true, false}) {
    for (const auto& [words, format, total] :
         {std::tuple("Store=usual", "gnu", 5), std::tuple("Store=usual", "ustar", 1048581),
          std::tuple("Store=usual,Reproducible=0", "gnu", 1048581), std::tuple("", "gnu", 1048586)}) {
      TarWith tar(words);
      tar.put_WriteFormat(format);
      if (isTree) tar.AddDirRoot(dir / "t");
      for (const char* name : {"t/hole", "t/a", "t/b"}) EXPECT_TRUE(isTree || tar.AddFile(dir / name));
      EXPECT_EQ(total, tar.calcTotalProgressForWrite(tar.log(), nullptr)) << words << format << isTree;
    }
  }
}

TEST(Write, ReadsAndOutputsThatAreNotThere) {
  // What a source does not give is not taken for copied.
  struct : _mvDataSource {
    bool readSourcePM(char*, unsigned, unsigned& numRead, ProgressMonitor*, LogBase&) override {
      numRead = 0;
      return true;
    }
    bool endOfStream() override { return false; }
  } stalled;
  _mvLogger log;
  EXPECT_FALSE(ClsTar().copySourceToOutput(stalled, nullptr, log));
  EXPECT_FALSE(ClsTar().writeOut_pm(nullptr, 0, nullptr, log)) << "there is no output";
  ClsTar tar;
  tar.AddFile("/proc/self/mem");
  EXPECT_EQ(Lines{"mem 0"}, membersOf(written(tar))) << "a read that fails is the file's end";
}

TEST(Write, OutputThatFailsAfterEveryByte) {
  for (const char* format : {"gnu", "pax"}) {
    Sources sources;
    sources.tar.put_WriteFormat(format);
    const std::string whole = written(sources.tar);
    for (size_t limit = 0; limit < whole.size(); ++limit) {
      LimitedOutput out(limit);
      ASSERT_FALSE(sources.tar.WriteTar(out)) << limit;
      ASSERT_TRUE(whole.compare(0, out.bytes.size(), out.bytes) == 0) << limit;
      ASSERT_LT(limit - out.bytes.size(), 1024u);
    }
    EXPECT_EQ(whole, written(sources.tar));  // the sources stay as they are
  }
}

// With the timed questions inside data out of the way, the others can be counted: each entry of a tree in the
// counting pass, one before writing, and for each member one before (unless AbortCheckMs is 0) and one after.
TEST(Write, AbortAtEveryQuestion) {
  for (const int abortCheckMs : {1000000000, 0}) {
    Sources sources;
    sources.tar.put_AbortCheckMs(abortCheckMs);
    const int questions = 6 + 1 + 8 * (abortCheckMs == 0 ? 1 : 2);
    const std::string whole = written(sources.tar), path = sources.dir / "a.tar";
    for (int n = 1; n <= questions + 1; ++n) {
      SCOPED_TRACE(n);
      RecordingEvent event;
      event.abortAtQuestion = n;
      writeFile(path, "old");
      EXPECT_EQ(n > questions, sources.tar.WriteTar(path, &event));
      EXPECT_EQ(std::min(n, questions), event.questions);  // nobody is asked again
      const std::string part = readFile(path);
      EXPECT_TRUE(n > 7 ? whole.compare(0, part.size(), part) == 0 : part == "old");
      // What was written before stays: all but the member that was just announced.
      EXPECT_TRUE(n <= 7 || membersOf(part + kEnd).size() + 1 >= event.entries.size());
    }
    EXPECT_EQ(whole, readFile(path));  // fit for its next call
  }
}

// The name counts, not what was behind it when the member was announced; with OpenBeforeEvent it is the other
// way round for the files of a tree.
TEST(Write, FilesThatLoseTheirNameWhenTheyAreAnnounced) {
  const struct {
    bool inTree;
    const char* words;
    std::string change, data;  // no data: the write fails
  } kCases[] = {{false, "", "rm t/f", ""},
                {false, "OpenBeforeEvent", "mv other t/f", "new"},
                {true, "", "rm t/f", ""},
                {true, "", "mv other t/f", "new"},
                {true, "OpenBeforeEvent", "mv other t/f", "old"}};
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.words + each.change);
    ScratchDir dir;
    must(dir, "mkdir t && printf old > t/f && printf new > other");
    TarWith tar(each.words);
    EXPECT_TRUE(each.inTree ? tar.AddDirRoot(dir / "t") : tar.AddFile(dir / "t/f"));
    ActingEvent event;
    event.act = [&](const std::string&) { must(dir, each.change); };
    const std::string archive = written(tar, &event, !each.data.empty());
    EXPECT_EQ(each.data, archive.substr(std::min<size_t>(512, archive.size()), 3));
    EXPECT_EQ(each.data.empty(), logHas(tar, "Failed to open source file for TAR archive."));
  }
}

// ---- Debian packages

TEST(CreateDeb, LayoutOfEverySize) {
  const ScratchDir dir;
  ClsTar tar;
  const auto before = std::time(nullptr);
  // The names inside follow those outside.
  for (const auto& [control, data, names] :
       {std::tuple("c.tar.xz", "d.xz", "debian-binary\ncontrol.tar.xz\ndata.tar.xz\n"),
        {"c.zst", "d.xz.gz", "debian-binary\ncontrol.tar.gz\ndata.tar.gz\n"}}) {
    for (const auto& [c, d] : {std::pair(0u, 70001u), {1u, 0u}, {300u, 999u}, {100000u, 1u}}) {
      writeFile(dir / control, noise(c, 1));
      writeFile(dir / data, noise(d, 2));
      EXPECT_TRUE(tar.CreateDeb(dir / control, dir / data, dir / "p.deb")) << logOf(tar);
      const std::string package = readFile(dir / "p.deb");
      EXPECT_EQ(names, shell(dir, "ar t p.deb").out);
      EXPECT_EQ("2.0\n" + noise(c, 1) + noise(d, 2), shell(dir, "ar p p.deb").out);
      EXPECT_EQ(8 + 3 * 60 + 4 + c + c % 2 + d + d % 2, package.size());
      EXPECT_EQ("0     0     100644  4         `\n", package.substr(36, 32));
      EXPECT_TRUE(before <= std::stoll(package.substr(24, 12)) &&
                  std::stoll(package.substr(24)) <= std::time(nullptr));
    }
  }
}

}  // namespace
}  // namespace morvane::testing
