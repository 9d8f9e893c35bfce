// Writing through ClsTar: what an archive holds, in which order and under which names; every failure with its
// lines; outputs that fail and applications that abort at every point.
#include <unistd.h>

#include <filesystem>

#include "ArchiveSupport.h"

namespace morvane::testing {
namespace {

using namespace std::string_literals;

const std::string kLongName(120, 'n');

std::string written(ClsTar& tar, ProgressEvent* event = nullptr) {
  LimitedOutput out;
  EXPECT_TRUE(tar.WriteTar(out, event)) << logOf(tar);
  return out.bytes;
}

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
  std::filesystem::create_directory_symlink("tree/a", sources.dir / "to-a");
  std::filesystem::create_directory_symlink("../../tree", sources.tree + "a/e/up");
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
  constexpr long long kSize = (9LL << 30) + 1;
  ScratchDir dir;
  writeFile(dir / "huge", "");
  std::filesystem::resize_file(dir / "huge", kSize);
  ClsTar tar;
  tar.AddFile(dir / "huge");
  CountingOutput out;
  EXPECT_TRUE(tar.WriteTar(out));
  EXPECT_EQ(512 + paddedSize(kSize) + 1024, out.count);
  EXPECT_EQ(20000u, out.largest);
}

TEST(Write, EventsFiltersAndProgress) {
  Sources sources;
  RecordingEvent event;
  const std::string t = sources.tree, one = sources.one + " 10";
  event.skipEntry = t + "a";  // what lies below it stays
  sources.tar.put_MustNotMatch("*/z.sh");
  sources.tar.put_UncommonOptions("CountSkipsExcluded");
  sources.tar.put_VerboseLogging(true);
  EXPECT_EQ((Lines{"one.txt 10", "other/two.txt 10", "a/e/ 0", "a/f 600", "a/" + kLongName + " 4", "b/ 0"}),
            membersOf(written(sources.tar, &event)));
  EXPECT_EQ("", missingLine(sources.tar, {"skippingFile: %a", "excludedByMatch: %z.sh"}, t));
  EXPECT_EQ(
      (Lines{one, one, t + "a dir", t + "a/e dir", t + "a/f 600", t + "a/" + kLongName + " 4", t + "b dir"}),
      event.entries);
  EXPECT_EQ("pathInTar=other/two.txt", event.infos[1]);

  // The total counts data only: not what is excluded, missing, or a pair without its second ESC.
  sources.tar.AddFile("\33unclosed");
  sources.tar.AddFile(sources.dir / "gone");
  EXPECT_EQ(624, sources.tar.calcTotalProgressForWrite(sources.tar.log(), nullptr));
  sources.tar.put_MustNotMatch("*/a/f");
  EXPECT_EQ(24, sources.tar.calcTotalProgressForWrite(sources.tar.log(), nullptr));
  Sources whole;
  whole.tar.put_PercentScale(624);
  RecordingEvent progress;
  written(whole.tar, &progress);
  EXPECT_EQ((std::vector<int>{10, 20, 620, 624}), progress.percents);
}

TEST(Write, ReadsAndOutputsThatAreNotThere) {
  _mvLogger log;
  TricklingSource source("x", 1);
  EXPECT_FALSE(ClsTar().copySourceToOutput(source, nullptr, log));  // there is no output
  EXPECT_FALSE(ClsTar().writeOut_pm(nullptr, 0, nullptr, log));     // without a word of its own
  EXPECT_EQ("Failed to write file data to TAR output.\n", log.text());
  // What a source does not give is not taken for copied.
  struct : _mvDataSource {
    bool readSourcePM(char*, unsigned, unsigned& numRead, ProgressMonitor*, LogBase&) override {
      numRead = 0;
      return true;
    }
    bool endOfStream() override { return false; }
  } stalled;
  EXPECT_FALSE(ClsTar().copySourceToOutput(stalled, nullptr, log));
  Sources sources;
  sources.only("/proc/self/mem");
  EXPECT_EQ(Lines{"mem 0"}, membersOf(written(sources.tar))) << "a read that fails is the file's end";
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
      const bool begun = n > 7;
      RecordingEvent event;
      event.abortAtQuestion = n;
      writeFile(path, "old");
      EXPECT_EQ(n > questions, sources.tar.WriteTar(path, &event));
      EXPECT_EQ(std::min(n, questions), event.questions);  // nobody is asked again
      EXPECT_EQ(begun && n <= questions, logHas(sources.tar, "aborted by application")) << logOf(sources.tar);
      const std::string part = readFile(path);
      EXPECT_TRUE(begun ? whole.compare(0, part.size(), part) == 0 : part == "old");
      // What was written before stays: all but the member that was just announced.
      EXPECT_TRUE(!begun || membersOf(part + kEnd).size() + 1 >= event.entries.size());
    }
    EXPECT_EQ(whole, readFile(path));  // fit for its next call
  }
}

// The name counts, not what was behind it when the member was announced; with OpenBeforeEvent it is the other
// way round for the files of a tree.
TEST(Write, FilesThatLoseTheirNameWhenTheyAreAnnounced) {
  enum { kSingle, kTree, kTreeOpened };
  for (const int how : {kSingle, kTree, kTreeOpened}) {
    for (const std::string newName : {"", "elsewhere", "t/f"}) {
      SCOPED_TRACE(newName + " " + std::to_string(how));
      ScratchDir dir;
      writeFile(dir / "t/f", "old");
      writeFile(dir / "other", "new");
      ClsTar tar;
      if (how == kTreeOpened) tar.put_UncommonOptions("OpenBeforeEvent");
      EXPECT_TRUE(how == kSingle ? tar.AddFile(dir / "t/f") : tar.AddDirRoot(dir / "t"));
      ActingEvent event;
      event.act = [&](const std::string& path) {
        if (newName == "") std::filesystem::remove(path);
        if (newName == "elsewhere") std::filesystem::rename(path, dir / newName);
        if (newName == "t/f") std::filesystem::rename(dir / "other", path);
      };
      LimitedOutput out;
      const bool ok = how == kTreeOpened || newName == "t/f";
      EXPECT_EQ(ok, tar.WriteTar(out, &event));
      EXPECT_EQ(!ok                  ? ""
                : how == kTreeOpened ? "old"
                                     : "new",
                out.bytes.substr(0, 515).substr(ok ? 512 : 0, ok ? 3 : 0));
      EXPECT_EQ(!ok, logHas(tar, "Failed to open source file for TAR archive."));
    }
  }
}

}  // namespace
}  // namespace morvane::testing
