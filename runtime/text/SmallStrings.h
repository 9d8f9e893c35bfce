// Small routines over NUL-terminated text and over numbers as text.
#pragma once

#include <cstring>

#include "runtime/base/Export.h"

namespace morvane {

// The C library's functions under this library's names. Texts must not be null. The result points into the
// text, or is null.
inline const char* mvStrChr(const char* text, char c) { return std::strchr(text, c); }
inline const char* mvStrrChr(const char* text, char c) { return std::strrchr(text, c); }
inline int mvStrCmp(const char* a, const char* b) { return std::strcmp(a, b); }
// `to` must have room for the text and its NUL.
inline char* mvStrCpy(char* to, const char* from) { return std::strcpy(to, from); }
// Copies at most n bytes; the rest of the n bytes is filled with NUL, and there is no NUL when `from` has n
// or more. This is the form of a text field in a header block. `from` needs no NUL within its first n
// bytes.
inline char* mvStrNCpy(char* to, const char* from, unsigned n) {
  std::memset(to, 0, n);
  return static_cast<char*>(std::memcpy(to, from, ::strnlen(from, n)));
}

// Decimal digits up to the first character that is none; no digit is 0. A number over 2^32-1 stops there, and
// `overflowed`, when given, is then set.
MORVANE_API unsigned mvUIntValue(const char* text, bool* overflowed = nullptr);

// An unsigned value as exactly `width` octal digits followed by NUL. A value that needs more digits keeps its
// low ones. The buffer holds width + 1 bytes. The form of most numbers in a header block.
MORVANE_API void mv_0o(unsigned value, unsigned width, char* buffer);

struct MORVANE_API mv64 {
  // The value in a radix from 2 to 16, lower case, NUL-terminated, without padding; negative values get a "-"
  // in radix 10 and are taken as unsigned 64-bit in any other. The buffer holds 66 bytes. Returns the buffer.
  static char* itoa(long long value, char* buffer, int radix);
};

}  // namespace morvane
