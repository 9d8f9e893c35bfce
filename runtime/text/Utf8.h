// UTF-8 one character at a time, and case folding that does not depend on the process's locale.
#pragma once

#include <string>
#include <string_view>

namespace morvane {

// A byte that is not part of a valid UTF-8 sequence is a character of its own: kInvalidByte + the byte.
constexpr char32_t kInvalidByte = 0x110000;

// The character at text[at], which must exist; `at` moves behind it. Overlong forms and surrogates are
// invalid. So every text is a row of characters, whatever its bytes are.
char32_t nextUtf8(std::string_view text, size_t& at);

// Appends the character; one made by nextUtf8 from an invalid byte becomes that byte again. Other numbers
// than these must not be given.
void appendUtf8Char(char32_t character, std::string& out);

// The text with every letter in lower case, by the C.UTF-8 locale's towlower (ASCII only where that is
// missing).
std::string foldCase(std::string_view text);

}  // namespace morvane
