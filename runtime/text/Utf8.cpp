// UTF-8 (RFC 3629) read and written one character at a time. Invalid bytes are characters of their own, so
// that any text can be taken apart and put together again without a loss, whatever a file system or an
// archive holds.
#include "runtime/text/Utf8.h"

#include <algorithm>
#include <clocale>
#include <cwctype>

#include "runtime/base/Ascii.h"

namespace morvane {

namespace {

// 10xxxxxx.
bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// ASCII is seen to first, because nearly all text is. The locale is the C library's own, not the process's:
// patterns must match alike in every program. Bytes that are no characters have no case.
char32_t lowerCase(char32_t character) {
  if (character < 0x80) return character >= 'A' && character <= 'Z' ? character + ('a' - 'A') : character;
  if (character >= kInvalidByte) return character;
  // Made once and never freed: another thread may fold text until the process ends.
  static const locale_t utf8Locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  if (!utf8Locale) return character;
  return static_cast<char32_t>(towlower_l(static_cast<wint_t>(character), utf8Locale));
}

}  // namespace

// The first byte tells the length; C0 and C1 would begin overlong forms, F5 and above lie beyond Unicode. A
// sequence that is cut or broken gives its first byte alone, and the next call looks at the one behind it.
// Surrogates (D800 to DFFF) are half-characters of UTF-16 and have no UTF-8 form.
char32_t nextUtf8(std::string_view text, size_t& at) {
  const auto byteAt = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byteAt(at);
  if (first < 0x80) return static_cast<char32_t>(text[at++]);
  const unsigned length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  // By length: what is smaller has a shorter form, and an overlong one may smuggle a slash past whoever looks
  // for it.
  static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  char32_t character = first & (0xFFu >> (length + 1));
  bool valid = first >= 0xC2 && first <= 0xF4 && at + length <= text.size();
  for (unsigned i = 1; valid && i < length; ++i) {
    valid = isContinuation(byteAt(at + i));
    character = character << 6 | (byteAt(at + i) & 0x3Fu);
  }
  valid = valid && character >= kSmallest[length] && character < kInvalidByte &&
          (character < 0xD800 || character > 0xDFFF);
  if (!valid) {
    ++at;
    return kInvalidByte + first;
  }
  at += length;
  return character;
}

// The reverse of nextUtf8 for everything that it gives.
void appendUtf8Char(char32_t character, std::string& out) {
  const auto put = [&out](char32_t byte) { out.push_back(static_cast<char>(byte)); };
  if (character >= kInvalidByte) {
    put(character - kInvalidByte);
  } else if (character < 0x80) {
    put(character);
  } else if (character < 0x800) {
    put(0xC0 | character >> 6);
    put(0x80 | (character & 0x3F));
  } else if (character < 0x10000) {
    put(0xE0 | character >> 12);
    put(0x80 | (character >> 6 & 0x3F));
    put(0x80 | (character & 0x3F));
  } else {
    put(0xF0 | character >> 18);
    put(0x80 | (character >> 12 & 0x3F));
    put(0x80 | (character >> 6 & 0x3F));
    put(0x80 | (character & 0x3F));
  }
}

// ASCII text, the usual case, is folded by a plain loop up to its first other byte. Folding may change a
// text's length.
std::string foldCase(std::string_view text) {
  std::string folded = asciiLowerCase(text);
  const auto beyondAscii = std::find_if(text.begin(), text.end(), [](char c) { return (c & 0x80) != 0; });
  size_t at = static_cast<size_t>(beyondAscii - text.begin());
  folded.resize(at);
  while (at < text.size()) appendUtf8Char(lowerCase(nextUtf8(text, at)), folded);
  return folded;
}

}  // namespace morvane
