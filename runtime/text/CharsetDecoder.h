// Text of a named character set turned into UTF-8, through iconv.
//
// For utf-8 (the usual case) bytes are copied as they are. Of any other character set, bytes that do not
// convert are kept as they are, so that two different names stay different. An unknown character set is read
// as UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace morvane {

class CharsetDecoder {
 public:
  explicit CharsetDecoder(const char* charsetName);
  ~CharsetDecoder();
  CharsetDecoder(const CharsetDecoder&) = delete;
  CharsetDecoder& operator=(const CharsetDecoder&) = delete;

  // False when the character set is unknown to the system; the caller says so once.
  bool isKnown() const { return m_known; }
  bool isUtf8() const { return m_converter == nullptr; }
  void append(std::string_view bytes, std::string& utf8);

 private:
  void* m_converter = nullptr;  // an iconv_t; null copies
  bool m_known = true;
};

}  // namespace morvane
