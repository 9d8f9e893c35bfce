// An encoder that is chosen once it is known whether there is much to compress: a library's own threads are
// not worth being made for little.
#pragma once

#include <functional>
#include <memory>

#include "runtime/buffer/DataBuffer.h"
#include "runtime/codec/Codec.h"
#include "runtime/parallel/WorkerThread.h"

namespace morvane {

// Holds the first megabyte. Which encoder it is depends on the archive's size, and on whether the system
// gives any thread at all.
class LateEncoder : public Encoder {
 public:
  // Called once. Up to `threads`, as many as are to be had, where there is more than a megabyte; else 0, for
  // the calling thread.
  using Make = std::function<std::unique_ptr<Encoder>(unsigned threads)>;
  LateEncoder(unsigned threads, Make make) : m_threads(threads), m_make(std::move(make)) {}

  bool add(const unsigned char* bytes, unsigned n, DataBuffer& ready, const Io& io) override {
    if (m_encoder) return m_encoder->add(bytes, n, ready, io);
    if (!m_held.append(bytes, n)) throw std::bad_alloc();
    return m_held.getSize() <= kWorthThreads || choose(true, ready, io);
  }
  bool finish(DataBuffer& ready, const Io& io) override {
    return (m_encoder || choose(false, ready, io)) && m_encoder->finish(ready, io);
  }

 private:
  static constexpr unsigned kWorthThreads = 1024 * 1024;

  bool choose(bool isLarge, DataBuffer& ready, const Io& io) {
    m_encoder = m_make(isLarge ? threadsToBeHad(m_threads) : 0);
    const bool added = m_encoder->add(m_held.getData2(), m_held.getSize(), ready, io);
    m_held.clear();
    return added;
  }

  const unsigned m_threads;
  const Make m_make;
  DataBuffer m_held;
  std::unique_ptr<Encoder> m_encoder;  // null: not chosen yet
};

}  // namespace morvane
