// How large a window the header of a zstd frame claims (RFC 8878, 3.1.1.1), told before the library takes the
// memory. The library's own limit is a power of two, and so too coarse for one that is given in bytes.
//
// Not thread safe; a decoder has one, and feeds it with what it is about to hand to the library.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "runtime/codec/Codec.h"

namespace morvane {

// The first bytes of one frame after the other, of which each may come in any pieces.
class ZstdWindow {
 public:
  // The next byte is the first of a frame.
  // Also where a skippable frame begins: it is one without a claim.
  void beginFrame() { m_head.clear(); }
  // Keeps what may belong to the header; what comes behind it changes nothing. Called before the library gets
  // the bytes, so that the last byte of a header is judged before the library acts on it.
  void add(const void* bytes, std::size_t n) {
    constexpr std::size_t kLongestHeader = 18;
    m_head.append(static_cast<const char*>(bytes), std::min(n, kLongestHeader - m_head.size()));
  }
  // Whether no frame begins so. The library would take the formats from before 0.8 as well, whose decoders
  // know no limit. False as long as that cannot be told.
  bool isForeign() const {
    const auto* const head = reinterpret_cast<const unsigned char*>(m_head.data());
    return m_head.size() >= kMagicSize &&
           !codecOf(Compression::Zstd).hasMagic(head, static_cast<unsigned>(m_head.size()));
  }
  // In bytes. 0 as long as the header is not whole, and of what is no frame or may be skipped: the library
  // takes no memory for these. A claim may be any number, as nobody has looked at it yet.
  std::uint64_t claimed() const {
    constexpr std::size_t kDescriptorAt = kMagicSize;
    if (m_head.size() <= kDescriptorAt + 1 || m_head.compare(0, kMagicSize, kMagic) != 0) return 0;
    const unsigned descriptor = byteAt(kDescriptorAt);
    // Without the flag a window is stated, right behind the descriptor; with it the window is the whole
    // content, whose size is stated.
    constexpr unsigned kSingleSegment = 0x20;
    if (!(descriptor & kSingleSegment)) return windowOf(byteAt(kDescriptorAt + 1));
    constexpr std::size_t kDictionaryIdSizes[] = {0, 1, 2, 4};
    return contentSize(kDescriptorAt + 1 + kDictionaryIdSizes[descriptor & 3], descriptor >> 6);
  }

 private:
  static constexpr std::size_t kMagicSize = 4;
  static constexpr char kMagic[] = "\x28\xB5\x2F\xFD";

  unsigned byteAt(std::size_t at) const { return static_cast<unsigned char>(m_head[at]); }
  // Five bits of exponent and three of mantissa: 1 KiB to 3.75 TiB.
  static std::uint64_t windowOf(unsigned byte) {
    const std::uint64_t base = std::uint64_t{1} << (10 + (byte >> 3));
    return base + base / 8 * (byte & 7);
  }
  // Of 1, 2, 4 or 8 bytes. Of two the value begins at 256, where one byte ends.
  std::uint64_t contentSize(std::size_t at, unsigned sizeFlag) const {
    const std::size_t n = std::size_t{1} << sizeFlag;
    if (m_head.size() < at + n) return 0;
    std::uint64_t size = n == 2 ? 256 : 0;
    for (std::size_t i = 0; i < n; ++i) size += std::uint64_t{byteAt(at + i)} << (8 * i);
    return size;
  }

  // Pieces may end within a header, so it is gathered.
  std::string m_head;  // from the frame's first byte on, 18 bytes at most
};

}  // namespace morvane
