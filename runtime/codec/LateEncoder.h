// An encoder that is chosen once it is known whether there is much to compress: a library's own threads are
// not worth being made for little.
//
// Called by the one thread that writes the archive. Who makes one says how the real encoder is made;
// nothing here knows which library that is.
#pragma once

#include <functional>
#include <memory>
#include <new>

#include "runtime/buffer/DataBuffer.h"
#include "runtime/codec/Codec.h"
#include "runtime/parallel/WorkerThread.h"

namespace morvane {

// Holds the first megabyte. Which encoder it is depends on the archive's size, and on whether the system
// gives any thread at all. So it can be of those alone that write nothing in front of their data, which comes
// before the choice. Used for zstd and xz, whose libraries bring their own threads.
class LateEncoder : public UnframedEncoder {
 public:
  // Called once. Up to `threads`, as many as are to be had, where there is more than a megabyte; else 0,
  // for the calling thread. What `make` throws, std::bad_alloc, gets through.
  using Make = std::function<std::unique_ptr<UnframedEncoder>(unsigned threads)>;
  // `threads` is at least 1. `make` is kept until it was called.
  LateEncoder(unsigned threads, Make make) : m_threads(threads), m_make(std::move(make)) {}

  // Until the choice is made nothing becomes ready and nothing can fail but memory.
  bool add(const unsigned char* bytes, unsigned n, DataBuffer& ready, const Io& io) override {
    if (m_encoder) return m_encoder->add(bytes, n, ready, io);
    if (!m_held.append(bytes, n)) throw std::bad_alloc();
    return m_held.getSize() <= kWorthThreads || choose(true, ready, io);
  }
  // What was never chosen is little: it is compressed here, by the calling thread.
  bool finish(DataBuffer& ready, bool& isOut, const Io& io) override {
    return (m_encoder || choose(false, ready, io)) && m_encoder->finish(ready, isOut, io);
  }

 private:
  // Less than a megabyte is compressed sooner than threads and their windows are made.
  static constexpr unsigned kWorthThreads = 1024 * 1024;

  // The system is asked for threads first, because a library that gets fewer than it was told to make fails
  // altogether. What was held goes in as one piece and is let go.
  bool choose(bool isLarge, DataBuffer& ready, const Io& io) {
    m_encoder = m_make(isLarge ? threadsForLibrary() : 0);
    const bool added = m_encoder->add(m_held.getData2(), m_held.getSize(), ready, io);
    m_held.clear();
    return added;
  }

  // Libraries make their threads late, one by one, and whoever works beside them makes some meanwhile: as
  // many again are left for those. Fewer than wanted only where they are scarce.
  unsigned threadsForLibrary() const {
    const unsigned had = threadsToBeHad(2 * m_threads);
    return had > m_threads ? had - m_threads : 0;
  }

  // As many as would be of use.
  const unsigned m_threads;
  // How to make the encoder; the options are in it.
  const Make m_make;
  // A megabyte and one piece at most; empty once the choice is made.
  DataBuffer m_held;
  // Its threads, if it has any, are gone with it.
  std::unique_ptr<UnframedEncoder> m_encoder;  // null: not chosen yet
};

}  // namespace morvane
