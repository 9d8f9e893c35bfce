// ASCII letters and blanks, whatever the process's locale is.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace morvane {

constexpr const char* kAsciiWhiteSpace = " \t\r\n\v\f";

constexpr char asciiLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

inline std::string asciiLowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), asciiLower);
  return lower;
}

}  // namespace morvane
