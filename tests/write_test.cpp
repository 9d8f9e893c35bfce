// Writing through ClsTar: what an archive holds, in which order and under which names; every failure with its
// lines; outputs that fail and applications that abort at every point.
#include <unistd.h>

#include <filesystem>

#include "ArchiveSupport.h"
#include "tar/write/ArchiveWriter.h"

namespace morvane::testing {
namespace {

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

TEST(Write, EmptySetIsTwoZeroBlocks) {
  ClsTar tar;
  ScratchDir dir;
  ASSERT_TRUE(tar.WriteTar(dir / "a.tar"));
  EXPECT_EQ(kEnd, readFile(dir / "a.tar"));
  EXPECT_EQ("WriteTar:\n    tarFormat: gnu\n    outputFile: " + dir / "a.tar" + "\n    Success.\n",
            logOf(tar));
  EXPECT_EQ(kEnd, written(tar));
  EXPECT_EQ("WriteTar:\n    tarFormat: gnu\n    Success.\n", logOf(tar));
}

TEST(Write, DataArePaddedToBlocks) {
  for (const size_t size : {0u, 1u, 511u, 512u, 513u, 19999u, 20000u, 20001u, 300000u}) {
    Sources sources;
    std::string data = noise(size, 2);
    writeFile(sources.one, data);
    sources.only(sources.one);
    data.resize((size + 511) / 512 * 512 + 1024, '\0');
    EXPECT_TRUE(written(sources.tar).substr(512) == data) << size;
  }
}

TEST(Write, OrderAndNames) {
  Sources sources;
  for (const auto& [dirPrefix, d] : {std::pair("", ""), {"d", "d/"}, {"d/e///", "d/e/"}, {"/", ""}}) {
    sources.tar.put_DirPrefix(dirPrefix);
    Lines expected = {"one.txt 10", "other/two.txt 10",      "a/ 0", "a/e/ 0",
                      "a/f 600",    "a/" + kLongName + " 4", "b/ 0", "z.sh 0"};
    for (std::string& line : expected) line = (line[0] == 'o' && line[1] == 't' ? "" : d) + line;
    const std::string first = written(sources.tar);
    EXPECT_EQ(expected, membersOf(first));
    EXPECT_EQ(first, written(sources.tar));  // the sources stay as they are
  }
  ClsTar tar;
  tar.put_DirPrefix("d");
  for (const char* prefix : {"p", "p\\q/", ""}) tar.AddDirRoot2(prefix, sources.tree + "a/");
  const std::string n = kLongName + " 4";
  EXPECT_EQ((Lines{"d/p/e/ 0", "d/p/f 600", "d/p/" + n, "d/p/q//e/ 0", "d/p/q//f 600", "d/p/q//" + n,
                   "d/e/ 0", "d/f 600", "d/" + n}),
            membersOf(written(tar)));
}

TEST(Write, LinksAreEmptyFilesOrDirectories) {
  ScratchDir dir;
  writeFile(dir / "t/d/f", "data");
  ASSERT_EQ(0, run({"sh", "-c", "ln -s f d/l; ln -s d dl; ln -s nowhere x; mkfifo z"}, "", dir / "t").status);
  ClsTar tar;
  tar.AddDirRoot(dir / "t");
  EXPECT_EQ((Lines{"d/ 0", "d/f 4", "d/l 0", "dl/ 0", "x 0", "z 0"}), membersOf(written(tar)));
}

TEST(Write, EventsFiltersAndProgress) {
  Sources sources;
  RecordingEvent event;
  event.skipEntry = sources.tree + "a/f";
  sources.tar.put_MustNotMatch("*/z.sh");
  sources.tar.put_UncommonOptions("CountSkipsExcluded");
  sources.tar.put_VerboseLogging(true);
  EXPECT_EQ(6u, membersOf(written(sources.tar, &event)).size());
  EXPECT_EQ("", missingLine(sources.tar, {"skippingFile: " + sources.tree + "a/f",
                                          "excludedByMatch: " + sources.tree + "z.sh"}));
  const std::string t = sources.tree, one = sources.one + " 10";
  EXPECT_EQ(
      (Lines{one, one, t + "a dir", t + "a/e dir", t + "a/f 600", t + "a/" + kLongName + " 4", t + "b dir"}),
      event.entries);
  EXPECT_EQ("pathInTar=other/two.txt", event.infos[1]);
  event.skipEntry = t + "a";  // what lies below it stays
  EXPECT_EQ((Lines{"one.txt 10", "other/two.txt 10", "a/e/ 0", "a/f 600", "a/" + kLongName + " 4", "b/ 0"}),
            membersOf(written(sources.tar, &event)));

  // The total counts data only: not what is excluded, missing, or a pair without its second ESC.
  const auto total = [&] { return sources.tar.calcTotalProgressForWrite(sources.tar.log(), nullptr); };
  EXPECT_EQ(624, total());
  sources.tar.AddFile("\33unclosed");
  sources.tar.AddFile(sources.dir / "gone");
  EXPECT_EQ(624, total());
  sources.tar.put_MustNotMatch("*/a/f");
  EXPECT_EQ(24, total());
  Sources whole;
  whole.tar.put_PercentScale(624);
  RecordingEvent progress;
  written(whole.tar, &progress);
  EXPECT_EQ((std::vector<int>{10, 20, 620, 624}), progress.percents);
}

TEST(Write, EachFailureHasItsLines) {
  using SetUp = std::function<void(Sources&, ActingEvent&)>;
  constexpr size_t kRoom = static_cast<size_t>(-1);
  const Lines oneFailed = {"Failed to write file to output.", "fullFilePath: %/one.txt",
                           "relFilePath: one.txt"};
  const Lines copyFailed = {"Failed to write file data to TAR output.",
                            "Failed to copy file contents to TAR."};
  // In the lines "%" stands for the scratch directory.
  const auto expectLines = [](const std::vector<Lines>& expected, size_t room, const SetUp& setUp) {
    Sources sources;
    ActingEvent event;
    setUp(sources, event);
    LimitedOutput out(room);
    EXPECT_FALSE(sources.tar.WriteTar(out, &event));
    Lines lines;
    for (const Lines& part : expected) lines.insert(lines.end(), part.begin(), part.end());
    for (std::string& line : lines) {
      if (const size_t at = line.find('%'); at != std::string::npos) line.replace(at, 1, sources.dir.path());
    }
    lines.push_back("Failure.");
    EXPECT_EQ("", missingLine(sources.tar, lines));
  };
  const auto abortAt = [](int question) {
    return [question](Sources&, ActingEvent& e) { e.abortAtQuestion = question; };
  };
  const SetUp nothing = [](Sources&, ActingEvent&) {};
  expectLines({{"writeTarToOutput:", "Did not find closing ESC char."}}, kRoom,
              [](Sources& s, ActingEvent&) { s.tar.AddFile("\33x"); });
  expectLines({{"writeTarToOutput:", "pathInTar is empty."}}, kRoom,
              [](Sources& s, ActingEvent&) { s.tar.AddFile2("x", ""); });
  expectLines(
      {{"writeFileToOutput:", "Failed to get file information.", "loadFileInfoFailed: %/one.txt"}, oneFailed},
      kRoom, [](Sources& s, ActingEvent&) { s.tar.put_VerboseLogging(true), unlink(s.one.c_str()); });
  expectLines({{"Failed to read directory.", "path: %/tree/"}}, kRoom,
              [](Sources& s, ActingEvent&) { std::filesystem::remove_all(s.tree); });
  expectLines(
      {{"writeTarHeaderToOutput:",
        "Max lengths for ustar format are 100 bytes for the filename and 155 bytes for the prefix.",
        "filePathTooLong: " + kLongName, "Failed to write TAR header.", "Failed to write file to output."}},
      kRoom, [](Sources& s, ActingEvent&) {
        s.tar.put_WriteFormat("star");
        s.only(s.tree + "a/" + kLongName);
      });
  expectLines(
      {{"Failed to open source file for TAR archive.", "fullPath: %/one.txt"}, oneFailed}, kRoom,
      [](Sources&, ActingEvent& e) { e.act = [](const std::string& path) { unlink(path.c_str()); }; });
  expectLines({{"The output is full.", "Failed to write TAR header."}, oneFailed}, 511, nothing);
  expectLines({{"The output is full."}, copyFailed, oneFailed}, 521, nothing);
  expectLines({{"The output is full."}, oneFailed}, 522, nothing);  // in the padding
  expectLines({{"TAR aborted by application. (1)"}, copyFailed, oneFailed}, kRoom,
              [](Sources& s, ActingEvent& e) {
                s.only(s.one);
                e.abortAtPercent = 100;
              });
  // Questions: six while counting, one before writing, then two for each member.
  expectLines({{"TAR aborted by application. (2)"}, oneFailed}, kRoom, abortAt(8));
  expectLines({{"Write TAR to output aborted by application."}}, kRoom, abortAt(9));
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
    EXPECT_EQ(whole, written(sources.tar));
  }
}

TEST(Write, FullDiskAndUnusableOutput) {
  Sources sources;
  EXPECT_FALSE(sources.tar.WriteTar("/dev/full"));
  EXPECT_EQ("", missingLine(sources.tar, {"Failed to write to file.", "path: /dev/full",
                                          "reason: No space left on device", "Failure."}));
  EXPECT_FALSE(sources.tar.WriteTar(sources.tree));
  EXPECT_EQ("", missingLine(sources.tar, {"Failed to create file.", "path: " + sources.tree, "Failure."}));
}

// With the timed questions inside data out of the way, the others can be counted: each entry of a tree in the
// counting pass, one before writing, and for each member one before (unless AbortCheckMs is 0) and one after.
TEST(Write, AbortAtEveryQuestion) {
  for (const int abortCheckMs : {1000000000, 0}) {
    Sources sources;
    sources.tar.put_AbortCheckMs(abortCheckMs);
    RecordingEvent counting;
    const std::string whole = written(sources.tar, &counting), path = sources.dir / "a.tar";
    ASSERT_EQ(6 + 1 + 8 * (abortCheckMs == 0 ? 1 : 2), counting.questions);
    size_t before = 0;
    for (int n = 1; n <= counting.questions; ++n) {
      SCOPED_TRACE(n);
      const bool begun = n > 7;
      RecordingEvent event;
      event.abortAtQuestion = n;
      writeFile(path, "old");
      EXPECT_FALSE(sources.tar.WriteTar(path, &event));
      EXPECT_EQ(n, event.questions);  // nobody is asked again
      EXPECT_EQ(begun ? 1 : 0, countInLog(sources.tar, "aborted by application")) << logOf(sources.tar);
      const std::string part = readFile(path);
      EXPECT_TRUE(begun ? whole.compare(0, part.size(), part) == 0 : part == "old");
      EXPECT_GE(part.size(), before);
      before = begun ? part.size() : 0;
    }
    EXPECT_EQ(whole, written(sources.tar));  // fit for its next call
  }
}

TEST(Write, VerboseLines) {
  for (const std::string format : {"gnu", "pax"}) {
    Sources sources;
    sources.tar.put_WriteFormat(format);
    written(sources.tar);
    EXPECT_EQ("WriteTar:\n    tarFormat: " + format + "\n    Success.\n", logOf(sources.tar));
    sources.tar.put_VerboseLogging(true);
    written(sources.tar);
    EXPECT_EQ("", missingLine(
                      sources.tar,
                      {"writeTarToOutput:", "writeFileToOutput:", "writeTarHeaderToOutput:",
                       "filePathInTar: one.txt", "fileSize: 10", "isSymbolicLink: 0", "isDirectory: 0",
                       "NextDirRoot:", "dirRoot: " + sources.tree,
                       "currentWorkingDir: " + std::filesystem::current_path().string(),
                       "fullPath: " + sources.tree + "a", "filePathInTar: a/", "isDirectory: 1",
                       format == "gnu" ? "Writing LongLink header.." : "Writing PAX header..", "Success."}));
  }
}

// n bytes of nothing in particular, then an end or a failure.
class LongSource : public _mvDataSource {
 public:
  explicit LongSource(long long n, bool fails = false) : m_left(n), m_fails(fails) {}
  bool readSourcePM(char*, unsigned int n, unsigned int& numRead, ProgressMonitor*, LogBase&) override {
    numRead = static_cast<unsigned>(std::min<long long>(n, m_left));
    m_left -= numRead;
    return numRead > 0 || !m_fails;
  }

 private:
  long long m_left;
  const bool m_fails;
};

TEST(ArchiveWriter, CopyRunsToTheEndOrTheFirstFailedRead) {
  struct : _mvOutput {
    bool _writeBytes(const char*, unsigned int n, _mvIoParams&, LogBase&) override {
      largest = std::max(largest, n);
      return (count += n) > 0;
    }
    long long count = 0;
    unsigned largest = 0;
  } out;
  const RelaxedAtomic<unsigned> changes;
  ArchiveOutput archive;
  _mvLogger log;
  archive.m_output = &out;
  ArchiveWriter writer({[] { return WriteSettings(); }, changes}, archive, log, nullptr, nullptr);
  LongSource huge(9LL << 30), broken(50001, true), any(1);
  EXPECT_TRUE(writer.copySourceToOutput(huge));
  EXPECT_EQ(9LL << 30, out.count);
  EXPECT_EQ(20000u, out.largest);
  EXPECT_TRUE(writer.copySourceToOutput(broken));
  EXPECT_EQ((9LL << 30) + 50001, out.count);
  EXPECT_EQ("", log.text());
  archive.m_output = nullptr;
  EXPECT_FALSE(writer.copySourceToOutput(any));
  EXPECT_FALSE(ClsTar().writeOut_pm(nullptr, 0, nullptr, log));  // without a word of its own
  EXPECT_EQ("Failed to write file data to TAR output.\n", log.text());
}

}  // namespace
}  // namespace morvane::testing
