// Header blocks put together field by field, for tests of single rules.
#pragma once

#include <array>
#include <cstring>
#include <string>

#include "ArchiveSupport.h"
#include "tar/format/TarNumber.h"

namespace morvane::testing {

using Block = std::array<unsigned char, kBlockSize>;

inline const std::string kPosix = "ustar\0"s + "00";

// A block with these fields (field, bytes, field, bytes ...) and a right checksum.
inline void putAll(Block&) {}
template <class... Rest>
void putAll(Block& block, Field field, const std::string& bytes, const Rest&... rest) {
  ASSERT_LE(bytes.size(), field.width);
  std::memcpy(block.data() + field.offset, bytes.data(), bytes.size());
  putAll(block, rest...);
}
template <class... Fields>
Block blockOf(const Fields&... fields) {
  Block block{};
  putAll(block, fields...);
  putChecksum(block.data());
  return block;
}

inline std::string textOf(const Block& block) { return std::string(block.begin(), block.end()); }

inline std::string octal(unsigned value, size_t width) {
  std::string digits(width, '0');
  for (size_t i = width; i-- > 0 && value > 0; value /= 8) digits[i] = static_cast<char>('0' + value % 8);
  return digits;
}

}  // namespace morvane::testing
