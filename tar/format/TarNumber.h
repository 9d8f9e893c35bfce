// The numbers in a header block: octal text, base-256 (GNU's binary form for what octal cannot hold), the
// checksum.
#pragma once

#include "tar/format/TarBlock.h"

namespace morvane {

// What seven octal digits hold, as most fields have them.
constexpr unsigned kMostOctal = 07777777;

// Whether a number has width - 1 octal digits at most. Negative numbers have none.
bool hasOctalForm(Field field, long long value);
// Writes width - 1 octal digits and NUL; what has no such form in base-256, as sizes from 8 GiB on. The field
// is overwritten whole. A negative number's two's complement is cut to the field, with the marker over its
// first bit; so GNU tar reads it.
void putNumber(unsigned char* block, Field field, long long value);
// Writes the checksum of the otherwise finished block.
void putChecksum(unsigned char* block);

// The unsigned sum of the block's bytes, its checksum field counted as blanks. 0 for a null pointer.
unsigned headerChecksum(const unsigned char* block);

// Big-endian binary with bit 7 of the first byte as a marker. True when the value fitted, so false for a
// negative one; whether the marker covered a bit of the value is not checked. `out` has `len` bytes, 1 or
// more; bytes above the value's own are filled with its sign.
bool numToBase256(long long value, char* out, int len);
// The marker is not required. False, with `out` 0, for a negative number (bit 6 of the first byte). Bits over
// the 64th are lost. For `len` bytes, 1 or more.
bool base256ToNum(long long& out, const char* in, int len);

// A numeric field as read from a block that nobody vouches for. The state says what was wrong, and the value
// is what a lenient reader takes for it. A caller that cannot do with a wrong value, as of a size, asks the
// state.
struct NumberField {
  enum class State { Ok, Negative, TooLarge, Foreign };
  State state = State::Ok;
  // Foreign: what stood before the foreign character. Negative: 0. TooLarge (over 2^63-1): 2^63-1.
  unsigned long long value = 0;

  // Negative is 0, anything over 32 bits 2^32-1.
  unsigned as32() const { return value > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<unsigned>(value); }
  // `none` for what is no number: taken for one, it would make somebody an owner whom nobody meant.
  long long orNone(long long none) const {
    const bool isNone = state == State::Negative || state == State::Foreign;
    return isNone ? none : static_cast<long long>(value);
  }
};

// Octal with leading blanks, ended by a blank, NUL or the field's end; blank is 0. Or base-256, where the
// marker is. Never fails: whatever the bytes are, there is a value. Reads the field's bytes only.
NumberField parseNumber(const unsigned char* block, Field field);

// Whether the field's state is Negative, without reading the whole of it.
inline bool isNegative(const unsigned char* block, Field field) {
  return (block[field.offset] & 0xC0) == 0xC0;
}
// The value of such a field: base-256 in two's complement, at least -2^63.
long long parseNegative(const unsigned char* block, Field field);

// Whether the stored checksum is that of the block: the unsigned sum, or the signed one that old writers
// made.
bool hasValidChecksum(const unsigned char* block);
// The stricter question whether bytes of any kind are a header. 512 bytes.
bool looksLikeHeader(const unsigned char* block);

}  // namespace morvane
