// Byte strings over std::string. The building functions return true whenever they return: what they fail by
// is std::bad_alloc.
#include "runtime/text/StringBuffer.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "runtime/base/Ascii.h"
#include "runtime/text/ExtPtrArraySb.h"

namespace morvane {

// Assignment is for literals and other texts; null counts as empty.
StringBuffer& StringBuffer::operator=(const char* text) {
  setString(text);
  return *this;
}

StringBuffer& StringBuffer::operator=(const std::string& text) {
  m_text = text;
  return *this;
}

// Null instead of an exception, for callers that ask.
StringBuffer* StringBuffer::createNewSB() { return new (std::nothrow) StringBuffer(); }

// Copying the text may run out of memory, too; no buffer is left behind then. A null text gives an empty
// buffer.
StringBuffer* StringBuffer::createNewSB(const char* text) {
  try {
    return new StringBuffer(text);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// The text may be part of the buffer's own: std::string sees to that.
bool StringBuffer::setString(const char* text) {
  m_text.assign(text ? text : "");
  return true;
}

// Nothing is appended for null.
bool StringBuffer::append(const char* text) {
  if (text) m_text.append(text);
  return true;
}

// Decimal, without regard to the locale.
bool StringBuffer::append(int value) { return appendInt64(value); }

bool StringBuffer::append(unsigned value) { return appendInt64(value); }

bool StringBuffer::appendChar(char c) { return appendCharN(c, 1); }

bool StringBuffer::appendCharN(char c, unsigned n) {
  m_text.append(n, c);
  return true;
}

bool StringBuffer::appendInt64(long long value) {
  m_text.append(std::to_string(value));
  return true;
}

bool StringBuffer::appendN(const char* bytes, unsigned n) {
  m_text.append(bytes, n);
  return true;
}

// std::string::clear would keep the memory.
void StringBuffer::clear() { std::string().swap(m_text); }

// compare looks at no more bytes than there are, so that a shorter text is simply unequal.
bool StringBuffer::beginsWith(const char* text) const {
  return m_text.compare(0, std::strlen(text), text) == 0;
}

// All of a text that has nothing else goes: npos and 1 is 0.
void StringBuffer::trim2() {
  m_text.erase(m_text.find_last_not_of(kAsciiWhiteSpace) + 1);
  m_text.erase(0, m_text.find_first_not_of(kAsciiWhiteSpace));
}

// Names are folded whole by foldCase; this is for words of ours, which are ASCII. Bytes from 0x80 on stay
// as they are.
void StringBuffer::toLowerCase() { std::transform(m_text.begin(), m_text.end(), m_text.begin(), asciiLower); }

// Back slashes too: paths come from archives that other systems wrote.
void StringBuffer::stripDirectory() {
  const size_t separator = m_text.find_last_of("/\\");
  if (separator != std::string::npos) m_text.erase(0, separator + 1);
}

// std::string::erase stops at the end by itself.
void StringBuffer::removeFront(unsigned n) { m_text.erase(0, n); }

// From left to right, without looking into what was put in. The result is built apart, because replacing in
// place would move the rest of the text once for each occurrence.
int StringBuffer::replaceAllOccurances(const char* from, const char* to) {
  const size_t fromLength = std::strlen(from);
  if (fromLength == 0) return 0;
  int count = 0;
  std::string replaced;
  size_t start = 0;
  for (size_t at; (at = m_text.find(from, start)) != std::string::npos; start = at + fromLength, ++count) {
    replaced.append(m_text, start, at - start).append(to);
  }
  if (count == 0) return 0;
  m_text = replaced.append(m_text, start, std::string::npos);
  return count;
}

// ASCII letters only, so that a match has the length of what was looked for.
bool StringBuffer::replaceFirstOccurance(const char* from, const char* to, bool ignoreCase) {
  const std::string wanted(from);
  if (wanted.empty()) return false;
  const auto same = [ignoreCase](char a, char b) {
    return ignoreCase ? asciiLower(a) == asciiLower(b) : a == b;
  };
  const auto found = std::search(m_text.begin(), m_text.end(), wanted.begin(), wanted.end(), same);
  if (found == m_text.end()) return false;
  m_text.replace(static_cast<size_t>(found - m_text.begin()), wanted.size(), to);
  return true;
}

// In place, because no length changes.
void StringBuffer::replaceChar(char from, char to) { std::replace(m_text.begin(), m_text.end(), from, to); }

// The array takes each part over; for lack of memory it stops with the parts that it has.
bool StringBuffer::split(ExtPtrArraySb& parts, char separator, bool skipEmpty, bool trimParts) const {
  if (m_text.empty()) return true;
  size_t start = 0;
  while (true) {
    const size_t end = std::min(m_text.find(separator, start), m_text.size());
    auto part = std::make_unique<StringBuffer>(m_text.substr(start, end - start));
    if (trimParts) part->trim2();
    if (!(skipEmpty && part->isEmpty()) && !parts.appendSb(part.release())) return false;
    if (end == m_text.size()) return true;
    start = end + 1;
  }
}

// A short text lies in the object itself, so this is an estimate from above.
unsigned long long StringBuffer::heapUsage() const { return m_text.capacity(); }

}  // namespace morvane
