// The push engine: the same for pieces of every size, and the same as the pull engine but for a few
// differences.
#include <ctime>
#include <filesystem>
#include <functional>
#include <random>

#include "TestSupport.h"
#include "runtime/log/_mvLogger.h"

namespace morvane::testing {
namespace {

using namespace std::string_literals;
using Member = ArchiveBuilder::Member;
using Lines = std::vector<std::string>;
using Tree = std::map<std::string, std::string>;

struct Case {
  std::string name, archive, tree;  // the tree as `shown` tells it
  Lines lines;                      // of the log, data lines and contexts left out
  std::string words;
  std::function<void(ClsTar&)> setup = [](ClsTar&) {};
  bool ok = true;
  // Where the pull engine yields something else: why, its result, and its tree.
  std::string pullDiffers, pullTree;
  int pullResult = 0;

  Case& with(std::function<void(ClsTar&)> what) { return setup = std::move(what), *this; }
  Case& pull(const char* why, int result, const char* what) {
    return pullDiffers = why, pullResult = result, pullTree = what, *this;
  }
};

void PrintTo(const Case& test, std::ostream* out) { *out << test.name; }

// "path=CONTENTS|path=#SIZE|dir/": directories only where nothing else lies in them.
std::string shown(const Tree& tree) {
  std::string text;
  for (auto it = tree.begin(); it != tree.end(); ++it) {
    const auto& [path, what] = *it;
    const auto inside = tree.lower_bound(path + "/");
    const bool isFull = inside != tree.end() && inside->first.find(path + "/") == 0;
    if (what == "dir" && isFull) continue;
    text += (text.empty() ? "" : "|") + path;
    unsigned long long size = 0, hash = 0;
    const bool isLong = sscanf(what.c_str(), "file %llu %llu", &size, &hash) == 2;
    text += what == "dir" ? "/" : isLong ? "=#" + std::to_string(size) : "=" + what.substr(5);
  }
  return text;
}

Member file(const std::string& name, const std::string& data = "") { return {name, data}; }
Member dir(const std::string& name) { return {name, "", '5'}; }
Member record(char type, const std::string& data) { return {"record", data, type}; }
Member pax(const std::string& keyword, const std::string& value) {
  return record('x', paxRecord(keyword, value));
}
Member other(char type, const std::string& name, const std::string& data = "") { return {name, data, type}; }
Member sized(Member member, long long statedSize) { return member.statedSize = statedSize, member; }

std::string tarOf(std::initializer_list<Member> members, int endBlocks = 2) {
  ArchiveBuilder builder;
  for (const Member& member : members) builder.add(member);
  return builder.bytes(endBlocks);
}

const std::string kEarly = "Unexpected end of archive file.";
const std::string kImproper = "Improperly terminated TAR archive.";

std::vector<Case> cases() {
  const std::string notice = "PAX header in streaming untar!", failed = "Streaming untar failed (n)",
                    noMark = "The archive has no end-of-archive mark.",
                    tooLarge = "Extension data too large.", wrongSum = "The TAR header's checksum is wrong.",
                    refused = "Member refused: its path leaves the target.";
  std::vector<Case> all;
  const auto add = [&](const std::string& name, const std::string& archive, const std::string& tree,
                       const Lines& lines = {}, const char* words = "") -> Case& {
    Case& added = all.emplace_back();
    added.name = name;
    added.archive = archive;
    added.tree = tree;
    added.lines = lines;
    added.words = words;
    for (const std::string& line : lines) added.ok = added.ok && (line == notice || line == kImproper);
    return added;
  };
  const std::string two = tarOf({file("a", "AAA"), file("b", "BB")}, 0), both = "a=AAA|b=BB", end(1024, '\0');
  const std::string junk(512, 'j'), cutInPadding = two.substr(0, 2043);
  const std::string longPath = std::string(90, 'l') + "/" + std::string(90, 'm');
  std::string manyRecords;
  while (manyRecords.size() <= 100000) manyRecords += paxRecord("comment", "of no use");

  add("Sizes",
      tarOf({file("s0"), file("s1", "1"), file("s511", noise(511, 1)), file("s0"),
             file("s512", noise(512, 2)), file("s513", noise(513, 3)), file("s1024", noise(1024, 4)),
             dir("d"), file("s0")}),
      "d/|s0=|s1=1|s1024=#1024|s511=#511|s512=#512|s513=#513");
  add("LongNames",
      tarOf({record('L', "forgotten\0"s), record('L', longPath + "\0more"s), file("short", "1"),
             record('L', "to/dir\0"s), dir("d"), file("own", "2")}),
      longPath + "=1|own=2|to/dir/");
  add("Pax",
      tarOf({pax("path", longPath), file("short", "1"), pax("comment", std::string(700, 'c')),
             file("own", "2"), pax("path", "forgotten"), pax("path", "later"), dir("d"), pax("size", "3"),
             sized(file("sized", "xyz"), 0), file("last", "3")}),
      "last=3|later/|" + longPath + "=1|own=2|sized=xyz", Lines(5, notice));
  add("PaxAndLongName",
      tarOf({pax("path", "of pax"), record('L', "of L\0"s), file("own", "1"), record('L', "of L 2\0"s),
             pax("path", "of pax 2"), file("own", "2")}),
      "of L=1|of pax 2=2", {notice, notice});
  add("EveryTypeIsAFile",
      tarOf({other('1', "hard"), other('2', "soft"), other('3', "device"), other('6', "fifo"),
             other('g', "global", paxRecord("path", "evil")), other('K', "K", "target"), other('V', "label"),
             other('Z', "odd", "?"), other('\0', "old", "o"), file("old-dir/")}),
      "K=target|device=|fifo=|global=13 path=evil\n|hard=|label=|odd=?|old=o|old-dir/|soft=");
  Member prefixed = file("n", "4");
  prefixed.prefix = "pre/fix";
  add("PathRules", tarOf({file("//abs/x", "1"), file("b\\c\\d", "2"), file("\xC3\xA4 \xFF", "3"), prefixed}),
      "abs/x=1|b/c/d=2|pre/fix/n=4|\xC3\xA4 \xFF=3");
  add("Charset", tarOf({file("\xE4", "1")}), "\xC3\xA4=1").with([](ClsTar& tar) {
    tar.put_Charset("latin1");
  });

  const char* const needsMark = "only the pull engine needs an end-of-archive mark";
  add("Nothing", "", "").pull(needsMark, -1, "");
  add("OnlyTheEnd", end, "");
  add("OneEndBlock", two + std::string(512, '\0') + noise(1500, 1), both, {}, "RequireEndOfArchive");
  add("NoEnd", two, both).pull(needsMark, -1, both.c_str());
  add("NoEndRefused", two, both, {noMark}, "RequireEndOfArchive");
  add("StrayBytes", two + "stray", both, {kImproper}).pull(needsMark, -1, both.c_str());
  add("StrayBytesRefused", two + "stray", both, {kImproper, noMark}, "RequireEndOfArchive");
  add("CutInPadding", cutInPadding, both).pull(needsMark, -1, both.c_str());
  add("CutInPaddingRefused", cutInPadding, both, {noMark}, "RequireEndOfArchive");
  add("CutInData", two.substr(0, 1537), "a=AAA|b=B", {kEarly});
  add("CutInRecord", tarOf({record('L', "a long name, cut")}).substr(0, 518), "", {kEarly});
  add("BadHeader", two + junk + two, both, {wrongSum, "Failed to parse tar header", failed});
  add("BadHeaderBehindRecord", two + tarOf({record('L', "x")}, 0) + junk + two, both,
      {wrongSum, "Failed to parse TAR header..", failed});

  add("FileAboveAFile", two + tarOf({file("a/b"), file("c")}), both,
      {"Failed to ensure ability to create output file for untar.", failed});
  add("FileForADirectory", two + tarOf({dir("a"), file("c")}), both,
      {"Failed to ensure untar directory.", failed});
  add("DirectoryForAFile", two + tarOf({dir("d"), file("d"), file("c")}), both + "|d/",
      {"Failed to create file.", "Failed to create output file for untar.", failed});
  add("DirectoryWithASize", tarOf({sized(dir("d"), 512), file("f"), file("g", "1")}), "d/|f=|g=1")
      .pull("the pull engine passes over the data that a directory claims", 2, "d/|g=1");
  add("DiscardedPaths", tarOf({dir("x/d"), dir("y/"), file("z/f", "1")}), "d/|f=1")
      .with([](ClsTar& tar) { tar.put_UntarDiscardPaths(true); })
      .pull("the pull engine makes no directories then", 3, "f=1");
  add("MaxCount", two + end, both)
      .with([](ClsTar& tar) { tar.put_UntarMaxCount(1); })
      .pull("only the pull engine stops at UntarMaxCount", 1, "a=AAA");
  add("EmptyRecord", tarOf({record('x', ""), file("f", "1")}), "f=1", {notice})
      .pull("the pull engine wants data in a record", -1, "");
  add("RecordOver100000", tarOf({record('x', manyRecords), file("f", "1")}), "f=1", {notice})
      .pull("the pull engine takes up to 100,000 bytes", -1, "");
  add("RecordAtTheLimit", tarOf({record('L', "fifteen-bytes/f"), file("f", "1")}), "fifteen-bytes/f=1", {},
      "MaxExtensionBytes=15");
  add("RecordOverTheLimit", tarOf({record('L', "sixteen-bytes/ff"), file("f", "1")}), "", {tooLarge, failed},
      "MaxExtensionBytes=15")
      .pull("without FullRead the limit is only the push engine's", 1, "sixteen-bytes/ff=1");

  for (const char type : "xLKg"s) {
    add("FullReadClaim_"s + type, two + tarOf({sized(record(type, ""), 1LL << 40)}), both, {tooLarge, failed},
        "FullRead");
  }
  const std::string newline = paxRecord("k", "line\n11 path=evil\n");
  add("FullRead",
      tarOf({other('g', "global", paxRecord("mtime", "7")), other('V', "label"), other('M', "M", "rest"),
             record('x', paxRecord("path", longPath) + newline + paxRecord("size", "1")),
             sized(file("short", "1"), 0), other('K', "K", std::string(200, 't')), other('2', "soft")}),
      longPath + "=1|soft=", {}, "FullRead");
  add("FullReadOfNonsense", two + tarOf({record('x', "nonsense"), file("c")}), both,
      {"A PAX record is malformed.", failed}, "FullRead");
  add("Confined", tarOf({file("../evil", "1"), file("in/f", "2"), dir("in/../../evil"), file("/kept", "3")}),
      "in/f=2|kept=3", {refused, refused}, "Confine=nolinks");
  const std::string four = two + tarOf({dir("d.d"), file("c.d", "3")});
  add("Matching", four, "c.d=3|d.d/").with([](ClsTar& tar) { tar.put_MustMatch("*.d"); });
  add("NotMatching", four, both).with([](ClsTar& tar) { tar.put_MustNotMatch("*.d"); });
  add("Suppressed", four, "").with([](ClsTar& tar) { tar.put_SuppressOutput(true); });
  add("EntryEvents", two + tarOf({dir("skipped"), file("skipped", "3")}), both, {}, "EntryEvents");
  return all;
}

// Everything that a run leaves behind, by name.
using Outcome = std::map<std::string, std::string>;

std::string joined(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
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
            {"listing", listing.str()},         {"tree", shown(treeOf(m_dir / "out"))},
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

TEST_P(StreamingCase, IsTheSameForEveryPiece) {
  const Outcome whole = push(GetParam().archive.size() + 1);
  EXPECT_EQ(GetParam().ok ? "yes" : "no", whole.at("ok"));
  EXPECT_EQ(GetParam().lines, linesOf(whole.at("log"))) << whole.at("log");
  EXPECT_EQ(GetParam().tree, whole.at("tree"));
  for (size_t size = 1; size <= 1030 && size <= GetParam().archive.size(); ++size) {
    ASSERT_EQ(whole, push(size)) << "pieces of " << size;
  }
  for (const size_t size : {4096u, 20000u}) ASSERT_EQ(whole, push(size)) << "pieces of " << size;
  for (unsigned seed = 0; seed < 40; ++seed) {
    std::mt19937 random(seed);
    const auto cut = [&random] { return 1 + (random() % 3 ? random() % 700 : random() % 5000); };
    ASSERT_EQ(whole, push(cut)) << "random pieces, seed " << seed;
  }
}

std::string withoutRecords(std::string listing, const std::string& types) {
  for (size_t at = 0; (at = listing.find("\t<entry type=\"", at)) != std::string::npos;) {
    const size_t end = listing.find("</entry>\r\n", at) + 10;
    if (types.find(listing[at + 14]) != std::string::npos) {
      listing.erase(at, end - at);
    } else {
      at = end;
    }
  }
  return listing;
}

TEST_P(StreamingCase, IsThePullEngineButForWhatIsSaid) {
  const Case& test = GetParam();
  const Outcome pushed = push(10000);
  ClsTar tar;
  RecordingEvent event;
  prepare(tar, event);
  DataBuffer archive;
  archive.append(test.archive.data(), static_cast<unsigned>(test.archive.size()));
  const int count = tar.UntarFromMemory(archive, &event);
  const Outcome pulled = take(tar, event, count >= 0, "");
  if (!test.pullDiffers.empty()) {
    EXPECT_EQ(test.pullResult, count) << logOf(tar);
    EXPECT_EQ(test.pullTree, pulled.at("tree"));
    EXPECT_FALSE(pulled.at("ok") == pushed.at("ok") && test.pullTree == test.tree) << test.pullDiffers << "?";
    return;
  }
  for (const char* what : {"ok", "tree", "headers", "infos"})
    EXPECT_EQ(pushed.at(what), pulled.at(what)) << what;
  EXPECT_EQ(test.words == "EntryEvents" ? pulled.at("entries") : "", pushed.at("entries"));
  // The push engine lists records too.
  const char* const records = test.words == "FullRead" ? "xgLKVM" : "xL";
  EXPECT_EQ(withoutRecords(pushed.at("listing"), records), pulled.at("listing"));
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

TEST_F(Streaming, VerboseStepByStep) {
  const std::string archive = tarOf({file("a", noise(1000, 1)), file("b", noise(600, 2)), dir("d")});
  const std::string out = m_dir / "out/";
  const auto header = [&](const std::string& previous, const std::string& type, const std::string& what) {
    return "curFileBytesLeft: 0\n---- Next TAR Header ----\npreviousHeaderType: [" + previous + "]\n" +
           (type.empty() ? "" : "typeFlag: [" + type + "]\n" + what + "\n");
  };
  const auto padding = [](int left) {
    return "curFileBytesLeft: 0\n--- Consuming padding...\npaddingLeft: " + std::to_string(left) + "\n";
  };
  m_log.setVerbose(true);
  begin();
  size_t at = 0;
  const auto step = [&](size_t n, const std::string& log) {
    EXPECT_TRUE(inner(archive.substr(at, n)));
    EXPECT_EQ(log, takeLog()) << "at " << at;
    at += n;
  };
  step(500, "curFileBytesLeft: 0\n");
  step(12, header(" ", "0", "creatingFile: " + out + "a"));
  step(700, "");  // lies within the data and goes straight through
  step(1000,
       "curFileBytesLeft: 300\n--- Some incoming bytes finalize the current output file...\n"
       "finishedFileSize3: 1000\nnumPaddingBytesLeft3: 24\n");
  EXPECT_EQ(noise(1000, 1), readFile(m_dir / "out/a"));
  step(0, header("0", "0", "creatingFile: " + out + "b"));
  step(0, "curFileBytesLeft: 600\n--- All bytes going to output file (2)...\n");
  step(436, "finishedFileSize1: 600\nnumPaddingBytesLeft1: 424\n");
  step(400, padding(424));
  step(24, padding(24));
  step(512, header("0", "5", "creatingDir: " + out + "d"));
  EXPECT_FALSE(m_finished);
  step(1024, header("5", "", ""));
  EXPECT_TRUE(m_finished);
  EXPECT_TRUE(next("ignored"));
  EXPECT_TRUE(m_finished);
  EXPECT_EQ("StreamingUntarNext:\n    Streaming finished.\n", takeLog());
  EXPECT_TRUE(finish());
  EXPECT_EQ("FinishStreamingUntar:\n    streaming is finished.\n", takeLog());
}

TEST_F(Streaming, VerboseRecordsAndWhatIsLeftOut) {
  m_log.setVerbose(true);
  m_tar.put_MustNotMatch("no*");
  begin();
  ASSERT_TRUE(next(tarOf({record('L', "no-long\0"s), file("f", ""), dir("no-dir"),
                          record('x', paxRecord("path", "p")), file("g", std::string(512, 'g'))},
                         1)));
  const std::string log = takeLog();
  for (const char* line :
       {"L_Data: no-long\n", "combinedFilename: no-long\n", "previousHeaderType: [L]\n", "typeFlag: [L]\n",
        "Parsing PAX extended header...\n", "paxName: path\n", "paxValue: p\n", "previousHeaderType: [x]\n",
        "finishedFileSize3: 8\n", "numPaddingBytesLeft3: 504\n", "numPaddingBytesLeft3: 0\n"}) {
    EXPECT_NE(std::string::npos, log.find(line)) << line << log;
  }
  EXPECT_NE(std::string::npos, log.find("skippingFile: " + (m_dir / "out/no-long\n"))) << log;
  EXPECT_NE(std::string::npos, log.find("skippingDir: " + (m_dir / "out/no-dir\n"))) << log;
  EXPECT_EQ("p=#512", shown(treeOf(m_dir / "out")));
}

TEST_F(Streaming, OnlyTheTimeOfAFileWithDataIsSet) {
  const long long before = std::time(nullptr) - 5;
  begin();
  ASSERT_TRUE(next(tarOf({record('x', paxRecord("mtime", "5") + paxRecord("atime", "6")),
                          {"data", "1", '0', "", "", false, 1234567890},
                          {"empty", "", '0', "", "", false, 1234567890},
                          {"dir", "", '5', "", "", false, 1234567890}})));
  EXPECT_TRUE(finish());
  EXPECT_EQ(1234567890, mtimeOf(m_dir / "out/data")) << "the header's own time wins";
  EXPECT_LE(before, mtimeOf(m_dir / "out/empty"));
  EXPECT_LE(before, mtimeOf(m_dir / "out/dir"));
}

TEST_F(Streaming, FinishDrainsWhatIsPending) {
  const std::string archive = tarOf({file("a", "1"), file("b", "2")});
  for (const size_t size : {archive.size(), size_t{1024}, size_t{1200}, size_t{1536}}) {
    begin();
    ASSERT_TRUE(inner(archive.substr(0, size)));
    const bool cutInData = size == 1536;
    EXPECT_EQ(!cutInData, finish()) << size;
    EXPECT_EQ("FinishStreamingUntar:\n    " + (cutInData ? kEarly : kImproper) + "\n", takeLog()) << size;
    EXPECT_EQ("1", readFile(m_dir / "out/a"));
  }
}

TEST_F(Streaming, BeginForgetsAndAFinishedRunIgnores) {
  const std::string archive = tarOf({file("a", std::string(900, 'a'))});
  begin();
  ASSERT_TRUE(next(archive.substr(0, 1000)));
  begin();  // in the middle of a file: what arrived of it is there
  EXPECT_EQ(std::string(488, 'a'), readFile(m_dir / "out/a"));
  ASSERT_TRUE(next(tarOf({record('L', "not yet used\0"s)}, 0).substr(0, 515)));
  begin();
  ASSERT_TRUE(next(archive));
  EXPECT_TRUE(finish());
  EXPECT_EQ("", takeLog());
  EXPECT_EQ(std::string(900, 'a'), readFile(m_dir / "out/a"));

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
  EXPECT_EQ(
      "FinishStreamingUntar:\n    Unexpected end of archive file.\nNo output for streaming.\n"
      "Streaming untar failed (1)\n",
      takeLog());
  _mvIoParams io;
  begin();
  EXPECT_FALSE(m_tar._writeBytes(std::string(600, 'x').data(), 600, io, m_log));
  EXPECT_NE(std::string::npos, takeLog().find("Streaming untar failed (1)\nStreamingUntarNext failed.\n"));
}

TEST_F(Streaming, ListingFollowsTheProperty) {
  const std::string archive = tarOf({record('L', "a\0"s), file("b")});
  const auto listing = [this] {
    XString text;
    m_tar.get_XmlListing(text);
    return text.str();
  };
  m_tar.put_XmlListing("mine");
  begin();
  EXPECT_TRUE(next(archive) && finish());
  EXPECT_EQ("mine", listing());
  m_tar.put_CaptureXmlListing(true);
  begin();
  EXPECT_TRUE(finish());
  EXPECT_EQ("<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n<tar>\r\n</tar>\r\n", listing());
  m_tar.put_CaptureXmlListing(false);
  m_tar.put_XmlListing("");
  begin();
  EXPECT_TRUE(next(archive.substr(0, 600)));
  m_tar.put_CaptureXmlListing(true);
  EXPECT_TRUE(next(archive.substr(600)) && finish());
  EXPECT_EQ(0u, listing().find("\t<entry type=\"0\"")) << "without its opening lines";
  EXPECT_NE(std::string::npos, listing().find("<path>a</path>"));
  EXPECT_EQ(listing().size() - 8, listing().find("</tar>\r\n"));
}

// What a full disk does to each of the steps that write.
TEST_F(Streaming, WriteFailuresShow) {
  const auto line = [](int n) { return "Failed to write tar data to output. (" + std::to_string(n) + ")"; };
  const std::string first = "Streaming untar failed (1)", second = "Streaming untar failed (2)";
  struct Failure {
    size_t size;
    std::vector<size_t> pieces;  // of the archive's start
    Lines lines;
  };
  const std::vector<Failure> failures = {
      {100, {512, 100}, {line(1), first}},
      {100, {512, 40, 60}, {line(1), first}},
      {100, {612}, {line(2), second}},
      {100, {520, 604}, {line(3), first, kImproper}},
      {100, {2048}, {line(3), second, kImproper}},
      {300000, {512, 300000}, {line(1), first, kEarly}},
      {300000, {512 + 300000}, {line(2), second, line(2), first, kEarly}},
      {300000, {302000}, {line(3), second, line(3), first, kEarly}},
      {100, {512, 40}, {kEarly, line(2)}},  // found only when the file is closed
  };
  for (const Failure& failure : failures) {
    std::filesystem::create_directory(m_dir / "out");
    std::filesystem::remove(m_dir / "out/f");
    std::filesystem::create_symlink("/dev/full", m_dir / "out/f");
    const std::string archive = tarOf({file("f", noise(failure.size, 3))});
    begin();
    bool ok = true;
    size_t at = 0;
    for (const size_t piece : failure.pieces) {
      ok = ok && next(archive.substr(at, piece));
      at += piece;
    }
    EXPECT_EQ(failure.lines.front() == kEarly, ok);
    EXPECT_FALSE(finish());
    Lines lines = linesOf(takeLog());
    lines.erase(
        std::remove_if(lines.begin(), lines.end(),
                       [](const std::string& each) { return each.find("to file.") != std::string::npos; }),
        lines.end());
    EXPECT_EQ(failure.lines, lines) << failure.size << " in " << failure.pieces.size();
  }
}

// 64 MiB of headers in one piece, and a claim that no memory could hold: neither costs more than it must.
TEST_F(Streaming, LargePiecesAndClaims) {
  m_tar.put_SuppressOutput(true);
  const std::string header = tarOf({dir("d")}, 0);
  std::string headers;
  for (int i = 0; i < 128 * 1024; ++i) headers += header;
  begin();
  EXPECT_TRUE(next(headers) && finish());
  m_tar.put_UncommonOptions("MaxExtensionBytes=1000000000000");
  begin();
  EXPECT_TRUE(next(tarOf({sized(record('L', "name"), 900000000000)}, 0)));
  EXPECT_FALSE(finish());
}

// A link in the target that leads out, seen by the run and by the event.
TEST_F(Streaming, ConfinedAmongLinks) {
  writeFile(m_dir / "outer/secret", "secret");
  std::filesystem::create_directory(m_dir / "out");
  std::filesystem::create_symlink("../outer", m_dir / "out/leave");
  std::filesystem::create_symlink("../outer/secret", m_dir / "out/leaf");
  const std::string archive =
      tarOf({file("leave/secret", "evil"), dir("leave/dir"), file("leaf", "replaced"), file("last", "2")});
  m_tar.put_UncommonOptions("Confine=beneath,EntryEvents");
  begin();
  RecordingEvent event;
  ProgressMonitor pm(event, 0, 100, 0);
  _mvIoParams io(&pm);
  EXPECT_TRUE(m_tar._writeBytes(archive.data(), static_cast<unsigned>(archive.size()), io, m_log));
  EXPECT_FALSE(m_tar.FinishStreamingUntar(&pm, m_log));
  EXPECT_EQ((Lines{"refused=leave/secret", "refused=leave/dir"}), event.infos);
  EXPECT_EQ(4u, event.entries.size()) << "asked before it is refused";
  EXPECT_EQ("secret=secret", shown(treeOf(m_dir / "outer")));
  EXPECT_EQ("replaced2", readFile(m_dir / "out/leaf") + readFile(m_dir / "out/last"));
}

}  // namespace
}  // namespace morvane::testing
