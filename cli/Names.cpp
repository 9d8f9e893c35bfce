// Names on a person's screen. They come from archives and may hold anything a terminal obeys, so control
// characters never get there; what is printable in any language stays as it is.
#include "cli/Names.h"

#include <algorithm>
#include <cstdio>

namespace mvtar {

namespace {

// Three digits always, so that a digit behind it is not taken for its own. C takes no more than three.
// Hexadecimal escapes in C have no such end.
void appendOctal(unsigned char byte, std::string& text) {
  char escape[8];
  std::snprintf(escape, sizeof escape, "\\%03o", byte);
  text += escape;
}

// U+0080 to U+009F are control characters too; terminals obey them. In UTF-8 they are the byte C2 and one
// from 80 to 9F; bytes of that range by themselves are no character.
bool isC1(std::string_view text, size_t at) {
  return text[at] == '\xC2' && at + 1 < text.size() && (text[at + 1] & 0xE0) == 0x80;
}

}  // namespace

std::string withoutC1(std::string_view text) {
  std::string safe;
  for (size_t at = 0; at < text.size(); ++at) {
    if (!isC1(text, at)) {
      safe.push_back(text[at]);
      continue;
    }
    for (const char each : text.substr(at++, 2)) appendOctal(static_cast<unsigned char>(each), safe);
  }
  return safe;
}

// Back slashes are doubled, so that two names never look alike. Bytes that are no UTF-8 stay: the terminal
// shows them as such.
std::string shown(std::string_view name) {
  std::string text;
  for (size_t at = 0; at < name.size(); ++at) {
    const char c = name[at];
    const auto byte = static_cast<unsigned char>(c);
    // What C has a letter for; a back slash stands for itself only when it is two.
    // A literal back slash is doubled before anything else is looked at, so that an escape is always ours.
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
    const bool isInC1 = isC1(name, at);
    // Everything else is shown, bytes above 7F as they are.
    if (byte >= 0x20 && byte != 0x7F && !isInC1) {
      text.push_back(c);
      continue;
    }
    appendOctal(byte, text);
    if (isInC1) appendOctal(static_cast<unsigned char>(name[++at]), text);
  }
  return text;
}

// Cut between two bytes of a C1 control character, neither half would be seen for what it is.
void printShown(std::string_view name, void (*write)(std::string_view)) {
  constexpr size_t kPiece = 16384;
  while (!name.empty()) {
    // Escapes make up to four bytes of one, so that a piece takes 64 KiB at most.
    size_t n = std::min(name.size(), kPiece);
    if (n < name.size() && name[n - 1] == '\xC2') --n;  // what it begins is told by the next byte
    write(shown(name.substr(0, n)));
    name.remove_prefix(n);
  }
}

}  // namespace mvtar
