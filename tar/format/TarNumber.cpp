// Numbers between their forms in a block and C++'s. Readers meet more than POSIX has: leading blanks, fields
// without an end, GNU's base-256, checksums of writers whose char had a sign. Each form is read here and
// nowhere else.
#include "tar/format/TarNumber.h"

#include <cstdint>
#include <cstring>

#include "runtime/text/SmallStrings.h"

namespace morvane {

namespace {

// 2^63-1: whatever is larger cannot be a size or a time here.
constexpr unsigned long long kLargest = 0x7FFFFFFFFFFFFFFFull;

bool isOctalDigit(unsigned char c) { return c >= '0' && c <= '7'; }

// The number that up to eight digits at `at` make, which then points behind them. Of the work on a header
// half was to look at its some fifty digits one by one. Reads eight bytes whether or not they are digits: the
// caller has them in the field. The digits are octal, so that each brings three bits, and the shifts by 11,
// 22 and 44 put two neighbours together in one addition.
unsigned long long takeEightDigits(const unsigned char*& at) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  uint64_t digits;
  std::memcpy(&digits, at, sizeof digits);
  digits ^= 0x3030303030303030;  // '0' to '7' become 0 to 7, and nothing else becomes less than 8
  const uint64_t others = digits & 0xF8F8F8F8F8F8F8F8;
  const unsigned count = others == 0 ? 8 : static_cast<unsigned>(__builtin_ctzll(others)) / 8;
  at += count;
  if (count == 0) return 0;
  // The digits go to the upper bytes, so that those which are missing are zeros in front. Then neighbours are
  // put together: two digits in 16 bits, four in 32, eight in 64.
  digits <<= 64 - 8 * count;
  digits = (digits + (digits << 11)) >> 8 & 0x00FF00FF00FF00FF;
  digits = (digits + (digits << 22)) >> 16 & 0x0000FFFF0000FFFF;
  return (digits + (digits << 44)) >> 32;
#else
  (void)at;
  return 0;  // the digits are then taken one by one
#endif
}

// Bit 7 of the first byte is the marker and bit 6 the sign (GNU tar writes two's complement); the remaining
// bits are the number, most significant first. A field of 12 bytes has room for more than 64 bits, hence the
// check before each shift.
NumberField parseBase256(const unsigned char* at, unsigned width) {
  NumberField number;
  if (at[0] & 0x40) {
    number.state = NumberField::State::Negative;
    return number;
  }
  number.value = at[0] & 0x3F;
  for (unsigned i = 1; i < width; ++i) {
    if (number.value > kLargest >> 8) {
      number.state = NumberField::State::TooLarge;
      number.value = kLargest;
      return number;
    }
    number.value = number.value << 8 | at[i];
  }
  return number;
}

// Twelve digits are 36 bits, so that no field of a header can overflow. A blank field has no digit and is 0.
NumberField parseOctal(const unsigned char* at, unsigned width) {
  NumberField number;
  const unsigned char* const end = at + width;
  while (at < end && *at == ' ') ++at;
  number.value = at + 8 <= end ? takeEightDigits(at) : 0;
  for (; at < end && isOctalDigit(*at); ++at) number.value = number.value << 3 | (*at - unsigned{'0'});
  if (at < end && *at != ' ' && *at != '\0') number.state = NumberField::State::Foreign;
  return number;
}

}  // namespace

// One byte of the field is the NUL.
bool hasOctalForm(Field field, long long value) { return value >= 0 && value < 1LL << 3 * (field.width - 1); }

// Leading zeros fill the field, as POSIX has it.
void putNumber(unsigned char* block, Field field, long long value) {
  char* const at = reinterpret_cast<char*>(block + field.offset);
  if (!hasOctalForm(field, value)) {
    numToBase256(value, at, static_cast<int>(field.width));
    return;
  }
  at[field.width - 1] = '\0';
  for (unsigned i = field.width - 1; i-- > 0; value >>= 3) at[i] = static_cast<char>('0' + (value & 7));
}

// Six digits, NUL, blank: the form in which every tar writes this one field, and which some old readers
// insist on. The sum of 512 bytes is less than 2^17, which six octal digits hold.
void putChecksum(unsigned char* block) {
  char digits[8];
  mv_0o(headerChecksum(block), 6, digits);
  digits[7] = ' ';
  std::memcpy(block + kChecksumField.offset, digits, sizeof digits);
}

// 32 rows of at most 255 are less than 2^16.
unsigned headerChecksum(const unsigned char* block) {
  if (!block) return 0;
  // Columns of 16 bits, which a vector register adds at once and 32 bytes cannot fill.
  constexpr unsigned kColumns = 16;
  unsigned short columns[kColumns] = {};
  for (unsigned row = 0; row < kBlockSize; row += kColumns) {
    for (unsigned i = 0; i < kColumns; ++i) {
      columns[i] = static_cast<unsigned short>(columns[i] + block[row + i]);
    }
  }
  unsigned sum = 0;
  for (const unsigned column : columns) sum += column;
  // As if the field held blanks. The difference may be negative; unsigned arithmetic comes out right all the
  // same.
  for (unsigned i = 0; i < kChecksumField.width; ++i) {
    sum += unsigned{' '} - block[kChecksumField.offset + i];
  }
  return sum;
}

// Big-endian from the last byte to the first; the marker is put over the first bit. What is left of the value
// tells whether it fitted; of a negative one that is -1, because the shift keeps the sign.
bool numToBase256(long long value, char* out, int len) {
  for (int i = len; i-- > 0; value >>= 8) out[i] = static_cast<char>(value & 0xFF);
  out[0] = static_cast<char>(out[0] | 0x80);
  return value == 0;
}

// The bits of longer fields are shifted out at the top without a word; parseNumber is the one that checks.
bool base256ToNum(long long& out, const char* in, int len) {
  out = 0;
  const auto byteAt = [in](int i) { return static_cast<unsigned char>(in[i]); };
  if (byteAt(0) & 0x40) return false;
  unsigned long long value = byteAt(0) & 0x3F;
  for (int i = 1; i < len; ++i) value = value << 8 | byteAt(i);
  out = static_cast<long long>(value);
  return true;
}

// No octal digit, blank or NUL has bit 7 set, so that the marker cannot be mistaken.
NumberField parseNumber(const unsigned char* block, Field field) {
  const unsigned char* const at = block + field.offset;
  return *at & 0x80 ? parseBase256(at, field.width) : parseOctal(at, field.width);
}

long long parseNegative(const unsigned char* block, Field field) {
  unsigned long long value = ~0ull;
  for (unsigned i = 0; i < field.width; ++i) {
    // Of the first byte bit 7 is the marker, which stands for the sign that bit 6 has.
    const unsigned char byte = block[field.offset + i];
    value = value << 8 | (i == 0 ? byte | 0x80u : byte);
  }
  return static_cast<long long>(value);
}

bool hasValidChecksum(const unsigned char* block) {
  const unsigned long long stored = parseNumber(block, kChecksumField).value;
  const unsigned sum = headerChecksum(block);
  if (stored == sum) return true;
  // As signed char, each byte from 0x80 on counts 256 less.
  unsigned highBytes = 0;
  for (unsigned i = 0; i < kBlockSize; ++i) {
    const bool inChecksum = i >= kChecksumField.offset && i < kChecksumField.offset + kChecksumField.width;
    if (!inChecksum && block[i] & 0x80) ++highBytes;
  }
  return stored + 256ull * highBytes == sum;
}

// Data are no number where the checksum stands. Read as 0, that would agree with the sum of their bytes as
// signed ones in one of some thousand blocks. No header has 0, because the field itself counts as eight
// blanks.
bool looksLikeHeader(const unsigned char* block) {
  const NumberField stored = parseNumber(block, kChecksumField);
  return stored.state == NumberField::State::Ok && stored.value > 0 && hasValidChecksum(block);
}

}  // namespace morvane
