#include "runtime/text/XString.h"

#include <langinfo.h>
#include <strings.h>

#include <cstring>

#include "runtime/text/CharsetDecoder.h"
#include "runtime/text/StringBuffer.h"
#include "runtime/text/Utf8.h"
#include "runtime/text/WildcardPattern.h"

namespace morvane {

XString& XString::operator=(const char* utf8) {
  setFromUtf8(utf8);
  return *this;
}

void XString::appendUtf8(const char* text) {
  if (text) m_utf8.append(text);
}

void XString::prependUtf8(const char* text) { m_utf8.insert(0, text); }

void XString::appendAnsi(const char* text) {
  const char* codeset = nl_langinfo(CODESET);
  // A program that never set its locale runs in "C"; its texts are in truth the system's, which is UTF-8
  // today.
  const bool plainC = strcasecmp(codeset, "ANSI_X3.4-1968") == 0;
  appendFromEncoding(text, plainC ? "utf-8" : codeset);
}

bool XString::appendFromEncoding(const char* bytes, const char* charsetName) {
  CharsetDecoder decoder(charsetName);
  decoder.append(bytes, m_utf8);
  return decoder.isKnown();
}

void XString::setFromSbUtf8(const StringBuffer& sb) { m_utf8 = sb.str(); }

bool XString::equalsIgnoreCaseUtf8(const char* text) const { return foldCase(m_utf8) == foldCase(text); }

bool XString::matchesUtf8(const char* pattern, bool caseSensitive) const {
  return WildcardPattern(pattern, caseSensitive).matches(m_utf8);
}

bool XString::endsWithUtf8(const char* text, bool ignoreCase) const {
  const size_t length = std::strlen(text);
  if (ignoreCase) {
    const std::string folded = foldCase(m_utf8), suffix = foldCase(text);
    return folded.size() >= suffix.size() &&
           folded.compare(folded.size() - suffix.size(), suffix.size(), suffix) == 0;
  }
  return m_utf8.size() >= length && m_utf8.compare(m_utf8.size() - length, length, text) == 0;
}

void XString::shortenNumChars(unsigned n) {
  std::string::size_type size = m_utf8.size();
  for (; n > 0 && size > 0; --n) {
    // A character starts at most four bytes before its end; an invalid byte is one of its own.
    size_t start = size - 1;
    for (size_t back = 2; back <= 4 && back <= size; ++back) {
      size_t at = size - back;
      const char32_t character = nextUtf8(std::string_view(m_utf8.data(), size), at);
      if (character < kInvalidByte && at == size) start = size - back;
    }
    size = start;
  }
  m_utf8.resize(size);
}

int XString::replaceAllOccurancesUtf8(const char* from, const char* to, bool ignoreCase) {
  const size_t length = std::strlen(from);
  if (length == 0) return 0;
  int count = 0;
  std::string replaced;
  for (size_t at = 0; at < m_utf8.size();) {
    const bool here = ignoreCase ? strncasecmp(m_utf8.c_str() + at, from, length) == 0
                                 : m_utf8.compare(at, length, from) == 0;
    if (!here) {
      replaced.push_back(m_utf8[at++]);
      continue;
    }
    replaced.append(to);
    at += length;
    ++count;
  }
  m_utf8.swap(replaced);
  return count;
}

}  // namespace morvane
