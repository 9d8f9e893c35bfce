// UTF-8 text and the ways into it. Comparisons without regard to case fold by the same function as patterns,
// so that both agree.
#include "runtime/text/XString.h"

#include <langinfo.h>
#include <strings.h>

#include <cstring>

#include "runtime/base/Ascii.h"
#include "runtime/text/CharsetDecoder.h"
#include "runtime/text/StringBuffer.h"
#include "runtime/text/Utf8.h"
#include "runtime/text/WildcardPattern.h"

namespace morvane {

// The text may be part of this one: std::string sees to that.
XString& XString::operator=(const char* utf8) {
  setFromUtf8(utf8);
  return *this;
}

// Null counts as empty.
void XString::appendUtf8(const char* text) {
  if (text) m_utf8.append(text);
}

// Costs as much as the text is long; for short texts.
void XString::prependUtf8(const char* text) { m_utf8.insert(0, text); }

// nl_langinfo is asked each time: a program may set its locale at any time.
void XString::appendAnsi(const char* text) {
  const char* codeset = nl_langinfo(CODESET);
  // A program that never set its locale runs in "C"; its texts are in truth the system's, which is UTF-8
  // today.
  const bool plainC = strcasecmp(codeset, "ANSI_X3.4-1968") == 0;
  appendFromEncoding(text, plainC ? "utf-8" : codeset);
}

// Makes a decoder each time; who has many texts keeps one (CharsetDecoder).
bool XString::appendFromEncoding(const char* bytes, const char* charsetName) {
  CharsetDecoder decoder(charsetName);
  decoder.append(bytes, m_utf8);
  return decoder.isKnown();
}

// NUL bytes inside come along.
void XString::setFromSbUtf8(const StringBuffer& sb) { m_utf8 = sb.str(); }

bool XString::equalsIgnoreCaseUtf8(const char* text) const { return foldCase(m_utf8) == foldCase(text); }

// Cuts the pattern each time; who has many texts keeps a WildcardPattern.
bool XString::matchesUtf8(const char* pattern, bool caseSensitive) const {
  return WildcardPattern(pattern, caseSensitive).matches(m_utf8);
}

// Without regard to case both are folded first, because folding may change a length.
bool XString::endsWithUtf8(const char* text, bool ignoreCase) const {
  const size_t length = std::strlen(text);
  if (ignoreCase) {
    const std::string folded = foldCase(m_utf8), suffix = foldCase(text);
    return folded.size() >= suffix.size() &&
           folded.compare(folded.size() - suffix.size(), suffix.size(), suffix) == 0;
  }
  return m_utf8.size() >= length && m_utf8.compare(m_utf8.size() - length, length, text) == 0;
}

// From the end, so that it costs as much as is dropped and not as the text has.
void XString::shortenNumChars(unsigned n) {
  std::string::size_type size = m_utf8.size();
  for (; n > 0 && size > 0; --n) {
    // A character starts at most four bytes before its end; an invalid byte is one of its own.
    size_t start = size - 1;
    // Only a sequence that ends exactly here is one character.
    for (size_t back = 2; back <= 4 && back <= size; ++back) {
      size_t at = size - back;
      const char32_t character = nextUtf8(std::string_view(m_utf8.data(), size), at);
      if (character < kInvalidByte && at == size) start = size - back;
    }
    size = start;
  }
  m_utf8.resize(size);
}

// The result is built apart, so that the cost grows with the text's length and not with the occurrences
// times it.
int XString::replaceAllOccurancesUtf8(const char* from, const char* to, bool ignoreCase) {
  const size_t length = std::strlen(from);
  if (length == 0) return 0;
  // ASCII folding keeps every byte in its place, so that what is found there is found here.
  const std::string wanted = ignoreCase ? asciiLowerCase(from) : std::string();
  const std::string folded = ignoreCase ? asciiLowerCase(m_utf8) : std::string();
  const auto next = [&](size_t start) {
    return ignoreCase ? folded.find(wanted, start) : m_utf8.find(from, start);
  };
  int count = 0;
  size_t start = 0;
  std::string replaced;
  for (size_t at; (at = next(start)) != std::string::npos; start = at + length, ++count) {
    replaced.append(m_utf8, start, at - start).append(to);
  }
  if (count > 0) m_utf8 = replaced.append(m_utf8, start, std::string::npos);
  return count;
}

}  // namespace morvane
