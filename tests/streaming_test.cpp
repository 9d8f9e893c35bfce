// The push engine: the same for pieces of every size, and the same as the pull engine but for a few
// differences.
#include <algorithm>
#include <ctime>
#include <filesystem>
#include <random>
#include <sstream>

#include "ArchiveSupport.h"
#include "runtime/log/_mvLogger.h"

namespace morvane::testing {
namespace {

using namespace std::string_literals;
struct Case {
  // `tree` is "path=contents|directory/"; `lines` those of the log, data lines and contexts left out.
  Case(std::string caseName, std::string bytes, std::string files, Lines logLines = {},
       std::string optionWords = "")
      : name(std::move(caseName)),
        archive(std::move(bytes)),
        tree(std::move(files)),
        words(std::move(optionWords)),
        lines(std::move(logLines)) {}
  Case& with(void (*what)(ClsTar&)) { return setup = what, *this; }
  // The pull engine yields something else: why, its result, and its tree.
  Case& pull(const char* why, int result, std::string files) {
    return pullDiffers = why, pullResult = result, pullTree = std::move(files), *this;
  }

  std::string name, archive, tree, words, pullDiffers, pullTree;
  Lines lines;
  void (*setup)(ClsTar&) = [](ClsTar&) {};
  int pullResult = 0;
};

void PrintTo(const Case& test, std::ostream* out) { *out << test.name; }

const std::string kEarly = "Unexpected end of archive file.";
const std::string kImproper = "Improperly terminated TAR archive.";
const std::string kPaxNotice = "PAX header in streaming untar!";

std::vector<Case> cases() {
  const std::string failed = "Streaming untar failed (n)", tooLarge = "Extension data too large.",
                    noMark = "The archive has no end-of-archive mark.",
                    wrongSum = "The TAR header's checksum is wrong.",
                    refused = "Member refused: its path leaves the target.";
  const std::string two = member("a", "AAA") + member("b", "BB"), both = "a=AAA|b=BB", junk(512, 'j');
  const std::string four = two + directory("d.d") + member("c.d", "3") + kEnd;
  const std::string longPath = std::string(90, 'l') + "/" + std::string(90, 'm');
  const char* const needsMark = "only the pull engine needs an end-of-archive mark";
  std::string manyRecords, sizes, ofSizes = "d/";
  while (manyRecords.size() <= 100000) manyRecords += paxRecord("comment", "of no use");
  for (const size_t size : {0u, 1u, 511u, 0u, 512u, 513u, 1024u, 0u}) {
    sizes += member(std::to_string(size), std::string(size, 's')) + directory("d");
    ofSizes += "|" + std::to_string(size) + "=" + std::string(size, 's');
  }

  std::vector<Case> all = {
      Case("Sizes", sizes + kEnd, ofSizes),
      Case("LongNames",
           longName("forgotten") + longName(longPath + "\0more"s) + member("short", "1") +
               longName("to/dir") + directory("d") + member("own", "2") + kEnd,
           longPath + "=1|to/dir/|own=2"),
      Case("Pax",
           paxHeader("path", longPath) + member("short", "1") + paxHeader("comment", std::string(700, 'c')) +
               member("own", "2") + paxHeader("path", "forgotten") + paxHeader("path", "later") +
               directory("d") + paxHeader("size", "3") +
               patched(member("sized", "xyz"), kSizeField, "00000000000") + member("last", "3") + kEnd,
           longPath + "=1|own=2|later/|sized=xyz|last=3", Lines(5, kPaxNotice)),
      Case("PaxAndLongName",
           paxHeader("path", "of pax") + longName("of L") + member("own", "1") + longName("of L 2") +
               paxHeader("path", "of pax 2") + member("own", "2") + kEnd,
           "of L=1|of pax 2=2", Lines(2, kPaxNotice)),
      Case("EveryTypeIsAFile",
           member("hard", "", '1') + member("soft", "", '2') + member("K", "target", 'K') +
               paxHeader("path", "x", 'g') + member("odd", "?", 'Z') + member("old", "o", '\0') +
               member("old-dir/") + kEnd,
           "hard=|soft=|K=target|record=9 path=x\n|odd=?|old=o|old-dir/"),
      Case("PathRules",
           member("//abs/x", "1") + member("b\\c\\d", "2") + member("\xC3\xA4 \xFF", "3") +
               ArchiveBuilder().add({"n", "4", '0', "", "pre/fix"}).bytes(),
           "abs/x=1|b/c/d=2|\xC3\xA4 \xFF=3|pre/fix/n=4"),
      Case("Charset", member("\xE4", "1") + kEnd, "\xC3\xA4=1").with([](ClsTar& tar) {
        tar.put_Charset("latin1");
      }),

      Case("Nothing", "", "").pull(needsMark, -1, ""),
      Case("NoEnd", two, both).pull(needsMark, -1, both),
      Case("NoEndRefused", two, both, {noMark}, "RequireEndOfArchive"),
      Case("OneEndBlock", two + std::string(512, '\0') + junk, both, {}, "RequireEndOfArchive"),
      Case("StrayBytes", two + "stray", both, {kImproper}).pull(needsMark, -1, both),
      Case("CutInPadding", two.substr(0, 2043), both).pull(needsMark, -1, both),
      Case("CutInData", two.substr(0, 1537), "a=AAA|b=B", {kEarly}),
      Case("CutInRecord", longName("a long name, cut").substr(0, 518), "", {kEarly}),
      Case("BadHeader", two + junk + two, both, {wrongSum, "Failed to parse tar header", failed}),
      Case("BadHeaderBehindRecord", two + longName("x") + junk, both,
           {wrongSum, "Failed to parse TAR header..", failed}),
      Case("FileAboveAFile", two + member("a/b") + member("c"), both,
           {"Failed to ensure ability to create output file for untar.", failed}),
      Case("FileForADirectory", two + directory("a") + member("c"), both,
           {"Failed to ensure untar directory.", failed}),
      Case("DirectoryForAFile", directory("d") + member("d") + member("c"), "d/",
           {"Failed to create file.", "Failed to create output file for untar.", failed}),

      Case("DirectoryWithASize",
           patched(directory("d"), kSizeField, "00000001000") + member("f") + member("g", "1") + kEnd,
           "d/|f=|g=1")
          .pull("the pull engine passes over the data that a directory claims", 2, "d/|g=1"),
      Case("DiscardedPaths", directory("x/d") + member("z/f", "1") + kEnd, "d/|f=1")
          .with([](ClsTar& tar) { tar.put_UntarDiscardPaths(true); })
          .pull("the pull engine makes no directories then", 2, "f=1"),
      Case("MaxCount", two + kEnd, both)
          .with([](ClsTar& tar) { tar.put_UntarMaxCount(1); })
          .pull("only the pull engine stops at UntarMaxCount", 1, "a=AAA"),
      Case("EmptyRecord", member("r", "", 'x') + two + kEnd, both, {kPaxNotice})
          .pull("the pull engine wants data in a record", -1, ""),
      Case("RecordOver100000", member("r", manyRecords, 'x') + two + kEnd, both, {kPaxNotice})
          .pull("the pull engine takes up to 100,000 bytes", -1, ""),
      Case("RecordAtTheLimit", member("r", "fifteen-bytes/f", 'L') + member("f") + kEnd,
           "fifteen-bytes/f=", {}, "MaxExtensionBytes=15"),
      Case("RecordOverTheLimit", member("r", "sixteen-bytes/ff", 'L') + member("f") + kEnd, "",
           {tooLarge, failed}, "MaxExtensionBytes=15")
          .pull("without FullRead the limit is only the push engine's", 1, "sixteen-bytes/ff="),

      Case("FullRead",
           paxHeader("mtime", "7", 'g') + member("label", "", 'V') + member("M", "rest", 'M') +
               paxHeader("k", "\n11 path=evil\n") + paxHeader("path", longPath) + paxHeader("size", "1") +
               patched(member("short", "1"), kSizeField, "00000000000") +
               longName(std::string(200, 't'), 'K') + member("soft", "", '2') + kEnd,
           longPath + "=1|soft=", {}, "FullRead"),
      Case("FullReadOfNonsense", two + member("r", "nonsense", 'x') + member("c"), both,
           {"A PAX record is malformed.", failed}, "FullRead"),
      Case("Confined",
           member("../evil", "1") + member("in/f", "2") + directory("in/../../evil") + member("/kept", "3") +
               kEnd,
           "in/f=2|kept=3", {refused, refused}, "Confine=nolinks"),
      Case("Matching", four, "c.d=3|d.d/").with([](ClsTar& tar) { tar.put_MustMatch("*.d"); }),
      Case("Suppressed", four, "").with([](ClsTar& tar) { tar.put_SuppressOutput(true); }),
      Case("EntryEvents", two + directory("skipped") + member("skipped", "3") + kEnd, both, {},
           "EntryEvents")};
  for (const char type : "xLKg"s) {
    all.emplace_back("FullReadClaim_"s + type,
                     two + patched(member("r", "", type), kSizeField, "77777777777") + kEnd, both,
                     Lines{tooLarge, failed}, "FullRead");
  }
  return all;
}

// Everything that a run leaves behind, by name.
using Outcome = std::map<std::string, std::string>;

std::string joined(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

std::string shown(const std::string& dir) {
  std::string text;
  for (const auto& [path, what] : treeOf(dir)) text += path + " " + what + "\n";
  return text;
}

// What `shown` says of a case's tree.
std::string shownTree(const std::string& tree) {
  const ScratchDir dir;
  std::istringstream files(tree);
  for (std::string file; std::getline(files, file, '|');) {
    const size_t end = file.find('=');
    if (end == std::string::npos) {
      std::filesystem::create_directories(dir / file);
    } else {
      writeFile(dir / file.substr(0, end), file.substr(end + 1));
    }
  }
  return shown(dir.path());
}

Lines linesOf(const std::string& log) {
  Lines lines;
  std::istringstream in(log);
  for (std::string line; std::getline(in, line);) {
    const size_t start = line.find_first_not_of(' ');
    const bool isData = line.find(' ', start) == line.find(": ", start) + 1;  // the tag is one word
    if (!isData && line.back() != ':') lines.push_back(line.substr(start));
  }
  return lines;
}

class StreamingCase : public ::testing::TestWithParam<Case> {
 protected:
  // An empty target beside which nothing may appear.
  void prepare(ClsTar& tar, RecordingEvent& event) {
    std::filesystem::remove_all(m_dir / "out");
    std::filesystem::create_directory(m_dir / "out");
    tar.put_UntarFromDir(m_dir / "out");
    tar.put_CaptureXmlListing(true);
    tar.put_UntarDebugLog(true);
    tar.put_UncommonOptions(GetParam().words.c_str());
    GetParam().setup(tar);
    tar.setMatchPatternExactFlags();
    event.skipEntry = m_dir / "out/skipped";
  }

  Outcome take(ClsTar& tar, const RecordingEvent& event, bool ok, const std::string& log) {
    XString listing;
    tar.get_XmlListing(listing);
    EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(m_dir.path()), {}));
    return {{"ok", ok ? "yes" : "no"},          {"log", log},
            {"listing", listing.str()},         {"tree", shown(m_dir / "out")},
            {"headers", joined(event.headers)}, {"entries", joined(event.entries)},
            {"infos", joined(event.infos)}};
  }

  // As a decompressor does: until a write is refused. Each piece is an allocation of its own size.
  Outcome push(const std::function<size_t()>& nextSize) {
    const std::string& archive = GetParam().archive;
    ClsTar tar;
    RecordingEvent event;
    prepare(tar, event);
    _mvLogger log;
    ProgressMonitor pm(event, 0, 100, 0);
    tar.BeginStreamingUntar(log);
    bool taken = true;
    for (size_t at = 0, n = 0; taken && at < archive.size(); at += n) {
      n = std::min(nextSize(), archive.size() - at);
      const std::vector<unsigned char> piece(archive.begin() + static_cast<long>(at),
                                             archive.begin() + static_cast<long>(at + n));
      bool finished = false;
      taken = tar.StreamingUntarNext(piece.data(), static_cast<unsigned>(n), finished, &pm, log);
    }
    const bool ok = tar.FinishStreamingUntar(&pm, log);
    // Which of the steps saw a failure depends on the pieces.
    std::string lines = log.text();
    for (const char* step : {"(1)", "(2)", "(3)"}) {
      for (size_t at; (at = lines.find(step)) != std::string::npos;) lines.replace(at, 3, "(n)");
    }
    return take(tar, event, ok, lines);
  }
  Outcome push(size_t size) {
    return push([size] { return size; });
  }

  const ScratchDir m_dir;
};

TEST_P(StreamingCase, IsTheSameForEveryPiece) {
  const size_t archiveSize = GetParam().archive.size();
  const Lines& lines = GetParam().lines;
  const Outcome whole = push(archiveSize + 1);
  const bool ok = std::all_of(lines.begin(), lines.end(), [](const std::string& line) {
    return line == kPaxNotice || line == kImproper;
  });
  EXPECT_EQ(ok ? "yes" : "no", whole.at("ok"));
  EXPECT_EQ(lines, linesOf(whole.at("log"))) << whole.at("log");
  EXPECT_EQ(shownTree(GetParam().tree), whole.at("tree"));
  for (size_t size = 1; size <= 1030 && size <= archiveSize; ++size) {
    ASSERT_EQ(whole, push(size)) << "pieces of " << size;
  }
  for (const size_t size : {4096u, 20000u}) ASSERT_EQ(whole, push(size)) << "pieces of " << size;
  for (unsigned seed = 0; seed < 40; ++seed) {
    std::mt19937 random(seed);
    const auto cut = [&random] { return 1 + (random() % 3 ? random() % 700 : random() % 5000); };
    ASSERT_EQ(whole, push(cut)) << "random pieces, seed " << seed;
  }
}

TEST_P(StreamingCase, IsThePullEngineButForWhatIsSaid) {
  const Case& test = GetParam();
  const Outcome pushed = push(10000);
  ClsTar tar;
  RecordingEvent event;
  prepare(tar, event);
  const int count = untar(tar, test.archive, &event);
  const Outcome pulled = take(tar, event, count >= 0, "");
  if (!test.pullDiffers.empty()) {
    EXPECT_EQ(test.pullResult, count) << logOf(tar);
    EXPECT_EQ(shownTree(test.pullTree), pulled.at("tree"));
    EXPECT_FALSE(pulled.at("ok") == pushed.at("ok") && pulled.at("tree") == pushed.at("tree"))
        << test.pullDiffers << "?";
    return;
  }
  for (const char* what : {"ok", "tree", "headers", "infos"})
    EXPECT_EQ(pushed.at(what), pulled.at(what)) << what;
  EXPECT_EQ(test.words == "EntryEvents" ? pulled.at("entries") : "", pushed.at("entries"));
}

INSTANTIATE_TEST_SUITE_P(All, StreamingCase, ::testing::ValuesIn(cases()),
                         [](const auto& row) { return row.param.name; });

// ---- One step at a time

class Streaming : public ::testing::Test {
 protected:
  Streaming() { m_tar.put_UntarFromDir(m_dir / "out"); }

  bool inner(const std::string& piece) {
    return m_tar.streamingUntarInner(reinterpret_cast<const unsigned char*>(piece.data()),
                                     static_cast<unsigned>(piece.size()), m_finished, nullptr, m_log);
  }
  bool next(const std::string& piece) {
    return m_tar.StreamingUntarNext(reinterpret_cast<const unsigned char*>(piece.data()),
                                    static_cast<unsigned>(piece.size()), m_finished, nullptr, m_log);
  }
  bool finish() { return m_tar.FinishStreamingUntar(nullptr, m_log); }
  void begin() { m_tar.BeginStreamingUntar(m_log); }
  std::string takeLog() {
    std::string text = m_log.text();
    m_log.ClearLog();
    return text;
  }

  const ScratchDir m_dir;
  ClsTar m_tar;
  _mvLogger m_log;
  bool m_finished = false;
};

TEST_F(Streaming, BeginForgetsAndAFinishedRunIgnores) {
  const std::string archive = member("a", std::string(900, 'a')) + kEnd;
  begin();
  ASSERT_TRUE(next(archive.substr(0, 1000)));
  begin();  // in the middle of a file: what arrived of it is there
  EXPECT_EQ(std::string(488, 'a'), readFile(m_dir / "out/a"));
  ASSERT_TRUE(next(longName("not yet used").substr(0, 515)));
  begin();
  EXPECT_TRUE(next(archive) && finish());
  EXPECT_EQ("", takeLog());
  EXPECT_EQ(std::string(900, 'a'), readFile(m_dir / "out/a"));

  // A sparse member's map that goes on when the archive ends is a cut one.
  m_tar.put_UncommonOptions("FullRead");
  begin();
  EXPECT_TRUE(next(patched(member("sparse", "", 'S'), {482, 1}, "\1")));
  EXPECT_FALSE(finish());
  EXPECT_EQ(Lines{kEarly}, linesOf(takeLog()));
  m_tar.put_UncommonOptions("");

  begin();
  EXPECT_FALSE(next(std::string(512, 'x')));
  EXPECT_TRUE(m_finished);
  EXPECT_TRUE(next(archive)) << "accepted and ignored";
  EXPECT_FALSE(finish());
  takeLog();

  begin();
  ASSERT_TRUE(next(archive.substr(0, 600)));
  EXPECT_FALSE(finish());
  EXPECT_FALSE(next("more")) << "the output is gone";
  EXPECT_EQ((Lines{kEarly, "No output for streaming.", "Streaming untar failed (1)"}), linesOf(takeLog()));
}

// What a full disk does to each of the steps that write.
TEST_F(Streaming, WriteFailuresShow) {
  const auto line = [](int n) { return "Failed to write tar data to output. (" + std::to_string(n) + ")"; };
  const std::string first = "Streaming untar failed (1)", second = "Streaming untar failed (2)";
  const struct {
    size_t size;
    std::vector<size_t> pieces;  // of the archive's start
    Lines lines;
  } kFailures[] = {
      {100, {512, 100}, {line(1), first}},
      {100, {612}, {line(2), second}},
      {100, {2048}, {line(3), second, kImproper}},
      {300000, {512, 300000}, {line(1), first, kEarly}},
      {300000, {512 + 300000}, {line(2), second, line(2), first, kEarly}},
      {100, {512, 40}, {kEarly, line(2)}},  // found only when the file is closed
  };
  for (const auto& failure : kFailures) {
    std::filesystem::create_directory(m_dir / "out");
    std::filesystem::remove(m_dir / "out/f");
    std::filesystem::create_symlink("/dev/full", m_dir / "out/f");
    const std::string archive = member("f", noise(failure.size, 3)) + kEnd;
    begin();
    bool ok = true;
    size_t at = 0;
    for (const size_t piece : failure.pieces) {
      ok = ok && next(archive.substr(at, piece));
      at += piece;
    }
    EXPECT_EQ(failure.lines.front() == kEarly, ok);
    EXPECT_FALSE(finish());
    Lines lines;
    for (const std::string& each : linesOf(takeLog())) {
      if (each.find("to file.") == std::string::npos) lines.push_back(each);
    }
    EXPECT_EQ(failure.lines, lines) << failure.size << " in " << failure.pieces.size();
  }
}

// 64 MiB of headers in one piece, and a claim that no memory could hold: neither costs more than it must.
TEST_F(Streaming, LargePiecesAndClaims) {
  m_tar.put_SuppressOutput(true);
  const std::string header = directory("d");
  std::string headers;
  for (int i = 0; i < 128 * 1024; ++i) headers += header;
  begin();
  EXPECT_TRUE(next(headers) && finish());
  m_tar.put_UncommonOptions("MaxExtensionBytes=1000000000000");
  begin();
  EXPECT_TRUE(next(patched(member("r", "name", 'L'), kSizeField, "77777777777")));
  EXPECT_FALSE(finish());
}

}  // namespace
}  // namespace morvane::testing
