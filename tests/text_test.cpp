// Text: which bytes are kept, and how text is compared, matched, converted, cut and replaced.
#include <cwctype>
#include <set>

#include "TestSupport.h"
#include "runtime/text/CharsetDecoder.h"
#include "runtime/text/ExtPtrArraySb.h"
#include "runtime/text/SmallStrings.h"
#include "runtime/text/Utf8.h"
#include "runtime/text/WildcardPattern.h"

namespace morvane::testing {
namespace {

TEST(Utf8, EveryCharacterComesBack) {
  for (char32_t character = 0; character < kInvalidByte; ++character) {
    const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
    std::string text;
    size_t at = 0;
    appendUtf8Char(character, text);
    ASSERT_EQ(surrogate ? kInvalidByte + 0xED : character, nextUtf8(text, at));
    ASSERT_EQ(surrogate ? 1 : text.size(), at);
  }
}

// Stray and cut sequences, overlong forms, characters past U+10FFFF: each of their bytes stands alone.
TEST(Utf8, CharactersAreCutOffWholeAndInvalidBytesOneByOne) {
  const std::vector<std::string> kTexts[] = {{"a", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x90\x90\x80"},
                                             {"\x80", "\xC3", "\xC3", "\xFF", "\xFE"},
                                             {"\xE2", "\x82", "1", "\xF0", "\x9F", "\x98"},
                                             {"\xC0", "\x80", "\xE0", "\x9F", "\xBF"},
                                             {"\xF0", "\x8F", "\xBF", "\xBF"},
                                             {"\xF4", "\x90", "\x80", "\x80", "\xF5", "\x80"}};
  for (const auto& characters : kTexts) {
    std::string text;
    for (const std::string& character : characters) {
      XString cut(text + character);
      cut.shortenNumChars(1);
      EXPECT_EQ(text, cut.str());
      text += character;
    }
    XString none(text);
    none.shortenNumChars(static_cast<unsigned>(characters.size()) + 1);
    EXPECT_EQ("", none.str());
  }
}

// What each character set makes of bytes is shown where archives are read.
TEST(CharsetDecoder, OneServesManyNamesOfAnyLength) {
  const auto append = [](CharsetDecoder& decoder, const std::string& bytes) {
    std::string converted;
    decoder.append(bytes, converted);
    return converted;
  };
  CharsetDecoder latin1("iso-8859-1"), stateful("iso-2022-jp"), holding("cp1255"), wide("utf-16le");
  std::string expected, name;
  for (size_t length = 0; length < 1100; ++length, expected += "\xC3\xA9")
    EXPECT_EQ(expected, append(latin1, std::string(length, '\xE9')));
  for (int i = 0; i < 3; ++i) EXPECT_EQ("!\xE3\x81\x82", append(stateful, "!\x1B$B$\""));  // left shifted
  EXPECT_EQ("\xE3\x81\x82\xFF\xE3\x81\x82", append(stateful, "\x1B$B$\"\xFF$\"")) << "outlives such a byte";
  // What the converter holds back stands in front of a byte that does not convert, and pieces of a long name
  // meet in the midst of a character.
  EXPECT_EQ("\xD7\x95\x81", append(holding, "\xE5\x81"));
  EXPECT_EQ("\x81\xD7\x95", append(holding, "\x81\xE5"));
  for (int i = 0; i < 5000; ++i) name.append("\x3D\xD8\0\xDE", 4);
  EXPECT_EQ(5000u * 4 + 1, append(wide, name + "x").size()) << "half a character stays";
}

// Of these, where no character is written in two ways.
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
      bool upToASlash = matches;
      for (size_t i = 1; i < text.size(); ++i) {
        upToASlash |= text[i] == '/' && matchesByDefinition(pattern.c_str(), text.substr(0, i).c_str());
      }
      if (text.empty()) continue;  // no path
      ASSERT_EQ(upToASlash, WildcardPattern(pattern, true).matchesUpToASlash(text))
          << pattern << " on " << text;
    }
  }
  EXPECT_TRUE(XString("[a]\\^$.{b,c}+").matchesUtf8("[a]\\^$.{b,c}*", false));
}

TEST(Wildcard, ManyStarsCostNoMoreThanOne) {
  const XString text(std::string(100'000, 'a'));
  std::string stars, near;
  for (int i = 0; i < 1000; ++i) stars += "*a", near += "*aaaaaaaab";
  EXPECT_TRUE(text.matchesUtf8(stars.c_str(), true));
  for (const std::string& pattern : {stars + "*b", near, "*" + std::string(50'000, 'a') + "b*"}) {
    EXPECT_FALSE(text.matchesUtf8(pattern.c_str(), false));
    EXPECT_FALSE(WildcardPattern(pattern, true).matchesUpToASlash(text.str() + "/" + text.str()));
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
                                      {"abc", "", "x", "abc"},         {"aaaa", "a", "aa", "aaaaaaaa"}};
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
  EXPECT_TRUE(built.append("\t n=") && built.append(-5) && built.append(4294967295u) &&
              built.appendCharN('/', 3) && built.appendInt64(-8589934592) && built.append("A\v "));
  built.trim2();
  EXPECT_STREQ("n=-54294967295///-8589934592A", built.getString());
  EXPECT_TRUE(built.beginsWith("n=") && !built.beginsWith("=") && built.heapUsage() >= built.getSize());
  built.stripDirectory();
  built.toLowerCase();
  EXPECT_STREQ("-8589934592a", built.getString());
}

TEST(Strings, PartsNumbersAndFields) {
  // Skip empty parts, trim parts; then the parts, each behind a "|".
  const char* const kSplit[][3] = {
      {"", "", "||a| |b|"}, {"", "y", "||a||b|"}, {"y", "y", "|a|b"}, {"y", "", "|a| |b"}};
  for (const auto& [skip, trim, result] : kSplit) {
    ExtPtrArraySb parts;
    EXPECT_TRUE(StringBuffer(",a, ,b,").split(parts, ',', *skip, *trim));
    std::string found;
    for (int i = 0; i < parts.getSize(); ++i) found += "|" + parts.sbAt(i)->str();
    EXPECT_EQ(result, found);
  }
  char text[66], field[] = "#####";
  EXPECT_STREQ("-9223372036854775808", mv64::itoa(-9223372036854775807LL - 1, text, 10));
  EXPECT_EQ(std::string("ab\0\0#", 5), std::string(mvStrNCpy(field, "ab", 4), 5));
  EXPECT_STREQ("abcd#", mvStrNCpy(field, "abcdef", 4));
}

}  // namespace
}  // namespace morvane::testing
