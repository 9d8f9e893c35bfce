// The map of a sparse member, read and written: GNU's old form (struct oldgnu_header of tar.h), the list of
// pax 0.1, and the text of pax 1.0 (the manual of GNU tar, "Sparse Formats").
#include "tar/format/SparseMap.h"

#include <charconv>
#include <limits>

#include "tar/format/TarBlock.h"
#include "tar/format/TarNumber.h"

namespace morvane {

namespace {

// As wide as the size in a header: eleven octal digits, and base-256 from 8 GiB on.
constexpr unsigned kNumberWidth = 12;

// False for a negative number, one over 63 bits, and what is none.
bool takeOldNumber(const unsigned char* entry, unsigned offset, long long& number) {
  const NumberField field = parseNumber(entry, {offset, kNumberWidth});
  number = static_cast<long long>(field.value);
  return field.state == NumberField::State::Ok;
}

}  // namespace

void SparseMap::clear() {
  m_isSparse = m_isInData = false;
  m_realSize = m_stored = 0;
  m_ranges.clear();
}

// Ranges go forward and do not overlap, because whoever spreads the bytes only moves forward. An empty range
// may stand where another one ends.
bool SparseMap::add(long long offset, long long length) {
  if (offset < 0 || length < 0 || static_cast<long long>(m_ranges.size()) >= kMostRanges) return false;
  // This sum is no more than the real size, since the range was taken here.
  const bool goesForward = m_ranges.empty() || offset >= m_ranges.back().offset + m_ranges.back().length;
  // Not by their sum, which may be more than the type holds: a file of 2^63-1 bytes would take it.
  if (!goesForward || offset > m_realSize || length > m_realSize - offset) return false;
  m_ranges.push_back({offset, length});
  m_stored += length;  // ranges do not overlap, so the sum is no more than the last one's end
  return true;
}

// add has seen to it that the ranges lie in the file.
bool SparseMap::fits(long long stored) const { return m_stored == stored; }

// Behind an entry that begins with a NUL the rest of the block means nothing. Such an entry may be missing
// where all are used.
bool SparseMap::addOldEntries(const unsigned char* entries, unsigned count) {
  for (unsigned i = 0; i < count; ++i) {
    const unsigned char* const entry = entries + i * 2 * kNumberWidth;
    if (entry[0] == '\0' || entry[kNumberWidth] == '\0') return true;
    long long offset = 0, length = 0;
    if (!takeOldNumber(entry, 0, offset) || !takeOldNumber(entry, kNumberWidth, length)) return false;
    if (!add(offset, length)) return false;
  }
  return true;
}

// The real size comes first, because every range is compared with it. Where only the ranges make no sense,
// the member is a sparse one all the same; the caller notes what was wrong.
bool SparseMap::takeHeaderBlock(const unsigned char* block) {
  long long realSize = 0;
  if (!takeOldNumber(block, kRealSizeInHeader, realSize)) return false;
  begin(realSize);
  return addOldEntries(block + kFirstInHeader, kEntriesInHeader);
}

// A file that is one hole has no range at all.
bool SparseMap::endsInHole() const {
  return m_ranges.empty() || m_ranges.back().offset + m_ranges.back().length < m_realSize;
}

// The closing entry is counted as one range more, wherever the cut between two blocks falls. The block's
// other bytes are left alone: they are zeros already, and an entry of zeros ends the list.
bool SparseMap::putOldEntries(size_t first, unsigned count, unsigned char* entries) const {
  // With the closing one.
  const size_t all = m_ranges.size() + (endsInHole() ? 1 : 0);
  for (unsigned i = 0; i < count && first + i < all; ++i) {
    const SparseRange range = first + i < m_ranges.size() ? m_ranges[first + i] : SparseRange{m_realSize, 0};
    unsigned char* const entry = entries + i * 2 * kNumberWidth;
    putNumber(entry, {0, kNumberWidth}, range.offset);
    putNumber(entry, {kNumberWidth, kNumberWidth}, range.length);
  }
  return first + count < all;
}

// A sign passes from_chars and is refused by add. A comma at the very end is let pass; half a pair is not.
bool SparseMap::addList(std::string_view text) {
  long long pair[2] = {0, 0};
  unsigned count = 0;
  while (!text.empty()) {
    const auto number = std::from_chars(text.data(), text.data() + text.size(), pair[count % 2]);
    if (number.ec != std::errc()) return false;
    text.remove_prefix(static_cast<size_t>(number.ptr - text.data()));
    if (!text.empty() && text.front() != ',') return false;
    if (!text.empty()) text.remove_prefix(1);
    // Offset and length stand in turns.
    if (++count % 2 == 0 && !add(pair[0], pair[1])) return false;
  }
  return count % 2 == 0;
}

// The count comes first, and is compared with the most before anything is kept. What follows are pairs.
bool SparseMapText::takeNumber(SparseMap& map) {
  // An empty line is no number.
  if (m_digits == 0) return false;
  if (m_numbersLeft < 0) {
    if (m_number > SparseMap::kMostRanges) return false;
    // A count of 0 leaves a file without data, and only the filling is still to come.
    m_numbersLeft = 2 * m_number;
  } else if (m_offset < 0) {
    m_offset = m_number;
    --m_numbersLeft;
  } else {
    if (!map.add(m_offset, m_number)) return false;
    m_offset = -1;
    --m_numbersLeft;
  }
  m_number = 0;
  m_digits = 0;
  return true;
}

// The filling is part of the member's data and counts in its size, as readers of this form expect.
std::string sparseMapText(const SparseMap& map) {
  const bool endsInHole = map.endsInHole();
  std::string text = std::to_string(map.ranges().size() + (endsInHole ? 1 : 0)) + "\n";
  const auto add = [&text](long long offset, long long length) {
    text += std::to_string(offset) + "\n" + std::to_string(length) + "\n";
  };
  for (const SparseRange& range : map.ranges()) add(range.offset, range.length);
  if (endsInHole) add(map.realSize(), 0);
  text.resize(static_cast<size_t>(paddedSize(static_cast<long long>(text.size()))), '\0');
  return text;
}

// The pieces are cut wherever a source cuts them, so that all of the state is in the object. What the filling
// is made of does not matter.
SparseMapText::State SparseMapText::take(const char* bytes, unsigned n, unsigned& used, SparseMap& map) {
  constexpr long long kLargest = std::numeric_limits<long long>::max();
  used = 0;
  while (m_state == State::GoesOn && used < n) {
    const bool isFilling = m_numbersLeft == 0;
    // The map ended with its block: what follows is data.
    if (isFilling && m_taken % kBlockSize == 0) break;
    const char c = bytes[used++];
    ++m_taken;
    if (isFilling) continue;
    if (c == '\n') {
      if (!takeNumber(map)) m_state = State::Wrong;
    } else if (c < '0' || c > '9' || m_number > (kLargest - (c - '0')) / 10) {
      m_state = State::Wrong;
    } else {
      ++m_digits;
      m_number = m_number * 10 + (c - '0');
    }
  }
  if (m_state == State::GoesOn && m_numbersLeft == 0 && m_taken % kBlockSize == 0) m_state = State::Complete;
  return m_state;
}

}  // namespace morvane
