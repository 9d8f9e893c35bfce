// Text in any form, converted on demand. Inside it is UTF-8, and the bytes are kept as they were given:
// nothing is dropped, replaced or normalised, so a file name that is no valid UTF-8 survives unchanged.
#pragma once

#include <string>

#include "runtime/base/Export.h"

namespace morvane {

class StringBuffer;

// A value: copies are independent. One thread at a time. Building throws std::bad_alloc. All paths and
// names of the public interface are of this type.
class MORVANE_API XString {
 public:
  XString() = default;
  // Null counts as empty. Both convert on purpose: most methods are called with literals.
  XString(const char* utf8) : m_utf8(utf8 ? utf8 : "") {}
  XString(std::string utf8) : m_utf8(std::move(utf8)) {}
  XString& operator=(const char* utf8);

  // The text as UTF-8, NUL-terminated, valid until the string changes. A NUL byte inside ends what a reader
  // of the pointer sees.
  const char* getUtf8() const { return m_utf8.c_str(); }
  const std::string& str() const { return m_utf8; }
  // The bytes themselves, for code that builds long texts in place. May be changed at will. Not while
  // somebody holds a pointer that getUtf8 gave.
  std::string& buffer() { return m_utf8; }
  // In bytes, which 32 bits must hold.
  unsigned getSizeUtf8() const { return static_cast<unsigned>(m_utf8.size()); }
  bool isEmpty() const { return m_utf8.empty(); }
  // Keeps the memory.
  void clear() { m_utf8.clear(); }

  void setFromUtf8(const char* text) { m_utf8.assign(text ? text : ""); }
  // Null counts as empty.
  void appendUtf8(const char* text);
  void appendUtf8N(const char* text, unsigned n) { m_utf8.append(text, n); }  // exactly n bytes
  // The text must not be null.
  void prependUtf8(const char* text);
  void appendAnsi(const char* text);  // text in the character set of the process's locale
  // Text in a named character set. What does not convert is kept byte for byte. False when the character set
  // is unknown: the bytes are then taken as UTF-8.
  bool appendFromEncoding(const char* bytes, const char* charsetName);
  // Its bytes are taken for UTF-8.
  void setFromSbUtf8(const StringBuffer& sb);
  void copyFromX(const XString& other) { m_utf8 = other.m_utf8; }

  // Byte for byte; no normal forms are compared.
  bool equalsUtf8(const char* text) const { return m_utf8 == text; }
  // By foldCase, beyond ASCII.
  bool equalsIgnoreCaseUtf8(const char* text) const;
  // Whole-text match in which "*" stands for any run of characters, "/" included; nothing else is special.
  bool matchesUtf8(const char* pattern, bool caseSensitive) const;
  // `ignoreCase` goes beyond ASCII.
  bool endsWithUtf8(const char* text, bool ignoreCase) const;

  // Drops the last n characters (not bytes), all of them when there are fewer.
  void shortenNumChars(unsigned n);
  // `ignoreCase` compares ASCII letters without regard to case. Returns the number of replacements. An empty
  // `from` is never found.
  int replaceAllOccurancesUtf8(const char* from, const char* to, bool ignoreCase);

 private:
  std::string m_utf8;
};

}  // namespace morvane
