// Which members are taken, and under which path: path rules, filters and the words that steer them.
#include <array>

#include "ArchiveSupport.h"
#include "tar/format/EntryPath.h"
#include "tar/settings/NameFilter.h"
#include "tar/settings/TarOptions.h"

namespace morvane::testing {
namespace {

TEST(EntryPath, Rules) {
  // Stored, and as extracted: by default, without NoAbsolutePaths, with UntarDiscardPaths.
  const std::array<const char*, 4> kCases[] = {
      {"//etc/x", "etc/x", "//etc/x", "x"},    {"\\\\x\\y", "x/y", "//x/y", "y"}, {"///", "", "///", ""},
      {"../a/..", "../a/..", "../a/..", ".."}, {"./d/", "./d/", "./d/", ""},      {"", "", "", ""}};
  for (const auto& [path, byDefault, absolute, discarded] : kCases) {
    const auto apply = [stored = path](bool discardPaths, bool noAbsolutePaths) {
      std::string text(leftOfEntryPath(stored, discardPaths, noAbsolutePaths));
      std::replace(text.begin(), text.end(), '\\', '/');
      return text;
    };
    EXPECT_EQ(byDefault, apply(false, true));
    EXPECT_EQ(absolute, apply(false, false));
    EXPECT_EQ(discarded, apply(true, true));
    EXPECT_EQ(discarded, apply(true, false));
  }
}

TEST(NameFilter, EveryRule) {
  enum { kNoCase, kCase, kUnprepared };  // the last: no writing method has looked at the patterns yet
  const struct {
    const char *mustMatch, *mustNotMatch;
    int how;
    std::vector<const char*> taken, excluded;
  } kCases[] = {
      {"", "", kNoCase, {"any/thing", ""}, {}},
      {"*.txt", "", kNoCase, {"a/b.TXT", ".txt"}, {"a/b.dat", "a.txt/b", ""}},
      {"*.txt", "", kCase, {"a/b.txt"}, {"a/b.TXT"}},
      // A plain name may be the last part; there case counts the other way round.
      {"name", "", kNoCase, {"name", "NAME", "d/name"}, {"d/NAME", "d/name2", "d/name/x", "d/xname", ""}},
      {"name", "", kCase, {"name", "d/name", "d/NAME"}, {"NAME", "d/name2"}},
      {"name", "", kUnprepared, {"NAME"}, {"d/name"}},
      {"d/name", "", kNoCase, {"d/name"}, {"x/d/name", "name"}},
      {"d\\name", "", kNoCase, {"d\\name"}, {"x/d\\name"}},
      // A plain name to leave out is never met inside a directory.
      {"", "name", kNoCase, {"d/name", "name2"}, {"name", "NAME"}},
      {"", "name", kCase, {"d/name", "NAME"}, {"name"}},
      {"", "*/name", kNoCase, {"name"}, {"d/name"}},
      {"*.txt", "a*", kNoCase, {"b.txt"}, {"a.txt", "b.dat", "a.dat"}},
      {"", "*", kNoCase, {}, {"", "a/b"}}};
  for (const auto& each : kCases) {
    ClsTar tar;
    tar.put_MustMatch(each.mustMatch);
    tar.put_MustNotMatch(each.mustNotMatch);
    tar.put_MatchCaseSensitive(each.how == kCase);
    if (each.how != kUnprepared) tar.setMatchPatternExactFlags();
    SCOPED_TRACE(std::string(each.mustMatch) + " ! " + each.mustNotMatch);
    for (const char* path : each.taken) EXPECT_FALSE(tar.excludeByMatch(path, tar.log())) << path;
    for (const char* path : each.excluded) EXPECT_TRUE(tar.excludeByMatch(path, tar.log())) << path;
  }
}

TEST(TarOptions, Words) {
  const auto shownOptions = [](const std::string& words) {
    std::vector<std::string> complaints;
    const TarOptions options = parseTarOptions(words, complaints);
    const auto number = [](auto value) { return std::to_string(value); };
    std::string text;
    if (options.fullRead) text += "FullRead ";
    if (options.noTotal) text += "NoTotal ";
    if (options.ustarOverflowFails) text += "fail ";
    if (options.confine == Confine::Beneath) text += "beneath ";
    if (options.confine == Confine::NoLinks) text += "nolinks ";
    if (options.maxExtensionBytes != 67108864) text += number(options.maxExtensionBytes) + " ";
    if (options.codec.fastDeflate != 0) text += "deflate" + number(options.codec.fastDeflate) + " ";
    for (const long long limit :
         {options.maxMembers, options.maxTotalBytes, options.maxRatio, options.maxPathDepth})
      text += limit > 0 ? number(limit) + "/" : "";
    for (const std::string& word : complaints) text += "?" + word + " ";
    return text;
  };
  for (const std::string line :
       {" -> ", ",, , -> ", "UstarOverflow=fail -> fail ",
        " fULLrEAD ,confine = BENEATH, -> FullRead beneath ", "FullRead,NoTotal=on,FullRead=off -> NoTotal ",
        "FullRead,FullRead=yes -> FullRead ?FullRead=yes ", "FullRead=,Confine -> ?FullRead= ?Confine ",
        "Confine=nolinks,Confine=x -> nolinks ?Confine=x ", "Confine=nolinks,Confine=off -> ",
        "MaxExtensionBytes=5,Bogus,=x -> 5 ?Bogus ?=x ",
        "MaxExtensionBytes=0,MaxExtensionBytes=-1 -> ?MaxExtensionBytes=0 ?MaxExtensionBytes=-1 ",
        "MaxExtensionBytes=5x,MaxExtensionBytes -> ?MaxExtensionBytes=5x ?MaxExtensionBytes ",
        "UstarOverflow,UstarOverflow=on,UstarOverflow=off -> ?UstarOverflow ?UstarOverflow=on ",
        "FastDeflate=3,FastDeflate=4 -> deflate3 ?FastDeflate=4 ",
        "FullRead=off,Profile=usual,Confine=off -> FullRead fail ?FullRead=off ",
        "Profile=usual -> FullRead fail beneath ",
        "Profile=untrusted,MaxRatio=5 -> FullRead fail nolinks 1000000/68719476736/5/256/",
        "Profile=usual,Profile=off,Profile,Profile=x -> ?Profile ?Profile=x ",
        "MaxMembers=0,MaxMembers=x -> ?MaxMembers=x "}) {
    const std::string given = line.substr(0, line.find(" -> "));
    EXPECT_EQ(line, given + " -> " + shownOptions(given));
  }
}

}  // namespace
}  // namespace morvane::testing
