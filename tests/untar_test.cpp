// The pull engine by itself: archives that are cut or hostile, events, aborts, times. (What it makes of
// others is shown with both engines.)
#include "ArchiveSupport.h"

namespace morvane::testing {
namespace {

// ---- Broken archives

// Of an archive cut anywhere, every member that is whole comes out, and the cut is told.
TEST(Untar, CutAtEveryByte) {
  const std::string deep = "d/" + std::string(120, 'p'), longer = "d/" + std::string(110, 'l'), data(60, '2');
  const std::string archive = member("first", "one") + paxHeader("path", deep) + member("m", data) +
                              longName(longer) + member("m") + kEnd;
  const std::tuple<size_t, std::string, std::string> kWholeFrom[] = {
      {515, "first", "file one"}, {2620, deep, "file " + data}, {4608, longer, "file "}};
  for (size_t cut = 0; cut < archive.size(); ++cut) {
    // Inside a header or padding one cut is like another.
    if (cut % 512 > 62 && cut % 512 < 511) continue;
    SCOPED_TRACE(cut);
    ScratchDir dir;
    TarWith tar("", dir.path());
    const int count = untar(tar, archive.substr(0, cut));
    ASSERT_EQ(cut < archive.size() - 512 ? -1 : 3, count) << logOf(tar);
    ASSERT_EQ(count < 0 ? 1 : 0, countInLog(tar, "Failed to ")) << logOf(tar);
    auto tree = treeOf(dir.path());
    tree.erase("d");
    for (const auto& [end, path, what] : kWholeFrom)
      ASSERT_TRUE(cut < end || (tree[path] == what && tree.erase(path) == 1)) << path;
    // The one that was being written.
    ASSERT_TRUE(tree.empty() || (tree.size() == 1 && logHas(tar, "Failed to extract to file.")));
  }
}

// Sizes that claim more than there is, from sources that can seek and from such that cannot.
TEST(Untar, HostileSizes) {
  for (const std::string& size :
       {"77777777777\0"s, "\x80\0\0\0\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s, "\x80\0\0\0\x80\0\0\0\0\0\0\0"s,
        std::string(12, '\xFF'), "-0000000001\0"s, "0x000000001\0"s}) {
    for (const char typeFlag : {'0', '5', 'x', 'L'}) {
      for (const std::string words : {"", "FullRead,MaxExtensionBytes=9223372036854775807"}) {
        if (typeFlag == '5' && !words.empty()) continue;  // a hint of no meaning there
        SCOPED_TRACE(size + typeFlag + words);
        const std::string bytes =
            patched(member("m", "", typeFlag), kSizeField, size) + member("next") + kEnd;
        ScratchDir dir;
        TarWith tar(words, dir.path());
        TricklingSource source(bytes, 4096);
        EXPECT_TRUE(untar(tar, bytes) == -1 && !tar.VerifyTar(source)) << logOf(tar);
      }
    }
  }
}

// What has no data, and a header that states some: of links and special files they may be there or not.
TEST(Untar, SizesWithoutData) {
  const std::string data(700, 'd');
  for (const char kind : {'1', '2', '3', '4', '5', '6'}) {
    for (const bool hasData : {false, true}) {
      const std::string head =
          patched(ArchiveBuilder().add({"l", "", kind, "f"}).bytes(0), kSizeField, "00000001274\0"s);
      const std::string archive = member("f", "x") + head + (hasData ? data + std::string(324, '\0') : "") +
                                  member("lost", "12345") + member("z") + kEnd;
      // A directory's size is a hint.
      const bool isWhole = kind != '5' || !hasData;
      for (const bool gzip : {false, true}) {
        SCOPED_TRACE(kind + std::string(hasData ? " with data" : "") + (gzip ? " gzip" : ""));
        ScratchDir dir;
        writeFile(dir / "a", gzip ? run({"gzip", "-c"}, archive).out : archive);
        TarWith tar("Profile=usual", dir / "out");
        RecordingEvent event;
        EXPECT_EQ(isWhole, tar.VerifyAny(dir / "a", &event)) << logOf(tar);
        EXPECT_EQ(isWhole ? 4u : 2u, event.headers.size());
        if (kind == '1') {
          EXPECT_TRUE(tar.UntarAny(dir / "a")) << logOf(tar);
          EXPECT_EQ("12345x", readFile(dir / "out/lost") + readFile(dir / "out/l"));
        }
      }
    }
  }
}

TEST(Untar, Events) {
  ScratchDir dir;
  writeFile(dir / "a.tar", longName("longname") + member("/x", "data") + member("no") + kEnd);
  TarWith tar("", dir / "out");
  tar.put_MustNotMatch("no");
  RecordingEvent event, verifying;
  event.skipEntry = dir / "out/longname";
  EXPECT_EQ(0, tar.Untar(dir / "a.tar", &event));
  EXPECT_EQ((Lines{"0 longname 4 1024", "0 no 0 2048"}), event.headers);
  EXPECT_EQ(Lines{dir / "out/longname 4"}, event.entries);
  EXPECT_TRUE(tar.VerifyTar(dir / "a.tar", &verifying));
  EXPECT_TRUE(verifying.headers == event.headers && verifying.entries.empty());
  EXPECT_EQ(100, verifying.percents.back());
}

TEST(Untar, Aborts) {
  ScratchDir dir;
  writeFile(dir / "a.tar", member("a") + longName("name") + member("b", noise(900, 1)) + kEnd);
  // One question a header, the end's included, and none with AbortCheckMs 0.
  for (const auto& [abortCheckMs, abortAt, result] :
       {std::tuple(1000000000, 4, -1), {1000000000, 5, 2}, {0, 1, 2}}) {
    TarWith tar("", dir / "out");
    tar.put_AbortCheckMs(abortCheckMs);
    RecordingEvent event, byPercent;
    event.abortAtQuestion = abortAt;
    EXPECT_EQ(result, tar.Untar(dir / "a.tar", &event));
    EXPECT_EQ(abortCheckMs == 0 ? 0 : 4, event.questions);
    byPercent.abortAtPercent = 25;
    EXPECT_EQ(-1, tar.Untar(dir / "a.tar", &byPercent));
  }
}

// ---- Times and messages

TEST(Untar, Times) {
  const std::string eight = "00000000010\0"s;
  const struct {
    std::string records, mtime;
    const char* times;
    size_t present = 2000;
  } kCases[] = {{"", "777777777777"s, "4294967295 4294967295"},
                {"", std::string(12, '\xFF'), "0 0"},
                {paxHeader("mtime", "5"), eight, "8 8"},  // the block's time wins
                {paxHeader("atime", "5.9"), eight, "8 5"},
                {paxHeader("atime", "0"), eight, "8 8"},
                {"", eight, "8 8", 514}};  // of a file that could not be finished too
  for (const auto& each : kCases) {
    ScratchDir dir;
    TarWith tar("", dir.path());
    const std::string file = patched(member("m", "data"), kMtimeField, each.mtime) + kEnd;
    untar(tar, each.records + file.substr(0, each.present));
    EXPECT_EQ(each.times + "\n"s, shell(dir, "stat -c '%Y %X' m").out);
  }
}

// A source that cannot seek, with a gap in its midst of which nothing is ever there.
class GapSource : public TricklingSource {
 public:
  GapSource(const std::string& before, long long gap, const std::string& behind)
      : TricklingSource(before, 700), m_gap(gap), m_behind(behind, 700) {}
  bool readSourcePM(char* to, unsigned n, unsigned& numRead, ProgressMonitor* pm, LogBase& log) override {
    if (TricklingSource::readSourcePM(to, n, numRead, pm, log) && numRead > 0) return true;
    numRead = static_cast<unsigned>(std::min<long long>(n, m_gap));
    m_gap -= numRead;
    return numRead > 0 || m_behind.readSourcePM(to, n, numRead, pm, log);
  }

 private:
  long long m_gap;
  TricklingSource m_behind;
};

TEST(Untar, MembersOverEightGiB) {
  constexpr long long kSize = (9LL << 30) + 1;
  const std::string huge = ArchiveBuilder().add({"huge", "", '0', "", "", false, 0, kSize}).bytes(0);
  GapSource source(huge, paddedSize(kSize), member("next") + kEnd);
  ClsTar tar;
  RecordingEvent event;
  EXPECT_TRUE(tar.VerifyTar(source, &event)) << logOf(tar);
  EXPECT_EQ((Lines{"0 huge 9663676417 0", "0 next 0 9663677440"}), event.headers);
}

// From memory, also into the archive's own buffer, and from a source that cannot seek; behind what is in the
// destination. (Which member each pattern finds stands among the outcomes.)
TEST(FirstMatch, GoesWhereItIsWanted) {
  const std::string found = noise(1500, 1), archive = member("a") + member("b.txt", found) + kEnd;
  for (const auto& [pattern, expected] : {std::pair("*.txt", found), {"none", std::string()}}) {
    ClsTar tar;
    DataBuffer bytes, destination;
    ClsBinData fromSource;
    bytes.append(archive.data(), static_cast<unsigned>(archive.size()));
    destination.appendStr("before ");
    TricklingSource source(archive, 700);
    EXPECT_TRUE(tar.UntarFirstMatchingToMemory(bytes, pattern, destination) &&
                tar.UntarFirstMatchingToMemory(bytes, pattern, bytes) &&
                tar.UntarFirstMatchingToBd(source, pattern, fromSource));
    EXPECT_EQ("before " + expected, textOf(destination));
    EXPECT_EQ(archive + expected, textOf(bytes));
    EXPECT_EQ(expected, textOf(fromSource.data()));
  }
}

}  // namespace
}  // namespace morvane::testing
