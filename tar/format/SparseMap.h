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

struct SparseRange {
  long long offset = 0, length = 0;  // bytes
};

class SparseMap {
 public:
  // More than a file of any use has; a map costs 16 bytes a range.
  static constexpr long long kMostRanges = 1000000;

  bool isSparse() const { return m_isSparse; }
  bool isInData() const { return m_isInData; }  // the ranges are yet to come: text at the front of the data
  long long realSize() const { return m_realSize; }
  const std::vector<SparseRange>& ranges() const { return m_ranges; }
  long long storedSize() const { return m_stored; }  // the bytes of all ranges
  // Whether the ranges lie in the file, one behind the other, and `stored` bytes fill them exactly.
  bool fits(long long stored) const;

  void clear();
  void begin(long long realSize) {
    m_isSparse = true;
    m_realSize = realSize;
  }
  void beginInData(long long realSize) {
    begin(realSize);
    m_isInData = true;
  }
  // Each of these is false when what it is given makes no sense; the map is then of no use.
  [[nodiscard]] bool add(long long offset, long long length);
  // `count` entries of GNU's form, of two 12-byte numbers each; an empty one ends them.
  [[nodiscard]] bool addOldEntries(const unsigned char* entries, unsigned count);
  // "offset,length,offset,length", as pax 0.1 has it.
  [[nodiscard]] bool addList(std::string_view text);

  static constexpr unsigned kEntriesInHeader = 4, kEntriesInBlock = 21;
  static constexpr unsigned kFirstInHeader = 386, kRealSizeInHeader = 483;  // byte offsets
  // A map that is written has an empty range at the end of a file that ends in a hole, because there are
  // readers that know the file's size by it.
  bool endsInHole() const;
  // Writes up to `count` entries of GNU's form, from the range `first` on; true when more are left.
  bool putOldEntries(size_t first, unsigned count, unsigned char* entries) const;

  // Takes what the block of a member of GNU's form has.
  [[nodiscard]] bool takeHeaderBlock(const unsigned char* block);

 private:
  bool m_isSparse = false, m_isInData = false;
  long long m_realSize = 0;
  long long m_stored = 0;  // the sum of the lengths
  std::vector<SparseRange> m_ranges;
};

// The map as pax 1.0 has it at the front of a member's data, filled up to whole blocks.
std::string sparseMapText(const SparseMap& map);

// Takes the map of pax 1.0 off the front of a member's data, in pieces of any size: decimal numbers, each
// ended by a newline: how many ranges, then offset and length of each; then what fills the last block.
class SparseMapText {
 public:
  enum class State { GoesOn, Complete, Wrong };
  // Takes bytes until the map is complete; `used` tells how many of them belong to it.
  State take(const char* bytes, unsigned n, unsigned& used, SparseMap& map);

 private:
  bool takeNumber(SparseMap& map);

  State m_state = State::GoesOn;
  long long m_number = 0;
  unsigned m_digits = 0;
  long long m_numbersLeft = -1;  // -1: how many there are comes next
  long long m_offset = -1;       // of a range whose length comes next
  long long m_taken = 0;         // bytes, to know where the last block ends
};

}  // namespace morvane
