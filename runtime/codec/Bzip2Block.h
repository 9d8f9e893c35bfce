// One block of bzip2 data, expanded by itself. Bzip2Foresight.cpp finds the blocks and takes what comes of
// them; a worker does the expanding.
#pragma once

#include <memory>
#include <vector>

#include "runtime/codec/Bzip2Streams.h"
#include "runtime/parallel/OrderedRing.h"

namespace morvane {

// What lies between two marks, framed as a stream of its own. Whether it is a block at all is seen by
// expanding it: the checksum is right then, and the end is where the second mark stands. Anything else that
// happens to look like a mark fails one of the two.
class Bzip2Block : public OrderedRing::Job {
 public:
  // ---- Given by the first thread. Bits are counted from the first byte of the data. The end is the first
  // bit of the next mark.
  long long firstBit = 0, endBit = 0;
  int level = 9;
  std::vector<char> raw;  // from the byte with the first bit to the byte behind the last at least

  void work() override;

  // ---- What came of it. Of the first thread, once the job has been taken.
  //
  // Whether this was a block, and there was the memory to expand it to its end. If not, nothing else here is
  // of meaning.
  bool isRight() const { return m_isRight; }
  // The checksum that stands in the block, and that its output has been found to have.
  unsigned crc() const { return m_crc; }
  // Whether takeOutput has something left to give. A large block is asked until it says that it has ended.
  bool hasOutput() const { return m_isLarge || m_taken < m_size; }
  // The next bytes of the output, up to `room`; none at the end. False when memory runs out. A large block
  // is expanded again meanwhile, by the first thread.
  bool takeOutput(char* out, unsigned room, unsigned& n);

 private:
  // Most blocks are less than a megabyte expanded; long runs make more of them, up to 46 MB. What is more
  // than this is expanded again when it is taken, so that a hostile archive cannot make each slot so large.
  static constexpr size_t kMostKept = 4 * 1024 * 1024;

  // The steps of work. `frame` puts a stream's header and end around the bits; `expand` sees whether that
  // is right.
  bool frame();
  bool expand();
  bool beginAgain();

  // Kept from one use to the next. Of a large block m_framed is read again.
  std::vector<char> m_framed, m_expanded;
  size_t m_size = 0;  // expanded bytes that are kept
  // Of those, how many takeOutput has given.
  size_t m_taken = 0;
  bool m_isLarge = false;  // they were too many to be kept
  // Set by the worker at its end.
  bool m_isRight = false;
  unsigned m_crc = 0;
  // A large block in its turn.
  LibBzip2Stream m_again;
  Bzip2Step m_againIn{nullptr, 0, nullptr, 0};
};

}  // namespace morvane
