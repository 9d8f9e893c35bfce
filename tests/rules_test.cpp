// The rules of the format, each called by itself: numbers, header blocks, the ustar split, pax records, entry
// paths, name filters, source entries, option words.
#include <array>
#include <cstring>
#include <random>

#include "TestSupport.h"
#include "tar/EntryPath.h"
#include "tar/FullExtensions.h"
#include "tar/NameFilter.h"
#include "tar/PaxRecords.h"
#include "tar/SourceEntry.h"
#include "tar/TarBlock.h"
#include "tar/TarNumber.h"
#include "tar/write/HeaderBlock.h"
#include "tar/write/MemberHeader.h"
#include "tar/write/PaxPathRecord.h"
#include "tar/write/UstarSplit.h"

namespace morvane::testing {
namespace {

using namespace std::string_literals;
using State = NumberField::State;
using Block = std::array<unsigned char, kBlockSize>;

void put(Block& block, Field field, const std::string& bytes) {
  ASSERT_LE(bytes.size(), field.width);
  std::memcpy(block.data() + field.offset, bytes.data(), bytes.size());
}

std::string take(const Block& block, Field field) {
  return std::string(reinterpret_cast<const char*>(block.data()) + field.offset, field.width);
}

// A block with these fields and a right checksum.
Block blockOf(const std::vector<std::pair<Field, std::string>>& fields) {
  Block block{};
  for (const auto& [field, bytes] : fields) put(block, field, bytes);
  putChecksum(block.data());
  return block;
}

// A path of n bytes with a slash about every 40 bytes and none at either end.
std::string pathOf(size_t n) {
  std::string path(n, 'p');
  for (size_t i = 39; i + 1 < n; i += 40) path[i] = '/';
  return path;
}

// ---- Numbers

TEST(TarNumber, FieldsAsRead) {
  const struct {
    std::string field;
    State state;
    unsigned long long value;
    unsigned as32;
  } kCases[] = {
      {"00000000017\0"s, State::Ok, 15, 15},
      {"         17 "s, State::Ok, 15, 15},
      {"777777777777"s, State::Ok, 0xFFFFFFFFFull, 0xFFFFFFFFu},
      {"17 9"s, State::Ok, 15, 15},
      {"17\0abc"s, State::Ok, 15, 15},
      {""s, State::Ok, 0, 0},
      {"            "s, State::Ok, 0, 0},
      {"178"s, State::Foreign, 15, 15},
      {"-1"s, State::Foreign, 0, 0},
      {"x"s, State::Foreign, 0, 0},
      {"\x80\0\0\0\0\0\0\2\0\0\0\0"s, State::Ok, 8589934592ull, 0xFFFFFFFFu},
      {"\x80\0\0\0\0\0\0\0\xFF\xFF\xFF\xFF"s, State::Ok, 0xFFFFFFFFull, 0xFFFFFFFFu},
      {"\x80\0\0\0\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s, State::Ok, 0x7FFFFFFFFFFFFFFFull, 0xFFFFFFFFu},
      {"\x80\0\0\0\x80\0\0\0\0\0\0\0"s, State::TooLarge, 0x7FFFFFFFFFFFFFFFull, 0xFFFFFFFFu},
      {"\xBF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s, State::TooLarge, 0x7FFFFFFFFFFFFFFFull,
       0xFFFFFFFFu},
      {"\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s, State::Negative, 0, 0},
      {"\xC0\0\0\0\0\0\0\0\0\0\0\1"s, State::Negative, 0, 0},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.field);
    Block block{};
    put(block, kSizeField, each.field);
    const NumberField number = parseNumber(block.data(), kSizeField);
    EXPECT_EQ(each.state, number.state);
    EXPECT_EQ(each.value, number.value);
    EXPECT_EQ(each.as32, number.as32());

    // As a member's size only State::Ok will do; as its time every one of them.
    for (const Field field : {kSizeField, kMtimeField}) {
      TarHeader header;
      _mvLogger log;
      bool end = false;
      const bool usable = field.offset == kMtimeField.offset || each.state == State::Ok;
      EXPECT_EQ(usable, header.parseFromMemory(blockOf({{field, each.field}}).data(), end, log));
      if (usable && field.offset == kSizeField.offset) {
        EXPECT_EQ(each.value, static_cast<unsigned long long>(header.m_size));
      } else if (usable) {
        EXPECT_EQ(each.as32, header.m_mtime);
      }
    }
  }
}

TEST(TarNumber, SizesThereAndBack) {
  for (int bit = 0; bit < 63; ++bit) {
    for (const long long n : {(1LL << bit) - 1, 1LL << bit, (1LL << bit) + 1}) {
      Block block{};
      putSize(block.data(), n);
      EXPECT_EQ(n < 8589934592LL, block[kSizeField.offset] < 0x80) << n;
      EXPECT_EQ(static_cast<unsigned long long>(n), parseNumber(block.data(), kSizeField).value) << n;
    }
  }
  Block block{};
  putSize(block.data(), 8589934591LL);
  EXPECT_EQ("77777777777\0"s, take(block, kSizeField));
  putSize(block.data(), 8589934592LL);
  EXPECT_EQ("\x80\0\0\0\0\0\0\2\0\0\0\0"s, take(block, kSizeField));
  putOctal(block.data(), kModeField, 012345670123);  // keeps its low digits
  EXPECT_EQ("5670123\0"s, take(block, kModeField));
}

TEST(TarNumber, Base256OfEveryLength) {
  for (int len = 1; len <= 12; ++len) {
    for (const long long value : {0LL, 1LL, 63LL, 64LL, 255LL, 256LL, 65535LL, 1LL << 33, (1LL << 62) + 5,
                                  0x7FFFFFFFFFFFFFFFLL, -1LL, -256LL}) {
      SCOPED_TRACE(std::to_string(value) + " in " + std::to_string(len));
      const bool fits = value >= 0 && (len >= 8 || value >> (8 * len) == 0);
      std::string field(static_cast<size_t>(len), '\0');
      EXPECT_EQ(fits, ClsTar::numToBase256(value, field.data(), len));
      EXPECT_NE(0, field[0] & 0x80);
      long long back = -1;
      const bool signBit = (field[0] & 0x40) != 0;
      EXPECT_EQ(!signBit, ClsTar::base256ToNum(back, field.data(), len));
      // The marker and the sign take two bits of the first byte.
      if (fits && (len > 8 || value >> (8 * len - 2) == 0)) EXPECT_EQ(value, back);
      if (signBit) EXPECT_EQ(0, back);
      field[0] = static_cast<char>(field[0] & 0x7F);  // the marker is not required
      EXPECT_EQ(!signBit, ClsTar::base256ToNum(back, field.data(), len));
    }
  }
}

TEST(TarNumber, ChecksumsOfNewAndOldWriters) {
  EXPECT_EQ(0u, ClsTar::computeHeaderChecksum(nullptr));
  for (unsigned seed = 0; seed < 300; ++seed) {
    Block block;
    const std::string bytes = noise(kBlockSize, seed);
    std::memcpy(block.data(), bytes.data(), bytes.size());
    unsigned sum = 256;
    int signedSum = 256;
    for (unsigned i = 0; i < kBlockSize; ++i) {
      if (i >= 148 && i < 156) continue;
      sum += block[i];
      signedSum += static_cast<signed char>(block[i]);
    }
    EXPECT_EQ(sum, ClsTar::computeHeaderChecksum(block.data()));
    for (const char* form : {"%06o%c ", "%06o %c", "%7o%c", "%07o%c", "%08o"}) {
      const auto store = [&](unsigned stored) {
        char text[16];
        std::memset(text, 0, sizeof text);
        std::string pattern = form;  // one form, taken apart: the compiler wants to see literals
        const size_t width = static_cast<size_t>(pattern[1] == '0' ? pattern[2] - '0' : pattern[1] - '0');
        std::string digits(width, pattern[1] == '0' ? '0' : ' ');
        for (size_t i = width; i-- > 0 && stored > 0; stored /= 8) {
          digits[i] = static_cast<char>('0' + stored % 8);
        }
        if (pattern.size() > 4) digits += pattern[4] == ' ' ? " \0"s : "\0 "s;
        put(block, kChecksumField, digits.substr(0, 8));
      };
      store(sum);
      EXPECT_TRUE(hasValidChecksum(block.data())) << form;
      store(sum + 1);
      EXPECT_FALSE(hasValidChecksum(block.data())) << form;
      if (signedSum > 0) store(static_cast<unsigned>(signedSum));
      EXPECT_EQ(signedSum > 0, hasValidChecksum(block.data())) << form;
    }
  }
}
