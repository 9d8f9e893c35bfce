// ASCII letters and blanks, whatever the process's locale is. For words that the library or its format
// defines, such as option words and suffixes. Names of members are folded by foldCase (Utf8.h), beyond
// ASCII too.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace morvane {

// What isspace knows in the C locale.
constexpr const char* kAsciiWhiteSpace = " \t\r\n\v\f";

// Bytes from 0x80 on stay, so that UTF-8 is not damaged. The process's locale could make tolower mean
// something else.
constexpr char asciiLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Without white space at both ends; a view into the text. A text of nothing but white space becomes empty,
// because npos + 1 is 0.
inline std::string_view trimmed(std::string_view text) {
  const size_t start = std::min(text.find_first_not_of(kAsciiWhiteSpace), text.size());
  return text.substr(start, text.find_last_not_of(kAsciiWhiteSpace) + 1 - start);
}

// As many bytes as before, each in its place. So positions found in the result hold for the text itself.
inline std::string asciiLowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), asciiLower);
  return lower;
}

}  // namespace morvane
