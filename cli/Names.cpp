#include "cli/Names.h"

#include <cstdio>

namespace mvtar {

std::string shown(std::string_view name) {
  std::string text;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '\\':
        text += "\\\\";
        continue;
      case '\n':
        text += "\\n";
        continue;
      case '\t':
        text += "\\t";
        continue;
      case '\r':
        text += "\\r";
        continue;
      case '\a':
        text += "\\a";
        continue;
      case '\b':
        text += "\\b";
        continue;
      case '\f':
        text += "\\f";
        continue;
      case '\v':
        text += "\\v";
        continue;
      default:
        break;
    }
    if (byte >= 0x20 && byte != 0x7F) {
      text.push_back(c);
      continue;
    }
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\%03o", byte);
    text += escape;
  }
  return text;
}

}  // namespace mvtar
