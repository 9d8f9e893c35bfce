// The push engine: the same for pieces of every size, and the same as the pull engine but for a few
// differences.
#include <regex>

#include "ArchiveSupport.h"
#include "runtime/log/_mvLogger.h"

namespace morvane::testing {
namespace {

struct Case {
  std::string name, archive;
  const char* words = "";
  void (*setup)(ClsTar&) = [](ClsTar&) {};
};

void PrintTo(const Case& test, std::ostream* out) { *out << test.name; }

std::vector<Case> cases() {
  const std::string two = member("a", "AAA") + member("b", "BB"),
                    four = two + directory("d.d") + member("c.d", "3"),
                    longPath = std::string(90, 'l') + "/" + std::string(90, 'm'), junk(512, 'j');
  const std::string a = paxHeader("path", "a"), other = paxHeader("uname", "u"), link(300, 'l');
  std::string sizes;
  for (const size_t size : {0u, 1u, 511u, 0u, 512u, 513u, 1024u, 0u})
    sizes += member(std::to_string(size), std::string(size, 's')) + directory("d");
  std::vector<Case> all = {
      {"Sizes", sizes + kEnd},
      {"LongNames", longName("forgotten") + longName(longPath + "\0more"s) + member("short", "1") +
                        longName("to/dir") + directory("d") + member("own", "2") + kEnd},
      {"Pax", paxHeader("path", longPath) + member("short", "1") +
                  paxHeader("comment", std::string(700, 'c')) + member("own", "2") +
                  paxHeader("path", "forgotten") + paxHeader("path", "later") + directory("d") +
                  paxHeader("size", "3") + patched(member("sized", "xyz"), kSizeField, "00000000000") +
                  member("last", "3") + kEnd},
      {"PaxAndLongName", paxHeader("path", "of pax") + longName("of L") + member("own", "1") +
                             longName("of L 2") + paxHeader("path", "of pax 2") + member("own", "2") + kEnd},
      {"EveryTypeIsAFile", member("hard", "", '1') + member("soft", "", '2') + member("K", "target", 'K') +
                               paxHeader("path", "x", 'g') + member("odd", "?", 'Z') +
                               member("old", "o", '\0') + member("old-dir/") + kEnd},
      {"PathRules", member("//abs/x", "1") + member("b\\c\\d", "2") + member("\xC3\xA4 \xFF", "3") +
                        ArchiveBuilder().add({"n", "4", '0', "", "pre/fix"}).bytes()},
      {"TwoRecords", a + paxHeader("path", "b") + member("m") + member("n") + kEnd},
      {"RecordBehindThePath", a + other + member("m") + kEnd},
      {"LongNameBehindThePath", a + longName("b") + member("m") + kEnd},
      {"RecordBehindALongName", longName("a") + other + member("m") + kEnd},  // the last gave no path
      {"NulInALongName", longName("a\0b"s) + member("m") + kEnd},
      {"NulBetweenRecords", member("x", "11 path=a\n\0 11 path=b\n"s, 'x') + member("m") + kEnd},
      {"DirectoryByAnotherName", paxHeader("path", "d") + directory("m/") + kEnd},
      {"FileByADirectorysName", paxHeader("path", "a/") + member("m") + kEnd},  // the block decides
      {"Charset", member("\xE4", "1") + kEnd, "", [](ClsTar& tar) { tar.put_Charset("latin1"); }},
      // Only the pull engine needs an end-of-archive mark.
      {"Nothing", ""},
      {"NoEnd", two},
      {"NoEndRefused", two, "RequireEndOfArchive"},
      {"OneEndBlock", two + std::string(512, '\0') + junk, "RequireEndOfArchive"},
      {"StrayBytes", two + "stray"},
      {"CutInPadding", two.substr(0, 2043)},
      {"CutInData", two.substr(0, 1537)},
      {"CutInRecord", longName("a long name, cut").substr(0, 518)},
      {"BadHeader", two + junk + two},
      {"BadHeaderBehindRecord", two + longName("x") + junk},
      {"FileAboveAFile", two + member("a/b") + member("c")},
      {"FileForADirectory", two + directory("a") + member("c")},
      {"DirectoryForAFile", directory("d") + member("d") + member("c")},
      // The pull engine passes over the data that a directory claims, makes no directories with
      // UntarDiscardPaths, alone stops at UntarMaxCount, and wants 1 to 100,000 bytes in a record.
      {"DirectoryWithASize",
       patched(directory("d"), kSizeField, "00000001000") + member("f") + member("g", "1") + kEnd},
      {"DiscardedPaths", directory("x/d") + member("z/f", "1") + kEnd, "",
       [](ClsTar& tar) { tar.put_UntarDiscardPaths(true); }},
      {"MaxCount", two + kEnd, "", [](ClsTar& tar) { tar.put_UntarMaxCount(2); }},
      {"NegativeMaxCount", two + kEnd, "", [](ClsTar& tar) { tar.put_UntarMaxCount(-100); }},
      {"EmptyRecord", member("r", "", 'x') + two + kEnd},
      {"RecordAboutNothing", a + kEnd},
      {"RecordWithoutAnything", longName("n")},
      {"RecordAtTheLimit", member("r", "fifteen-bytes/f", 'L') + member("f") + kEnd, "MaxExtensionBytes=15"},
      // Without FullRead the limit is only the push engine's.
      {"RecordOverTheLimit", member("r", "sixteen-bytes/ff", 'L') + member("f") + kEnd,
       "MaxExtensionBytes=15"},
      {"FullRead",
       paxHeader("mtime", "7", 'g') + member("label", "", 'V') + member("M", "rest", 'M') +
           paxHeader("k", "\n11 path=evil\n") + paxHeader("path", longPath) + paxHeader("size", "1") +
           patched(member("short", "1"), kSizeField, "00000000000") + longName(std::string(200, 't'), 'K') +
           member("soft", "", '2') + kEnd,
       "FullRead"},
      {"FullReadOfNonsense", two + member("r", "nonsense", 'x') + member("c"), "FullRead"},
      {"Confined",
       member("../evil", "1") + member("in/f", "2") + directory("in/../../evil") + member("/kept", "3") +
           kEnd,
       "Confine=nolinks"},
      {"ConfinedAbsolute", member("/kept") + kEnd, "Confine=beneath",
       [](ClsTar& tar) { tar.put_NoAbsolutePaths(false); }},
      {"Matching", four + kEnd, "", [](ClsTar& tar) { tar.put_MustMatch("*.d"); }},
      {"Suppressed", four + kEnd, "", [](ClsTar& tar) { tar.put_SuppressOutput(true); }},
      {"Filtered", longName("of L") + member("own", "x", '2') + directory("d/") + kEnd, "",
       [](ClsTar& tar) { tar.put_MustNotMatch("*"); }},
      {"DataOfADirectory", member("d\\", "data", '5') + longName("longname") + member("/x", "data") + kEnd},
      {"EntryEvents", two + directory("skipped") + member("skipped", "3") + kEnd, "EntryEvents"}};
  for (const char type : "xLKg"s) {
    const std::string claiming = patched(member("r", "", type), kSizeField, "77777777777");
    all.push_back({"FullReadClaim_"s + type, two + claiming + kEnd, "FullRead"});
  }
  for (const size_t size : {100000u, 100001u}) {
    all.push_back({"Pax" + std::to_string(size), member("r", std::string(size, 'x'), 'x') + two + kEnd});
    const std::string longest = "n\0"s + std::string(size - 3, 'L');
    all.push_back({"LongName" + std::to_string(size), longName(longest) + two + kEnd});
  }
  // What FullRead takes in another way.
  const std::pair<const char*, std::string> kFull[] = {
      {"Newline", paxHeader("path", "a\nb") + member("m")},
      {"LongRecord", paxHeader("comment", std::string(100000, 'c')) + member("m")},
      {"LongLink", longName(link, 'K') + member("m", "", '2')},
      // The record's own block has no say in what the record does not give.
      {"RecordsOwnBlock", patched(paxHeader("mtime", "-7.5"), kUidField, "0000007") + member("m")},
      // An empty value takes a global one back, for its own member.
      {"Global",
       member("g", paxRecord("path", "evil") + paxRecord("size", "1") + paxRecord("uid", "9"), 'g') +
           paxHeader("uid", "") + member("m") + member("n")},
      {"OtherTypes", member("V", "", 'V') + member("D", "Yf\0\0"s, 'D') + member("M", "rest", 'M') +
                         member("N", "", 'N') + member("m")},
      // A name for every member is kept short.
      {"LongOwner", member("g", paxRecord("uname", std::string(1024, 'u')), 'g') + member("m")},
      {"TooLongOwner", member("g", paxRecord("uname", std::string(1025, 'u')), 'g') + member("m")}};
  for (const auto& [name, archive] : kFull) {
    all.push_back({name, archive + kEnd});
    all.push_back({"Full"s + name, archive + kEnd, "FullRead"});
  }
  return all;
}

// Everything that a run leaves behind, by name.
using Outcome = std::map<std::string, Lines>;

// Both engines, each with an empty target beside which nothing may appear.
class Engines {
 public:
  explicit Engines(const Case& theCase) : m_case(theCase) {}
  const ScratchDir dir;

  Outcome pull() {
    ClsTar tar;
    RecordingEvent event;
    prepare(tar, event);
    const bool ok = untar(tar, m_case.archive, &event) >= 0;
    return take(tar, event, ok, std::regex_replace(logOf(tar), std::regex("untar: [0-9]+"), "untar: MS"));
  }
  // As a decompressor does: until a write is refused. Each piece is an allocation of its own size.
  Outcome push(const std::function<size_t()>& nextSize) {
    const std::string& archive = m_case.archive;
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

 private:
  void prepare(ClsTar& tar, RecordingEvent& event) {
    fs::remove_all(dir / "out");
    fs::create_directory(dir / "out");
    tar.put_UntarFromDir(dir / "out");
    tar.put_CaptureXmlListing(true);
    tar.put_UntarDebugLog(true);
    tar.put_UncommonOptions(m_case.words);
    m_case.setup(tar);
    tar.setMatchPatternExactFlags();
    event.skipEntry = dir / "out/skipped";
  }

  Outcome take(ClsTar& tar, const RecordingEvent& event, bool ok, const std::string& log) {
    XString listing;
    tar.get_XmlListing(listing);
    EXPECT_EQ(1, std::distance(fs::directory_iterator(dir.path()), {}));
    Outcome all = {{"ok", {ok ? "yes" : "no"}},
                   {"listing", linesOf(listing.str())},
                   {"log", linesOf(log)},
                   {"headers", event.headers},
                   {"entries", event.entries},
                   {"infos", event.infos},
                   {"tree", {}}};
    for (const auto& [path, what] : treeOf(dir / "out")) all["tree"].push_back(path + " " + what);
    return all;
  }

  static Lines linesOf(const std::string& text) {
    Lines lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line.substr(0, line.find('\r')));
    return lines;
  }

  const Case m_case;
};

class StreamingCase : public ::testing::TestWithParam<Case> {};

TEST_P(StreamingCase, IsTheSameForEveryPiece) {
  const size_t archiveSize = GetParam().archive.size();
  Engines engines(GetParam());
  const Outcome whole = engines.push(archiveSize + 1);
  for (size_t size = 1; size <= 1030 && size <= archiveSize; ++size) {
    ASSERT_EQ(whole, engines.push(size)) << "pieces of " << size;
  }
  for (unsigned seed = 0; seed < 40; ++seed) {
    std::mt19937 random(seed);
    const auto cut = [&random] { return 1 + (random() % 3 ? random() % 700 : random() % 5000); };
    ASSERT_EQ(whole, engines.push(cut)) << "random pieces, seed " << seed;
  }
}

INSTANTIATE_TEST_SUITE_P(All, StreamingCase, ::testing::ValuesIn(cases()),
                         [](const auto& row) { return row.param.name; });

// What comes of each case, first in the push engine, and where the pull engine differs; as
// testdata/engines.txt has it.
TEST(Engines, DoTheSameButForWhatIsKnown) {
  std::string all;
  for (const Case& each : cases()) {
    Engines engines(each);
    const Outcome pushed = engines.push(10000), pulled = engines.pull();
    std::string text = each.name + "\n";
    const auto add = [&text](const std::string& name, const Lines& lines) {
      for (const std::string& line : lines) {
        const bool saysNothing = has(line, "></") || has(line, "</entry>");  // in a listing
        text += saysNothing ? "" : "  " + name + ": " + line + "\n";
      }
    };
    for (const auto& [name, lines] : pushed) {
      add(name, lines);
      if (pulled.at(name) != lines)
        add("pull " + name, pulled.at(name).empty() ? Lines{"none"} : pulled.at(name));
    }
    all += std::regex_replace(text, std::regex(engines.dir.path()), "%");
  }
  all = std::regex_replace(all, std::regex("( file [0-9]{2,4}) [0-9]{10,}"), "$1 bytes");  // without its hash
  if (const char* const made = std::getenv("ENGINES_TO")) writeFile(made, all);
  EXPECT_EQ(readFile(MORVANE_TESTDATA "/engines.txt"), all);
}

// ---- One step at a time

class Streaming : public ::testing::Test {
 protected:
  Streaming() { m_tar.put_UntarFromDir(m_dir / "out"); }

  bool next(const std::string& piece) {
    return m_tar.StreamingUntarNext(reinterpret_cast<const unsigned char*>(piece.data()),
                                    static_cast<unsigned>(piece.size()), m_finished, nullptr, m_log);
  }
  bool finish() { return m_tar.FinishStreamingUntar(nullptr, m_log); }
  void begin() { m_tar.BeginStreamingUntar(m_log); }
  std::string takeLog() {
    const std::string log = m_log.text();
    m_log.ClearLog();
    return log;
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
  EXPECT_TRUE(has(takeLog(), "Unexpected end of archive file."));
  m_tar.put_UncommonOptions("");

  begin();
  EXPECT_FALSE(next(std::string(512, 'x')));
  EXPECT_TRUE(m_finished);
  EXPECT_TRUE(next(archive)) << "accepted and ignored";
  EXPECT_FALSE(finish());

  begin();
  ASSERT_TRUE(next(archive.substr(0, 600)));
  EXPECT_FALSE(finish());
  EXPECT_FALSE(next("more"));
  EXPECT_TRUE(has(takeLog(), "No output for streaming.\nStreaming untar failed (1)\n"));
}

// What a full disk does to each of the steps that write. (Their lines stand among the outcomes.)
TEST_F(Streaming, WriteFailuresShow) {
  const struct {
    size_t size, firstPiece, secondPiece;  // of the archive's start
    bool showsAtOnce = true;
  } kFailures[] = {{100, 512, 100},       {100, 612, 0},       {100, 2048, 0},
                   {300000, 512, 300000}, {300000, 300512, 0}, {100, 512, 40, false}};
  for (const auto& each : kFailures) {
    SCOPED_TRACE(each.firstPiece);
    must(m_dir, "mkdir -p out && ln -sf /dev/full out/f");
    const std::string archive = member("f", noise(each.size, 3)) + kEnd;
    begin();
    EXPECT_NE(each.showsAtOnce, next(archive.substr(0, each.firstPiece)) &&
                                    next(archive.substr(each.firstPiece, each.secondPiece)));
    EXPECT_FALSE(finish());
    EXPECT_TRUE(has(takeLog(), "Failed to write tar data to output. ("));
  }
}

// A claim that no memory could hold costs nothing.
TEST_F(Streaming, LargeClaims) {
  m_tar.put_SuppressOutput(true);
  m_tar.put_UncommonOptions("MaxExtensionBytes=1000000000000");
  begin();
  EXPECT_TRUE(next(patched(member("r", "name", 'L'), kSizeField, "77777777777")));
  EXPECT_FALSE(finish());
}

}  // namespace
}  // namespace morvane::testing
