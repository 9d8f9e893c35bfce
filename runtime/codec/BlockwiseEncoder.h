// An encoder that cuts an archive into blocks of one size, which are compressed side by side.
#pragma once

#include "runtime/buffer/DataBuffer.h"
#include "runtime/codec/Codec.h"
#include "runtime/io/Io.h"
#include "runtime/parallel/OrderedRing.h"

namespace morvane {

// `Block` is a job with what is said here; it keeps its buffers from one use to the next.
//   void begin(const Settings&, const Block* before): empty, behind the block that was filled before it, if
//   any unsigned add(const unsigned char* bytes, unsigned n): takes as many bytes as there is room for bool
//   isFull() const void end(bool last): nothing more comes, or nothing more at all unsigned size() const;
//   const DataBuffer& out() const const char* failure() const: why it could not be compressed; null where it
//   was
// Blocks depend on the bytes alone, so that the result is the same however many threads there are. Memory:
// twice as many blocks as threads, and one.
template <class Block, class Settings>
class BlockwiseEncoder : public Encoder {
 public:
  BlockwiseEncoder(const Settings& settings, long long threads)
      : m_settings(settings), m_ring(workerCount(threads), 2 * (workerCount(threads) + 1)) {
    m_ring.next().begin(m_settings, nullptr);
  }

  bool add(const unsigned char* bytes, unsigned n, DataBuffer& ready, const Io& io) override {
    while (n > 0) {
      // Only when more comes: the last block has to know that it is the last.
      if (m_ring.next().isFull() && !handIn(ready, io)) return false;
      const unsigned taken = m_ring.next().add(bytes, n);
      bytes += taken;
      n -= taken;
    }
    return true;
  }

  bool finish(DataBuffer& ready, const Io& io) override {
    Block& last = m_ring.next();
    last.end(true);
    m_ring.submit(last.size());
    while (!m_ring.isEmpty()) {
      if (!takeOldest(ready, io)) return false;
    }
    return true;
  }

 protected:
  // Called for each block in its order.
  virtual void onTaken(const Block&) {}

 private:
  // The block that is filled next is the ring's: room for it is made at once.
  bool handIn(DataBuffer& ready, const Io& io) {
    Block& full = m_ring.next();
    full.end(false);
    m_ring.submit(full.size());
    while (m_ring.isFull() || m_ring.oldestIsDone()) {
      if (!takeOldest(ready, io)) return false;
    }
    // What is being compressed is only read, by both.
    m_ring.next().begin(m_settings, &full);
    return true;
  }

  bool takeOldest(DataBuffer& ready, const Io& io) {
    const Block& block = m_ring.take();
    if (block.failure()) return io.fail(block.failure());
    onTaken(block);
    if (!ready.append(block.out())) throw std::bad_alloc();
    return true;
  }

  const Settings m_settings;
  RingOf<Block> m_ring;
};

}  // namespace morvane
