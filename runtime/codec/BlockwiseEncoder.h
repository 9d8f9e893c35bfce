// An encoder that cuts an archive into blocks of one size, which are compressed side by side.
//
// GzipBlocks.cpp and Bzip2Blocks.cpp say what a block is. Here stands what is the same for both: how blocks
// are filled, handed to workers and taken back. It knows nothing of formats, and is called by the thread
// that writes the archive, like any encoder.
#pragma once

#include <new>

#include "runtime/buffer/DataBuffer.h"
#include "runtime/codec/Codec.h"
#include "runtime/io/Io.h"
#include "runtime/parallel/OrderedRing.h"

namespace morvane {

// `Block` is an OrderedRing::Job whose work() compresses what it holds; it keeps its buffers from one use to
// the next. What it has beside:
//   void begin(const Settings&, const Block* before): is empty, behind a block filled before it (null: none)
//   unsigned add(const unsigned char* bytes, unsigned n): takes as many bytes as there is room for
//   bool isFull() const
//   void end(bool last): nothing more comes for it; `last`: nothing more at all
//   unsigned size() const: the bytes that it took
//   const DataBuffer& out() const: what became of them
//   const char* failure() const: why they could not be compressed; null where they were
//
// Blocks depend on the bytes alone, so that the result is the same however many threads there are. Memory:
// twice as many blocks as threads, and one.
template <class Block, class Settings>
class BlockwiseEncoder : public Encoder {
 public:
  // `threads` is CodecOptions::threads. Each worker has a block in hand and one that waits for it, so that
  // none is idle while the first thread fills the next.
  BlockwiseEncoder(const Settings& settings, long long threads)
      : m_settings(settings), m_ring(workerCount(threads), 2 * (workerCount(threads) + 1)) {
    // From here on there is always a block that is being filled.
    m_ring.next().begin(m_settings, nullptr);
  }

  // The bytes are copied into the block that is being filled, because the caller's are gone when a worker
  // comes to it.
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

  // One block at a time, because all that are under way may be a hundred megabytes. The last one may be
  // empty: an archive of no bytes is a valid stream, too.
  bool finish(DataBuffer& ready, bool& isOut, const Io& io) override {
    if (!m_isLastIn) {
      Block& last = m_ring.next();
      last.end(true);
      m_ring.submit(last.size());
      m_isLastIn = true;
    }
    if (!takeOldest(ready, io)) return false;
    isOut = m_ring.isEmpty();
    return true;
  }

 protected:
  // Called for each block in its order. For what is summed up over all of them, such as a checksum. By the
  // first thread. A block that failed is not among them.
  virtual void onTaken(const Block&) {}

 private:
  // The block that is filled next is the ring's: room for it is made at once, because `next` must not be
  // called while it is full. What is done by now is taken as well, so that output flows while the archive is
  // still being read; two for each that is handed in, so that a backlog goes away and does not come out at
  // once.
  bool handIn(DataBuffer& ready, const Io& io) {
    Block& full = m_ring.next();
    full.end(false);
    m_ring.submit(full.size());
    for (int taken = 0; taken < 2 && (m_ring.isFull() || m_ring.oldestIsDone()); ++taken) {
      if (!takeOldest(ready, io)) return false;
    }
    // What is being compressed is only read, by both.
    m_ring.next().begin(m_settings, &full);
    return true;
  }

  // A block that failed ends the archive with its own reason. Those behind it are let go by the ring's end.
  // What its worker threw, which is memory that ran out, is thrown here.
  bool takeOldest(DataBuffer& ready, const Io& io) {
    const Block& block = m_ring.take();
    if (block.failure()) return io.fail(block.failure());
    onTaken(block);
    if (!ready.append(block.out())) throw std::bad_alloc();
    return true;
  }

  // The same for all blocks, so that they are like parts of one stream.
  const Settings m_settings;
  // The block that ends the stream was handed in.
  bool m_isLastIn = false;
  // The blocks, and the threads that compress them. Its destructor waits for the threads.
  RingOf<Block> m_ring;
};

}  // namespace morvane
