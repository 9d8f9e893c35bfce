// bzip2 compresses blocks of 900 kB that know nothing of each other, so that a stream for each costs no more
// than its frame of some twenty bytes.
#include "runtime/codec/Bzip2Blocks.h"

#include <bzlib.h>

#include <algorithm>
#include <cstring>

#include "runtime/codec/BlockwiseEncoder.h"
#include "runtime/codec/MorvaneBzip2.h"

namespace morvane {

namespace {

constexpr unsigned kBlock = 900'000;
// As the library's manual has it: the most that becomes of a block, in one call. With so much room the call
// cannot fail for lack of it.
constexpr unsigned kMostOut = kBlock + kBlock / 100 + 600;

// BlockwiseEncoder wants some; bzip2 has but one level here.
struct NoSettings {};

// What becomes of each part of the archive is a whole stream, which the library makes in one call.
// From submit to take all of it is the worker's.
class StreamOfBlock : public OrderedRing::Job {
 public:
  // Nothing is taken over from the block before: that is what makes the streams independent. The memory is
  // made with the first use, because a small archive never gets to most of the blocks.
  void begin(NoSettings, const StreamOfBlock*) {
    if (!m_bytes) m_bytes = std::make_unique<char[]>(kBlock);
    m_size = 0;
  }
  unsigned add(const unsigned char* bytes, unsigned n) {
    n = std::min(n, kBlock - m_size);
    std::memcpy(m_bytes.get() + m_size, bytes, n);
    m_size += n;
    return n;
  }
  bool isFull() const { return m_size == kBlock; }
  // The last stream is like any other.
  void end(bool) {}

  // The library's memory, 7.6 MB, is taken for the length of the job: as many threads, as many times of it.
  void work() override {
    if (!m_compressed) m_compressed = std::make_unique<char[]>(kMostOut);
    unsigned n = kMostOut;
    const int state =
        BZ2_bzBuffToBuffCompress(m_compressed.get(), &n, m_bytes.get(), m_size, kBzip2BlockSize100k, 0, 0);
    m_failure = state == BZ_OK ? nullptr : state == BZ_MEM_ERROR ? kNoMemoryForBzip2 : kBzip2Failed;
    // Lent and not copied: the buffer stays as it is until the block is begun anew.
    m_out.borrowData(reinterpret_cast<const unsigned char*>(m_compressed.get()), n);
  }

  unsigned size() const { return m_size; }
  const DataBuffer& out() const { return m_out; }
  const char* failure() const { return m_failure; }

 private:
  std::unique_ptr<char[]> m_bytes, m_compressed;
  unsigned m_size = 0;
  // Lends the compressed bytes.
  DataBuffer m_out;
  const char* m_failure = nullptr;
};

}  // namespace

std::unique_ptr<Encoder> makeBzip2BlockEncoder(const CodecOptions& options) {
  return std::make_unique<BlockwiseEncoder<StreamOfBlock, NoSettings>>(NoSettings(), options.threads);
}

}  // namespace morvane
