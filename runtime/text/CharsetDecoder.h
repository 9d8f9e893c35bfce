// Text of a named character set turned into UTF-8, through iconv.
//
// For utf-8 (the usual case) bytes are copied as they are. Of any other character set, bytes that do not
// convert are kept as they are, in their place. Different names may still become one: a character set may
// have two ways to write a character. An unknown character set is read as UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace morvane {

// One thread at a time. Names are independent of each other: each begins in the initial state. To make one
// costs more than to decode a name, so a run keeps it.
class CharsetDecoder {
 public:
  // A name that iconv knows, in any case. Throws std::bad_alloc where the system has no memory for it.
  explicit CharsetDecoder(const char* charsetName);
  ~CharsetDecoder();
  CharsetDecoder(const CharsetDecoder&) = delete;
  CharsetDecoder& operator=(const CharsetDecoder&) = delete;

  // False when the character set is unknown to the system; the caller says so once. It does not change.
  bool isKnown() const { return m_known; }
  // True for an unknown character set, too.
  bool isUtf8() const { return m_converter == nullptr; }
  // Appends the name; bytes may hold NULs.
  void append(std::string_view bytes, std::string& utf8) { append(bytes, '\0', '\0', utf8); }
  // The same for bytes of which each `from` is to be read as a `to`. The text needs no second copy for that.
  // Both are ASCII; the replacement is of stored bytes, before they are decoded, as the path rules have it.
  void append(std::string_view bytes, char from, char to, std::string& utf8);

 private:
  // Both append to the text; the names are those of iconv's own steps.
  void flush(std::string& utf8);
  size_t convert(char* bytes, size_t n, bool last, std::string& utf8);

  void* m_converter = nullptr;  // an iconv_t; null copies
  bool m_known = true;
  // Whether a character may wait inside for the one behind it.
  bool m_holdsBack = false;
};

}  // namespace morvane
