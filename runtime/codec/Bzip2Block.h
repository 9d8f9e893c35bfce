// One block of bzip2 data, expanded by itself.
#pragma once

#include <memory>
#include <vector>

#include "runtime/codec/Bzip2Streams.h"
#include "runtime/parallel/OrderedRing.h"

namespace morvane {

// What lies between two marks, framed as a stream of its own. Whether it is a block at all is seen by
// expanding it: the checksum is right then, and the end is where the second mark stands.
class Bzip2Block : public OrderedRing::Job {
 public:
  // ---- Given by the first thread. Bits are counted from the first byte of the data.
  long long firstBit = 0, endBit = 0;
  bool isFirstOfStream = false;  // a stream's header stands right in front of it
  bool endsStream = false;       // the mark behind it is a stream's end
  int level = 9;
  std::vector<char> raw;  // from the byte with the first bit to the byte behind the last at least

  void work() override;

  // ---- What came of it
  bool isRight() const { return m_isRight; }
  unsigned crc() const { return m_crc; }
  bool hasOutput() const { return m_isLarge || m_taken < m_size; }
  // The next bytes of the output, up to `room`; none at the end. False when memory runs out.
  bool takeOutput(char* out, unsigned room, unsigned& n);

 private:
  // Most blocks are less than a megabyte expanded; long runs make more of them.
  static constexpr size_t kMostKept = 4 * 1024 * 1024;

  bool frame();
  bool expand();
  bool beginAgain();

  std::vector<char> m_framed, m_expanded;
  size_t m_size = 0;  // expanded bytes that are kept
  size_t m_taken = 0;
  bool m_isLarge = false;  // they were too many to be kept
  bool m_isRight = false;
  unsigned m_crc = 0;
  // A large block in its turn.
  LibBzip2Stream m_again;
  Bzip2Step m_againIn{nullptr, 0, nullptr, 0};
};

}  // namespace morvane
