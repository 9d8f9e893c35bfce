// Text: which bytes are kept, and how text is compared, matched, converted, cut and replaced.
#include <cwctype>
#include <random>
#include <set>

#include "TestSupport.h"
#include "runtime/base/ByteArrayOwner.h"
#include "runtime/text/CharsetDecoder.h"
#include "runtime/text/SmallStrings.h"
#include "runtime/text/Utf8.h"

namespace morvane::testing {
namespace {

std::vector<size_t> boundariesOf(const std::string& text) {
  std::vector<size_t> boundaries{0};
  for (size_t at = 0; at < text.size(); boundaries.push_back(at)) nextUtf8(text, at);
  return boundaries;
}

TEST(Utf8, EveryCharacterComesBackAndSurrogatesAreThreeBytes) {
  for (char32_t character = 0; character < kInvalidByte; ++character) {
    std::string text;
    appendUtf8Char(character, text);
    const unsigned length = character < 0x80 ? 1 : character < 0x800 ? 2 : character < 0x10000 ? 3 : 4;
    ASSERT_EQ(length, text.size()) << std::hex << unsigned(character);
    const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
    size_t at = 0;
    const char32_t first = nextUtf8(text, at);
    ASSERT_EQ(surrogate ? kInvalidByte + 0xED : character, first);
    ASSERT_EQ(surrogate ? 1 : length, at);
  }
}

TEST(Utf8, InvalidBytesAreCharactersOfTheirOwn) {
  const std::pair<std::string, size_t> kCases[] = {
      {"\x80", 1},
      {"\xC3", 1},
      {"\xC3\xA4", 1},
      {"\xC0\x80", 2},          // overlong
      {"\xC1\xBF", 2},          // overlong
      {"\xE0\x9F\xBF", 3},      // overlong
      {"\xF0\x8F\xBF\xBF", 4},  // overlong
      {"\xF4\x90\x80\x80", 4},  // past U+10FFFF
      {"\xF5\x80\x80\x80", 4},
      {"\xE2\x82", 2},      // cut
      {"\xE2\x82\x31", 3},  // cut by another character
      {"\xF0\x9F\x98", 3},  // cut
      {"\xFF\xFE", 2},
      {std::string("a\0b", 3), 3},
  };
  for (const auto& [text, characters] : kCases) {
    EXPECT_EQ(characters + 1, boundariesOf(text).size()) << ::testing::PrintToString(text);
    EXPECT_EQ(text, foldCase(text)) << "folding keeps bytes that are no letters";
  }
}

TEST(XString, ShortenDropsWholeCharacters) {
  std::mt19937 random(7);
  const unsigned char kLikely[] = {'a', 0x80, 0xA4, 0xBF, 0xC3, 0xE2, 0xED, 0xF0, 0x9F, 0xFF};
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    for (auto i = random() % 12; i > 0; --i) text.push_back(static_cast<char>(kLikely[random() % 10]));
    const std::vector<size_t> boundaries = boundariesOf(text);
    for (size_t n = 0; n <= boundaries.size(); ++n) {
      XString cut(text);
      cut.shortenNumChars(static_cast<unsigned>(n));
      const size_t left = n < boundaries.size() ? boundaries[boundaries.size() - 1 - n] : 0;
      ASSERT_EQ(text.substr(0, left), cut.str()) << ::testing::PrintToString(text) << " less " << n;
    }
  }
}

TEST(XString, TextOfACharsetIsConverted) {
  const struct {
    const char* charset;
    const char* bytes;
    const char* utf8;
    bool known;
  } kCases[] = {
      {"utf-8", "\xC3\xA4\xFF\xC0\x80", "\xC3\xA4\xFF\xC0\x80", true},
      {"UTF8", "\xED\xA0\x80", "\xED\xA0\x80", true},
      {"", "\xFF", "\xFF", true},
      {"iso-8859-1", "gr\xFC\xDF", "gr\xC3\xBC\xC3\x9F", true},
      {"windows-1252", "\x80\x81\x82", "\xE2\x82\xAC\x81\xE2\x80\x9A", true},
      {"us-ascii", "a\xFCz", "a\xFCz", true},
      {"shift_jis", "\x82\xA0.txt", "\xE3\x81\x82.txt", true},
      {"shift_jis", "\x82", "\x82", true},  // a first byte with no second
      {"iso-2022-jp", "\x1B$B$\"\x1B(B!", "\xE3\x81\x82!", true},
      {"no-such-charset", "\xE4\xC3\xA4", "\xE4\xC3\xA4", false},
  };
  for (const auto& each : kCases) {
    XString text("<");
    EXPECT_EQ(each.known, text.appendFromEncoding(each.bytes, each.charset)) << each.charset;
    EXPECT_EQ(std::string("<") + each.utf8, text.str()) << each.charset;
  }
  // One decoder serves many names, of any length, and each begins afresh.
  CharsetDecoder decoder("iso-8859-1");
  for (const size_t length : {0u, 1u, 255u, 256u, 257u, 511u, 512u, 513u, 5000u}) {
    std::string expected, converted;
    for (size_t i = 0; i < length; ++i) expected += "\xC3\xA9";
    decoder.append(std::string(length, '\xE9'), converted);
    EXPECT_EQ(expected, converted);
  }
}

TEST(XString, DifferentNamesStayDifferentInEveryCharset) {
  for (const char* charset : {"utf-8", "us-ascii", "windows-1252", "koi8-r", "shift_jis", "gbk", "unknown"}) {
    CharsetDecoder decoder(charset);
    std::set<std::string> names;
    for (int first = 1; first < 256; ++first) {
      for (int second = 1; second < 256; ++second) {
        const char bytes[] = {static_cast<char>(first), static_cast<char>(second)};
        std::string name;
        decoder.append(std::string_view(bytes, 2), name);
        EXPECT_TRUE(names.insert(name).second) << charset << " " << first << " " << second;
      }
    }
  }
}

TEST(XString, CaseIsFoldedWithoutTheProcesssLocale) {
  const char* const kSame[][2] = {{"ABC xyz", "abc XYZ"},
                                  {"\xC3\x84\xC3\x96", "\xC3\xA4\xC3\xB6"},   // German
                                  {"\xCE\xA3\xCE\xA9", "\xCF\x83\xCF\x89"},   // Greek
                                  {"\xD0\x96", "\xD0\xB6"},                   // Cyrillic
                                  {"\xF0\x90\x90\x80", "\xF0\x90\x90\xA8"}};  // Deseret, four bytes
  for (const auto& [upper, lower] : kSame) {
    EXPECT_TRUE(XString(upper).equalsIgnoreCaseUtf8(lower)) << upper;
    EXPECT_FALSE(XString(upper).equalsUtf8(lower)) << upper;
    EXPECT_TRUE(XString(upper).matchesUtf8((std::string("*") + lower).c_str(), false)) << upper;
    EXPECT_FALSE(XString(upper).matchesUtf8((std::string("*") + lower).c_str(), true)) << upper;
    EXPECT_TRUE(XString(std::string("x") + upper).endsWithUtf8(lower, true)) << upper;
    EXPECT_FALSE(XString(std::string("x") + upper).endsWithUtf8(lower, false)) << upper;
  }
  EXPECT_FALSE(XString("\xC4").equalsIgnoreCaseUtf8("\xE4")) << "bytes that are no UTF-8 have no case";
  EXPECT_EQ(0xC4u, std::towlower(0xC4)) << "the process's own locale knows no such letter";
}

bool matchesByDefinition(const char* pattern, const char* text) {
  if (*pattern == '\0') return *text == '\0';
  if (*pattern != '*') return *pattern == *text && matchesByDefinition(pattern + 1, text + 1);
  return matchesByDefinition(pattern + 1, text) || (*text && matchesByDefinition(pattern, text + 1));
}

std::vector<std::string> allTexts(const std::string& letters, size_t longest) {
  std::vector<std::string> texts{""};
  for (size_t from = 0; texts.back().size() < longest || texts.size() == 1;) {
    const size_t end = texts.size();
    for (; from < end; ++from) {
      for (const char letter : letters) texts.push_back(texts[from] + letter);
    }
  }
  return texts;
}

TEST(Wildcard, AgreesWithItsDefinition) {
  const std::vector<std::string> texts = allTexts("a/", 6);
  for (const std::string& pattern : allTexts("a/*", 6)) {
    for (const std::string& text : texts) {
      ASSERT_EQ(matchesByDefinition(pattern.c_str(), text.c_str()),
                XString(text).matchesUtf8(pattern.c_str(), true))
          << pattern << " on " << text;
    }
  }
}

TEST(Wildcard, OnlyTheStarIsSpecial) {
  for (const char* literal : {"?", "[ab]", "\\*", "a.c", "{a,b}", "^a$"}) {
    EXPECT_TRUE(XString("x" + std::string(literal) + "y")
                    .matchesUtf8(("x" + std::string(literal) + "*").c_str(), true));
  }
  EXPECT_FALSE(XString("a").matchesUtf8("?", false));
  EXPECT_FALSE(XString("a").matchesUtf8("[a]", false));
}

TEST(Wildcard, ManyStarsCostNoMoreThanOne) {
  const std::string text(100'000, 'a');
  std::string stars, near;
  for (int i = 0; i < 1000; ++i) stars += "*a", near += "*aaaaaaaab";
  for (const bool caseSensitive : {true, false}) {
    const XString a100000(text);
    EXPECT_TRUE(a100000.matchesUtf8(std::string(1000, '*').c_str(), caseSensitive));
    EXPECT_TRUE(a100000.matchesUtf8(stars.c_str(), caseSensitive));
    EXPECT_TRUE(a100000.matchesUtf8((stars + "*").c_str(), caseSensitive));
    EXPECT_FALSE(a100000.matchesUtf8((stars + "*b").c_str(), caseSensitive));
    EXPECT_FALSE(a100000.matchesUtf8((stars + "*b*").c_str(), caseSensitive));
    EXPECT_FALSE(a100000.matchesUtf8(near.c_str(), caseSensitive));
    // A long piece that nearly matches at every place.
    const std::string piece = "*" + std::string(50'000, 'a') + "b*";
    EXPECT_FALSE(a100000.matchesUtf8(piece.c_str(), caseSensitive));
  }
}

TEST(XString, IsEditedInPlace) {
  XString text("b");
  text.prependUtf8("a");
  text.appendUtf8("c");
  text.appendUtf8N("d\0e", 3);
  EXPECT_EQ(std::string("abcd\0e", 6), text.str());
  EXPECT_EQ(6u, text.getSizeUtf8());
  text.setFromUtf8(nullptr);
  EXPECT_TRUE(text.isEmpty());
  text.appendAnsi("\xC3\xA4\xFF");
  EXPECT_EQ("\xC3\xA4\xFF", text.str()) << "in the C locale bytes are kept";
  const struct {
    const char *text, *from, *to;
    bool ignoreCase;
    const char* result;
    int count;
  } kReplace[] = {
      {"a\\b\\c", "\\", "/", false, "a/b/c", 2}, {"aaa", "aa", "b", false, "ba", 1},
      {"aXbxc", "x", "", false, "aXbc", 1},      {"aXbxc", "x", "--", true, "a--b--c", 2},
      {"abc", "", "x", false, "abc", 0},         {"abc", "abcd", "x", false, "abc", 0},
      {"aaaa", "a", "aa", false, "aaaaaaaa", 4},
  };
  for (const auto& each : kReplace) {
    XString changed(each.text);
    EXPECT_EQ(each.count, changed.replaceAllOccurancesUtf8(each.from, each.to, each.ignoreCase));
    EXPECT_EQ(each.result, changed.str());
    if (each.ignoreCase) continue;
    StringBuffer same(each.text);
    EXPECT_EQ(each.count, same.replaceAllOccurances(each.from, each.to));
    EXPECT_STREQ(each.result, same.getString());
  }
}

TEST(StringBuffer, IsBuiltTrimmedAndCut) {
  StringBuffer text;
  EXPECT_TRUE(text.append("n=") && text.append(-5) && text.appendChar(' ') && text.append(4294967295u) &&
              text.appendCharN('.', 3) && text.appendInt64(-9223372036854775807LL - 1));
  EXPECT_STREQ("n=-5 4294967295...-9223372036854775808", text.getString());
  EXPECT_TRUE(text.beginsWith("n=-5") && !text.beginsWith("=") && text.beginsWith(""));
  EXPECT_GE(text.heapUsage(), text.getSize());
  EXPECT_EQ(0u, MorvaneObject().heapUsage());

  const char* const kTrim[][2] = {{" \t\r\n a b \v\f", "a b"}, {"   ", ""}, {"", ""}, {"a", "a"}};
  for (const auto& [given, trimmed] : kTrim) {
    StringBuffer changed(given);
    changed.trim2();
    EXPECT_STREQ(trimmed, changed.getString());
  }
  const char* const kStrip[][2] = {{"a/b/c", "c"}, {"a\\b", "b"}, {"a/", ""}, {"a", "a"}, {"/a\\b/c", "c"}};
  for (const auto& [given, stripped] : kStrip) {
    StringBuffer changed(given);
    changed.stripDirectory();
    EXPECT_STREQ(stripped, changed.getString());
  }
  StringBuffer first("xAbab");
  EXPECT_FALSE(first.replaceFirstOccurance("B", "1", false));
  EXPECT_TRUE(first.replaceFirstOccurance("B", "1", true));
  EXPECT_STREQ("xA1ab", first.getString());
  EXPECT_TRUE(first.replaceFirstOccurance("a", "", false));
  EXPECT_STREQ("xA1b", first.getString());
  EXPECT_FALSE(first.replaceFirstOccurance("", "x", true));
}

TEST(StringBuffer, SplitsAtASeparator) {
  const struct {
    const char* text;
    bool skipEmpty, trimParts;
    std::vector<std::string> parts;
  } kCases[] = {
      {"", false, false, {}},
      {"a", false, false, {"a"}},
      {"a,b", false, false, {"a", "b"}},
      {",a,,b,", false, false, {"", "a", "", "b", ""}},
      {",a,,b,", true, false, {"a", "b"}},
      {" a , , b", false, true, {"a", "", "b"}},
      {" a , , b", true, true, {"a", "b"}},
      {" a , , b", true, false, {" a ", " ", " b"}},
      {",", true, true, {}},
  };
  for (const auto& each : kCases) {
    ExtPtrArraySb parts;
    EXPECT_TRUE(StringBuffer(each.text).split(parts, ',', each.skipEmpty, each.trimParts));
    std::vector<std::string> found;
    for (int i = 0; i < parts.getSize(); ++i) found.push_back(parts.sbAt(i)->str());
    EXPECT_EQ(each.parts, found) << each.text;
    EXPECT_EQ(nullptr, parts.sbAt(parts.getSize()));
    EXPECT_EQ(nullptr, parts.sbAt(-1));
  }
}

TEST(SmallStrings, NumbersAndCopies) {
  const struct {
    const char* text;
    unsigned value;
    bool overflowed;
  } kUnsigned[] = {{"", 0, false},
                   {"0", 0, false},
                   {"007x8", 7, false},
                   {"-1", 0, false},
                   {" 1", 0, false},
                   {"4294967295", 4294967295u, false},
                   {"4294967296", 4294967295u, true},
                   {"99999999999999999999", 4294967295u, true}};
  for (const auto& each : kUnsigned) {
    bool overflowed = false;
    EXPECT_EQ(each.value, mvUIntValue(each.text, &overflowed)) << each.text;
    EXPECT_EQ(each.overflowed, overflowed) << each.text;
  }
  for (unsigned value : {0u, 1u, 7u, 8u, 0777u, 07777777u, 010000000u, 0xFFFFFFFFu}) {
    char digits[9], expected[32];
    std::snprintf(expected, sizeof expected, "%07o", value & 07777777);
    mv_0o(value, 7, digits);
    EXPECT_STREQ(expected, digits) << "the low digits";
  }
  const struct {
    long long value;
    int radix;
    const char* text;
  } kText[] = {
      {0, 8, "0"},
      {8589934591, 8, "77777777777"},
      {8589934592, 8, "100000000000"},
      {-1, 10, "-1"},
      {-9223372036854775807LL - 1, 10, "-9223372036854775808"},
      {-1, 8, "1777777777777777777777"},
      {-1, 16, "ffffffffffffffff"},
      {10, 2, "1010"},
      {-9223372036854775807LL - 1, 2, "1000000000000000000000000000000000000000000000000000000000000000"}};
  for (const auto& each : kText) {
    char buffer[66];
    EXPECT_STREQ(each.text, mv64::itoa(each.value, buffer, each.radix));
  }
  char field[6] = {'#', '#', '#', '#', '#', '\0'};
  EXPECT_STREQ("ab", mvStrNCpy(field, "ab", 4));
  EXPECT_EQ(std::string("ab\0\0#", 5), std::string(field, 5));
  EXPECT_STREQ("abcd#", mvStrNCpy(field, "abcdef", 4));
  EXPECT_STREQ("b/c", mvStrChr("a/b/c", '/') + 1);
  EXPECT_STREQ("c", mvStrrChr("a/b/c", '/') + 1);
  EXPECT_TRUE(mvStrCmp("a", "b") < 0 && mvStrCmp("b", "a") > 0 && mvStrCmp("a", "a") == 0);
  ByteArrayOwner owner(mvNewChar(6));
  EXPECT_STREQ("hello", mvStrCpy(owner.get(), "hello"));
  owner.own(mvNewChar(1));
}

}  // namespace
}  // namespace morvane::testing
