// Text: which bytes are kept, and how text is compared, matched, converted, cut and replaced.
#include <cstdlib>
#include <cwctype>
#include <random>
#include <set>

#include "TestSupport.h"
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

TEST(Utf8, EveryCharacterComesBackAndInvalidBytesStandAlone) {
  for (char32_t character = 0; character < kInvalidByte; ++character) {
    const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
    std::string text;
    size_t at = 0;
    appendUtf8Char(character, text);
    ASSERT_EQ(character < 0x80 ? 1u : character < 0x800 ? 2u : character < 0x10000 ? 3u : 4u, text.size());
    ASSERT_EQ(surrogate ? kInvalidByte + 0xED : character, nextUtf8(text, at));
    ASSERT_EQ(surrogate ? 1 : text.size(), at);
  }
  // Stray and cut sequences, overlong forms, characters past U+10FFFF; how many characters they count as.
  const char* const kInvalid[][2] = {{"\x80", "1"},
                                     {"\xC3", "1"},
                                     {"\xC3\xA4", "1"},
                                     {"\xFF\xFE", "2"},
                                     {"\xE2\x82", "2"},
                                     {"\xE2\x82\x31", "3"},
                                     {"\xF0\x9F\x98", "3"},
                                     {"\xC0\x80", "2"},
                                     {"\xE0\x9F\xBF", "3"},
                                     {"\xF0\x8F\xBF\xBF", "4"},
                                     {"\xF4\x90\x80\x80", "4"},
                                     {"\xF5\x80\x80\x80", "4"}};
  for (const auto& [text, characters] : kInvalid) {
    EXPECT_EQ(characters, std::to_string(boundariesOf(text).size() - 1));
    EXPECT_EQ(text, foldCase(text)) << "folding keeps what is no letter";
  }
}

TEST(XString, ShortenDropsWholeCharacters) {
  std::mt19937 random(7);
  const std::string likely = "a\x80\xA4\xBF\xC3\xE2\xED\xF0\x9F\xFF";
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    for (auto i = random() % 12; i > 0; --i) text.push_back(likely[random() % 10]);
    const std::vector<size_t> boundaries = boundariesOf(text);
    for (size_t n = 0; n <= boundaries.size(); ++n) {
      XString cut(text);
      cut.shortenNumChars(static_cast<unsigned>(n));
      const size_t left = n < boundaries.size() ? boundaries[boundaries.size() - 1 - n] : 0;
      ASSERT_EQ(text.substr(0, left), cut.str()) << text << " less " << n;
    }
  }
}

TEST(XString, TextOfACharsetIsConverted) {
  const char* const kCases[][3] = {{"utf-8", "\xC3\xA4\xFF\xC0\x80", "\xC3\xA4\xFF\xC0\x80"},
                                   {"UTF8", "\xED\xA0\x80", "\xED\xA0\x80"},
                                   {"", "\xFF", "\xFF"},
                                   {"iso-8859-1", "gr\xFC\xDF", "gr\xC3\xBC\xC3\x9F"},
                                   {"windows-1252", "\x80\x81\x82", "\xE2\x82\xAC\x81\xE2\x80\x9A"},
                                   {"shift_jis", "\x82\xA0.txt\x82", "\xE3\x81\x82.txt\x82"},
                                   {"iso-2022-jp", "\x1B$B$\"\x1B(B!", "\xE3\x81\x82!"},
                                   {"no-such-charset", "\xE4\xC3\xA4", "\xE4\xC3\xA4"}};
  for (const auto& [charset, bytes, utf8] : kCases) {
    XString text("<");
    EXPECT_EQ(*charset != 'n', text.appendFromEncoding(bytes, charset)) << charset;
    EXPECT_EQ(std::string("<") + utf8, text.str()) << charset;
  }
  CharsetDecoder decoder("iso-8859-1");  // one decoder for many names, of any length
  for (size_t length = 0; length < 1100; length += 51) {
    std::string expected, converted;
    for (size_t i = 0; i < length; ++i) expected += "\xC3\xA9";
    decoder.append(std::string(length, '\xE9'), converted);
    EXPECT_EQ(expected, converted);
  }
}

TEST(XString, DifferentNamesStayDifferent) {
  for (const char* charset : {"utf-8", "us-ascii", "windows-1252", "koi8-r", "shift_jis", "gbk", "unknown"}) {
    CharsetDecoder decoder(charset);
    std::set<std::string> names;
    for (int pair = 0; pair < 0x10000; ++pair) {
      const char bytes[] = {static_cast<char>(pair >> 8), static_cast<char>(pair & 0xFF)};
      std::string name;
      decoder.append(std::string_view(bytes, 2), name);
      EXPECT_TRUE(names.insert(name).second) << charset << " " << pair;
    }
  }
}

TEST(XString, CaseIsFoldedWithoutTheProcesssLocale) {
  const char* const kSame[][2] = {{"ABC XYz", "abc xyZ"},
                                  {"\xC3\x84\xC3\x96", "\xC3\xA4\xC3\xB6"},       // German
                                  {"\xCE\xA3\xCE\xA9", "\xCF\x83\xCF\x89"},       // Greek
                                  {"xy\xF0\x90\x90\x80", "xy\xF0\x90\x90\xA8"}};  // Deseret, four bytes
  for (const auto& [upper, lower] : kSame) {
    const XString text(upper);
    EXPECT_TRUE(text.equalsIgnoreCaseUtf8(lower) && !text.equalsUtf8(lower)) << upper;
    EXPECT_TRUE(text.matchesUtf8(lower, false) && !text.matchesUtf8(lower, true)) << upper;
    EXPECT_TRUE(text.endsWithUtf8(lower + 2, true) && !text.endsWithUtf8(lower + 2, false)) << upper;
  }
  EXPECT_FALSE(XString("\xC4").equalsIgnoreCaseUtf8("\xE4")) << "bytes that are no UTF-8 have no case";
  EXPECT_EQ(0xC4u, std::towlower(0xC4)) << "the process's own locale knows no such letter";
}

bool matchesByDefinition(const char* pattern, const char* text) {
  if (*pattern == '\0') return *text == '\0';
  if (*pattern != '*') return *pattern == *text && matchesByDefinition(pattern + 1, text + 1);
  return matchesByDefinition(pattern + 1, text) || (*text && matchesByDefinition(pattern, text + 1));
}

// Every text of the letters up to five of them.
std::vector<std::string> allTexts(const std::string& letters) {
  std::vector<std::string> texts{""};
  for (size_t i = 0; i < texts.size() && texts[i].size() < 5; ++i) {
    for (const char letter : letters) texts.push_back(texts[i] + letter);
  }
  return texts;
}

TEST(Wildcard, OnlyTheStarIsSpecial) {
  const std::vector<std::string> texts = allTexts("a/?");
  for (const std::string& pattern : allTexts("a/*?")) {
    for (const std::string& text : texts) {
      const bool matches = XString(text).matchesUtf8(pattern.c_str(), true);
      ASSERT_EQ(matchesByDefinition(pattern.c_str(), text.c_str()), matches) << pattern << " on " << text;
    }
  }
  EXPECT_TRUE(XString("[a]\\^$.{b,c}+").matchesUtf8("[a]\\^$.{b,c}*", false));
  EXPECT_FALSE(XString("a").matchesUtf8("[a]", false));
}

TEST(Wildcard, ManyStarsCostNoMoreThanOne) {
  const XString text(std::string(100'000, 'a'));
  std::string stars, near;
  for (int i = 0; i < 1000; ++i) stars += "*a", near += "*aaaaaaaab";
  const std::string nearlyEverywhere = "*" + std::string(50'000, 'a') + "b*";
  for (const bool caseSensitive : {true, false}) {
    for (const std::string& pattern : {std::string(1000, '*'), stars, stars + "*"}) {
      EXPECT_TRUE(text.matchesUtf8(pattern.c_str(), caseSensitive));
    }
    for (const std::string& pattern : {stars + "*b", stars + "*b*", near, nearlyEverywhere}) {
      EXPECT_FALSE(text.matchesUtf8(pattern.c_str(), caseSensitive));
    }
  }
}

TEST(Strings, AreEdited) {
  XString text("b");
  text.prependUtf8("a");
  text.appendUtf8N("c\0d", 3);
  text.appendAnsi("\xC3\xA4\xFF");  // in the C locale bytes are kept
  EXPECT_EQ(std::string("abc\0d\xC3\xA4\xFF", 8), text.str());
  // Text, what is replaced (an upper-case letter: in either case) by what, the result.
  const char* const kReplaced[][4] = {{"a\\b\\c", "\\", "/", "a/b/c"}, {"aaa", "aa", "b", "ba"},
                                      {"aXbxc", "x", "", "aXbc"},      {"aXbxc", "X", "--", "a--b--c"},
                                      {"abc", "", "x", "abc"},         {"abc", "abcd", "x", "abc"},
                                      {"aaaa", "a", "aa", "aaaaaaaa"}, {"", "a", "b", ""}};
  for (const auto& [given, from, to, result] : kReplaced) {
    XString changed(given);
    StringBuffer same(given);
    changed.replaceAllOccurancesUtf8(from, to, *from == 'X');
    EXPECT_STREQ(result, changed.getUtf8());
    while (*from == 'X' && same.replaceFirstOccurance(from, to, true)) continue;
    same.replaceAllOccurances(from, to);
    EXPECT_STREQ(result, same.getString());
  }
  StringBuffer built;
  EXPECT_TRUE(built.append("\t n=") && built.append(-5) && built.appendChar(' ') &&
              built.append(4294967295u) && built.appendCharN('/', 3) &&
              built.appendInt64(-9223372036854775807LL - 1) && built.append("A\v "));
  EXPECT_GE(built.heapUsage(), built.getSize());
  built.trim2();
  EXPECT_STREQ("n=-5 4294967295///-9223372036854775808A", built.getString());
  EXPECT_TRUE(built.beginsWith("n=") && !built.beginsWith("=") &&
              !built.replaceFirstOccurance("a", "", false));
  built.stripDirectory();
  built.toLowerCase();
  EXPECT_STREQ("-9223372036854775808a", built.getString());
  // Skip empty parts, trim parts; then the parts, each behind a "|".
  const char* const kSplit[][4] = {{"", "", "", ""},
                                   {"", "", "a", "|a"},
                                   {"", "", ",a,,b,", "||a||b|"},
                                   {"y", "", ",a,,b,", "|a|b"},
                                   {"", "y", " a , , b", "|a||b"},
                                   {"y", "y", " a , , b", "|a|b"},
                                   {"y", "", " a , ,b", "| a | |b"}};
  for (const auto& [skip, trim, given, result] : kSplit) {
    ExtPtrArraySb parts;
    EXPECT_TRUE(StringBuffer(given).split(parts, ',', *skip, *trim));
    std::string found;
    for (int i = 0; i < parts.getSize(); ++i) found += "|" + parts.sbAt(i)->str();
    EXPECT_EQ(result, found);
  }
}

TEST(Strings, NumbersAsText) {
  const std::pair<const char*, unsigned> kUnsigned[] = {{"", 0},
                                                        {"007x8", 7},
                                                        {"-1", 0},
                                                        {" 1", 0},
                                                        {"4294967295", 4294967295u},
                                                        {"4294967296", 4294967295u},
                                                        {"99999999999999999999", 4294967295u}};
  for (const auto& [text, value] : kUnsigned) {
    bool overflowed = false;
    EXPECT_EQ(value, mvUIntValue(text, &overflowed)) << text;
    EXPECT_EQ(std::strtoll(text, nullptr, 10) > 4294967295LL, overflowed) << text;
  }
  const long long kMost = 0x7FFFFFFFFFFFFFFF;
  for (const long long value : {0LL, 7LL, 8LL, 8589934591LL, 8589934592LL, -1LL, -8LL, kMost, -kMost - 1}) {
    char expected[70], text[66];
    std::snprintf(expected, sizeof expected, "%lld", value);
    EXPECT_STREQ(expected, mv64::itoa(value, text, 10));
    std::snprintf(expected, sizeof expected, "%llo", static_cast<unsigned long long>(value));
    EXPECT_STREQ(expected, mv64::itoa(value, text, 8));
    EXPECT_EQ(value, static_cast<long long>(std::strtoull(mv64::itoa(value, text, 2), nullptr, 2)));
    std::snprintf(expected, sizeof expected, "%07llo", static_cast<unsigned long long>(value) & 07777777);
    mv_0o(static_cast<unsigned>(value & 0xFFFFFFFF), 7, text);
    EXPECT_STREQ(expected, text) << "the low digits";
  }
  char field[] = "#####";
  EXPECT_EQ(std::string("ab\0\0#", 5), std::string(mvStrNCpy(field, "ab", 4), 5));
  EXPECT_STREQ("abcd#", mvStrNCpy(field, "abcdef", 4));
}

}  // namespace
}  // namespace morvane::testing
