// The pull engine: what it makes of archives that are whole, cut, flipped, hostile or merely odd, from every
// kind of source; its events, limits, times and messages.
#include <sys/stat.h>
#include <unistd.h>

#include "ArchiveSupport.h"

namespace morvane::testing {
namespace {

using namespace std::string_literals;

// What stands in a new target afterwards: "path what, path what ...".
std::string extracted(const std::string& archive, ClsTar& tar) {
  ScratchDir dir;
  tar.put_UntarFromDir(dir / "out");
  if (untar(tar, archive + kEnd) < 0) return "failed";
  std::string text;
  for (const auto& [path, what] : treeOf(dir / "out")) text += (text.empty() ? "" : ", ") + path + " " + what;
  return text;
}
std::string extracted(const std::string& archive) {
  ClsTar tar;
  return extracted(archive, tar);
}

// ---- Broken archives

// Of an archive cut anywhere, every member that is whole comes out, and the cut is told.
TEST(Untar, CutAtEveryByte) {
  std::string archive;
  std::map<size_t, std::pair<std::string, std::string>> wholeFrom;  // where a member's data end
  const auto add = [&](const std::string& before, const std::string& path, const std::string& data) {
    archive += before + member(path.substr(0, 100), data);
    wholeFrom[archive.size() - paddingAfter(static_cast<long long>(data.size()))] = {path, "file " + data};
  };
  const std::string deep = "d/" + std::string(120, 'p'), longer = "d/" + std::string(110, 'l');
  add("", "first", "one");
  add(paxHeader("path", deep), deep, std::string(60, '2'));
  add(longName(longer), longer, "");
  archive += kEnd;
  ScratchDir dir;
  ClsTar tar;
  for (size_t cut = 0; cut < archive.size(); ++cut) {
    SCOPED_TRACE(cut);
    const std::string out = dir / std::to_string(cut);
    tar.put_UntarFromDir(out);
    // Inside a header or padding one cut is like another: there the walk alone will do.
    const bool walkOnly = cut % 512 > 62 && cut % 512 < 511;
    tar.put_SuppressOutput(walkOnly);
    const int count = untar(tar, archive.substr(0, cut));
    ASSERT_EQ(cut < archive.size() - 512 ? -1 : 3, count) << logOf(tar);
    ASSERT_EQ(count < 0 ? 1 : 0, countInLog(tar, "Failed to ")) << logOf(tar);
    if (walkOnly) continue;
    std::map<std::string, std::string> tree = treeOf(out);
    tree.erase("d");
    for (const auto& [end, file] : wholeFrom) {
      if (cut < end) continue;
      ASSERT_EQ(file.second, tree[file.first]);
      tree.erase(file.first);
    }
    ASSERT_LE(tree.size(), 1u);  // the one that was being written
    ASSERT_TRUE(tree.empty() || logHas(tar, "Failed to extract to file.")) << logOf(tar);
  }
}

TEST(Untar, EveryFlippedBitOfAHeaderIsSeen) {
  const std::string archive = paxHeader("path", "p") + member("m") + kEnd;
  ClsTar tar;
  tar.put_SuppressOutput(true);
  for (size_t at = 0; at < 1536; at += at == 511 ? 513 : 1) {  // not the record's data
    for (int bit = 0; bit < 8; ++bit) {
      std::string flipped = archive;
      flipped[at] = static_cast<char>(flipped[at] ^ 1 << bit);
      const int count = untar(tar, flipped);
      // What stands around the checksum's digits may be anything.
      const bool inChecksum = at % 512 >= 148 && at % 512 < 156;
      ASSERT_TRUE(count == -1 || (inChecksum && count == 1)) << at << " bit " << bit;
    }
  }
}

// Sizes that claim more than there is, from sources that can seek and from such that cannot.
TEST(Untar, HostileSizes) {
  for (const std::string& size :
       {"77777777777\0"s, "\x80\0\0\0\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s, "\x80\0\0\0\x80\0\0\0\0\0\0\0"s,
        std::string(12, '\xFF'), "-0000000001\0"s, "0x000000001\0"s}) {
    const bool isNumber = size[0] == '7' || size[4] == '\x7F';
    for (const char typeFlag : {'0', '5', 'x', 'L'}) {
      const bool isRecord = typeFlag == 'x' || typeFlag == 'L';
      for (const std::string options : {"", "FullRead,MaxExtensionBytes=9223372036854775807"}) {
        SCOPED_TRACE(size + typeFlag + options);
        const std::string archive =
            patched(member("m", "", typeFlag), kSizeField, size) + member("next") + kEnd;
        ClsTar tar;
        ScratchDir dir;
        tar.put_UncommonOptions(options.c_str());
        tar.put_UntarFromDir(dir / "out");
        EXPECT_EQ(-1, untar(tar, archive));
        TricklingSource source(archive, 4096);
        EXPECT_FALSE(tar.VerifyTar(source));
        EXPECT_EQ("", missingLine(tar, {!isNumber         ? "Failed to parse header from data source (2)"
                                        : !isRecord       ? "The archive ends without an end-of-archive mark."
                                        : options != ""   ? "Failed to read extension data."
                                        : typeFlag == 'x' ? "Invalid size in PAX extended header."
                                                          : "Invalid size in long filename header."}));
      }
    }
  }
}

// ---- Records

TEST(Untar, RecordSizesAndShortData) {
  for (const char typeFlag : {'x', 'L'}) {
    const std::string what = typeFlag == 'x' ? "PAX extended header." : "long filename header.";
    const auto with = [&](size_t size) { return member("r", std::string(size, typeFlag), typeFlag); };
    ClsTar tar;
    tar.put_SuppressOutput(true);
    for (const size_t size : {1u, 512u, 100000u}) {
      EXPECT_EQ(1, untar(tar, with(size) + member("m") + kEnd)) << logOf(tar);
      EXPECT_EQ(0, untar(tar, with(size) + kEnd));  // a record about nothing
      EXPECT_EQ(-1, untar(tar, with(size)));
      EXPECT_EQ("", missingLine(tar, {"file:", "Failed to parse header from data source (1)"}));
      EXPECT_EQ(-1, untar(tar, with(size).substr(0, 512 + size - 1)));
      EXPECT_EQ("", missingLine(tar, {"file:", "Failed to read " + what}));
    }
    for (const size_t size : {0u, 100001u}) {
      EXPECT_EQ(-1, untar(tar, with(size) + member("m") + kEnd));
      EXPECT_EQ("", missingLine(tar, {"file:", "Invalid size in " + what, "size: " + std::to_string(size)}));
    }
  }
}

TEST(Untar, ChainsOfRecords) {
  const std::string a = paxHeader("path", "a"), other = paxHeader("uname", "u");
  const std::pair<std::string, std::string> kCases[] = {
      {a + paxHeader("path", "b") + member("m") + member("n"), "b file , n file "},
      {a + other + member("m"), "a file "},
      {a + longName("b") + member("m"), "b file "},
      {longName("a") + other + member("m"), "m file "},  // the pax record, which is the last, gave no path
      {longName("a\0b"s) + member("m"), "a file "},
      {member("x", "11 path=a\n\0 11 path=b\n"s, 'x') + member("m"), "a file "},
      {paxHeader("path", "d") + directory("m/"), "d dir"},
      {paxHeader("path", "a/") + member("m"), "failed"},  // no directory: the block decides
  };
  for (const auto& [archive, tree] : kCases) EXPECT_EQ(tree, extracted(archive));
}

// ---- Limits, names, events

TEST(Untar, CountsAndLimits) {
  const std::string archive = directory("d/") + member("d/skip") + member("d/a") + member("b") + kEnd;
  for (const auto& [limit, count] : {std::pair(0, 3), {1, 1}, {3, 3}, {4, 3}, {-100, 1}}) {
    ScratchDir dir;
    ClsTar tar;
    tar.put_UntarFromDir(dir / "out");
    tar.put_UntarMaxCount(limit);
    tar.put_MustNotMatch("*skip");
    EXPECT_EQ(count, untar(tar, archive));
    EXPECT_EQ(static_cast<size_t>(count), treeOf(dir / "out").size());
    const Lines reached = {"Reached untar maximum count", "UntarMaxCount: " + std::to_string(limit)};
    EXPECT_EQ(limit != 0 && limit <= 3, missingLine(tar, reached).empty());
    tar.put_SuppressOutput(true);
    tar.put_UntarFromDir(dir / "none");
    EXPECT_EQ(3, untar(tar, archive));  // no limit here
    EXPECT_FALSE(exists(dir / "none"));
  }
  ClsTar tar;
  tar.put_UntarMaxCount(1);
  EXPECT_EQ("b file ", extracted(member("b") + "what follows is never looked at", tar));
}

TEST(Untar, Events) {
  const std::string archive = member("d\\", "data", '5') + longName("longname") + member("/x", "data") +
                              member("no") + member("l", "", '2') + kEnd;
  const Lines headers = {"5 d\\ 4 0", "0 longname 4 2048", "0 no 0 3072", "2 l 0 3584"};
  ScratchDir dir;
  ClsTar tar;
  tar.put_UntarFromDir(dir / "out");
  tar.put_MustNotMatch("no");
  RecordingEvent event, verifying;
  event.skipEntry = dir / "out/l";
  EXPECT_EQ(2, untar(tar, archive, &event));
  EXPECT_EQ(headers, event.headers);
  EXPECT_EQ((Lines{dir / "out/d/ dir", dir / "out/longname 4", dir / "out/l 0"}), event.entries);
  EXPECT_TRUE(event.percents.empty());  // there is no total in memory
  EXPECT_EQ(2u, treeOf(dir / "out").size());
  writeFile(dir / "a.tar", archive);
  EXPECT_TRUE(tar.VerifyTar(dir / "a.tar", &verifying));
  EXPECT_EQ(headers, verifying.headers);
  EXPECT_TRUE(verifying.entries.empty());
  EXPECT_EQ(100, verifying.percents.back());
}

TEST(Untar, AbortAtEveryQuestion) {
  ScratchDir dir;
  writeFile(dir / "a.tar", member("a") + longName("name") + member("b", noise(900, 1)) + kEnd);
  ClsTar tar;
  tar.put_UntarFromDir(dir / "out");
  tar.put_AbortCheckMs(1000000000);
  for (int n = 1; n <= 6; ++n) {  // one question a header, the end's included
    RecordingEvent event;
    event.abortAtQuestion = n;
    EXPECT_EQ(n <= 4 ? -1 : 2, tar.Untar(dir / "a.tar", &event));
    EXPECT_EQ(n <= 4, missingLine(tar, {"file:", "Untar aborted by application. (1)", "Failure."}).empty());
    EXPECT_EQ(std::min(n, 4), event.questions);
  }
  RecordingEvent event, unasked;
  event.abortAtPercent = 25;
  EXPECT_EQ(-1, tar.Untar(dir / "a.tar", &event));
  tar.put_AbortCheckMs(0);
  EXPECT_EQ(2, tar.Untar(dir / "a.tar", &unasked));
  EXPECT_EQ(0, unasked.questions);
}

// ---- Sources

TEST(Untar, MembersOverEightGiB) {
  constexpr long long kSize = (9LL << 30) + 1;
  const std::string huge = ArchiveBuilder().add({"huge", "", '0', "", "", false, 0, kSize}).bytes(0);
  GapSource verified(huge, paddedSize(kSize), member("next") + kEnd), copied(huge, kSize, "");
  ClsTar tar;
  RecordingEvent event;
  EXPECT_TRUE(tar.VerifyTar(verified, &event)) << logOf(tar);
  EXPECT_EQ((Lines{"0 huge 9663676417 0", "0 next 0 9663677440"}), event.headers);
  CountingOutput out;
  EXPECT_TRUE(tar._untarFirstMatchingToOutput(copied, "huge", out, tar.log(), false, nullptr));
  EXPECT_EQ(kSize, out.count);
}

// ---- Times and messages

TEST(Untar, Times) {
  const auto timesOf = [](const std::string& records, const std::string& mtime, size_t present = 2000) {
    ScratchDir dir;
    ClsTar tar;
    tar.put_UntarFromDir(dir.path());
    untar(tar, records + (patched(member("m", "data"), kMtimeField, mtime) + kEnd).substr(0, present));
    struct stat status = {};
    stat((dir / "m").c_str(), &status);
    return std::to_string(status.st_mtim.tv_sec) + " " + std::to_string(status.st_atim.tv_sec);
  };
  EXPECT_EQ("0 0", timesOf("", "00000000000\0"s));
  EXPECT_EQ("4294967295 4294967295", timesOf("", "777777777777"s));
  EXPECT_EQ("0 0", timesOf("", std::string(12, '\xFF')));
  EXPECT_EQ("8 8", timesOf(paxHeader("mtime", "5"), "00000000010\0"s));  // the block's time wins
  EXPECT_EQ("8 5", timesOf(paxHeader("atime", "5.9"), "00000000010\0"s));
  EXPECT_EQ("8 8", timesOf(paxHeader("atime", "0"), "00000000010\0"s));
  EXPECT_EQ("8 8", timesOf("", "00000000010\0"s, 514));  // of a file that could not be finished too
}

}  // namespace
}  // namespace morvane::testing
