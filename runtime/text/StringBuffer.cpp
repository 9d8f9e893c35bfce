#include "runtime/text/StringBuffer.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "runtime/text/Ascii.h"
#include "runtime/text/ExtPtrArraySb.h"

namespace morvane {

StringBuffer& StringBuffer::operator=(const char* text) {
  setString(text);
  return *this;
}

StringBuffer& StringBuffer::operator=(const std::string& text) {
  m_text = text;
  return *this;
}

StringBuffer* StringBuffer::createNewSB() { return new (std::nothrow) StringBuffer(); }

StringBuffer* StringBuffer::createNewSB(const char* text) {
  try {
    return new StringBuffer(text);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

bool StringBuffer::setString(const char* text) {
  m_text.assign(text ? text : "");
  return true;
}

bool StringBuffer::append(const char* text) {
  if (text) m_text.append(text);
  return true;
}

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

void StringBuffer::clear() { std::string().swap(m_text); }

bool StringBuffer::beginsWith(const char* text) const {
  return m_text.compare(0, std::strlen(text), text) == 0;
}

void StringBuffer::trim2() {
  m_text.erase(m_text.find_last_not_of(kAsciiWhiteSpace) + 1);
  m_text.erase(0, m_text.find_first_not_of(kAsciiWhiteSpace));
}

void StringBuffer::toLowerCase() { std::transform(m_text.begin(), m_text.end(), m_text.begin(), asciiLower); }

void StringBuffer::stripDirectory() {
  const size_t separator = m_text.find_last_of("/\\");
  if (separator != std::string::npos) m_text.erase(0, separator + 1);
}

void StringBuffer::removeFront(unsigned n) { m_text.erase(0, n); }

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

void StringBuffer::replaceChar(char from, char to) { std::replace(m_text.begin(), m_text.end(), from, to); }

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

unsigned long long StringBuffer::heapUsage() const { return m_text.capacity(); }

}  // namespace morvane
