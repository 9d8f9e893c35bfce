// Where the stored bytes of a sparse member belong: the ranges of the file that are no holes.
//
// Four forms are in use. GNU's oldest has the first four ranges in the member's block and 21 in each further
// block in front of the data; pax 0.0 has them as repeated records, 0.1 as one comma list, 1.0 as text at the
// front of the data, filled up to a whole block. Every number in them is a claim.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace morvane {

// Neither is negative in a map, and their sum fits in 63 bits.
struct SparseRange {
  long long offset = 0, length = 0;  // bytes
};

// A value. What is read is checked as it is added, so that every map that was taken without a failure can be
// used as it is. `begin` comes before the ranges, because they are compared with the real size. Memory: the
// ranges. Throws std::bad_alloc only.
class SparseMap {
 public:
  // More than a file of any use has; a map costs 16 bytes a range.
  static constexpr long long kMostRanges = 1000000;

  // Whether a map was begun at all.
  bool isSparse() const { return m_isSparse; }
  bool isInData() const { return m_isInData; }  // the ranges are yet to come: text at the front of the data
  // Of the file in bytes, holes included: a claim, and nothing is ever allocated by it.
  long long realSize() const { return m_realSize; }
  const std::vector<SparseRange>& ranges() const { return m_ranges; }
  long long storedSize() const { return m_stored; }  // the bytes of all ranges
  // Whether the ranges lie in the file, one behind the other, and `stored` bytes fill them exactly.
  bool fits(long long stored) const;

  // Back to a member without a map. The ranges' memory is kept.
  void clear();
  // `realSize` is 0 or more.
  void begin(long long realSize) {
    m_isSparse = true;
    m_realSize = realSize;
  }
  void beginInData(long long realSize) {
    begin(realSize);
    m_isInData = true;
  }
  // Each of these is false when what it is given makes no sense; the map is then of no use. A range begins
  // not before the end of the last one, and ends not beyond the real size.
  [[nodiscard]] bool add(long long offset, long long length);
  // `count` entries of GNU's form, of two 12-byte numbers each; an empty one ends them.
  [[nodiscard]] bool addOldEntries(const unsigned char* entries, unsigned count);
  // "offset,length,offset,length", as pax 0.1 has it.
  [[nodiscard]] bool addList(std::string_view text);

  // GNU's form: how many entries there is room for, and where they and the real size stand in the header
  // block. The bytes are those of POSIX's prefix.
  static constexpr unsigned kEntriesInHeader = 4, kEntriesInBlock = 21;
  static constexpr unsigned kFirstInHeader = 386, kRealSizeInHeader = 483;  // byte offsets
  // A map that is written has an empty range at the end of a file that ends in a hole, because there are
  // readers that know the file's size by it.
  bool endsInHole() const;
  // Writes up to `count` entries of GNU's form, from the range `first` on; true when more are left. An entry
  // has 24 bytes. What is not needed of the room stays as it is.
  bool putOldEntries(size_t first, unsigned count, unsigned char* entries) const;

  // Takes what the block of a member of GNU's form has. Further blocks are given to addOldEntries. `block`
  // has 512 bytes.
  [[nodiscard]] bool takeHeaderBlock(const unsigned char* block);

 private:
  bool m_isSparse = false, m_isInData = false;
  // Of the file that the member is.
  long long m_realSize = 0;
  long long m_stored = 0;  // the sum of the lengths
  std::vector<SparseRange> m_ranges;
};

// The map as pax 1.0 has it at the front of a member's data, filled up to whole blocks.
std::string sparseMapText(const SparseMap& map);

// Takes the map of pax 1.0 off the front of a member's data, in pieces of any size: decimal numbers, each
// ended by a newline: how many ranges, then offset and length of each; then what fills the last block. One
// for a member; a map of any length costs it no memory of its own.
class SparseMapText {
 public:
  enum class State { GoesOn, Complete, Wrong };
  // Takes bytes until the map is complete; `used` tells how many of them belong to it. Behind Complete or
  // Wrong nothing more is taken.
  State take(const char* bytes, unsigned n, unsigned& used, SparseMap& map);

 private:
  // The number that has just ended; false when it makes no sense where it stands.
  bool takeNumber(SparseMap& map);

  State m_state = State::GoesOn;
  // The number that is being read, and how many digits it has so far.
  long long m_number = 0;
  unsigned m_digits = 0;
  long long m_numbersLeft = -1;  // -1: how many there are comes next
  long long m_offset = -1;       // of a range whose length comes next
  long long m_taken = 0;         // bytes, to know where the last block ends
};

}  // namespace morvane
