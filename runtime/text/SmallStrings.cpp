// Numbers as text without allocating, and without regard to the process's locale.
#include "runtime/text/SmallStrings.h"

#include <limits>

namespace morvane {

// Compared before it is multiplied: unsigned arithmetic would wrap and look fine. A text that goes on
// behind its digits is not refused here: whether that is an error is the caller's to say.
unsigned mvUIntValue(const char* text, bool* overflowed) {
  constexpr unsigned kMax = std::numeric_limits<unsigned>::max();
  unsigned value = 0;
  for (; *text >= '0' && *text <= '9'; ++text) {
    const unsigned digit = static_cast<unsigned>(*text - '0');
    // Exact: what passes fits, and what does not is more than 2^32-1.
    if (value > (kMax - digit) / 10) {
      if (overflowed) *overflowed = true;
      return kMax;
    }
    value = value * 10 + digit;
  }
  return value;
}

// From the last digit to the first. Digits that have no room are dropped at the front; the caller has seen
// to it that the value fits.
void mv_0o(unsigned value, unsigned width, char* buffer) {
  buffer[width] = '\0';
  for (unsigned i = width; i-- > 0; value >>= 3) buffer[i] = static_cast<char>('0' + (value & 7));
}

// The magnitude is taken in unsigned arithmetic, where the smallest value has one; 64 digits are the most, in
// radix 2.
char* mv64::itoa(long long value, char* buffer, int radix) {
  const bool negative = radix == 10 && value < 0;
  unsigned long long rest = static_cast<unsigned long long>(value);
  if (negative) rest = 0 - rest;
  char reversed[65];
  unsigned count = 0;
  // At least one digit: zero is "0".
  do {
    reversed[count++] = "0123456789abcdef"[rest % static_cast<unsigned>(radix)];
    rest /= static_cast<unsigned>(radix);
  } while (rest != 0);
  char* out = buffer;
  if (negative) *out++ = '-';
  while (count > 0) *out++ = reversed[--count];
  *out = '\0';
  return buffer;
}

}  // namespace morvane
