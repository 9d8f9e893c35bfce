// The bytes of a source as a decompressor takes them: large pieces, and what was not used given back at the
// end. For the decoders of this room and nobody else.
#pragma once

#include <memory>
#include <new>

#include "runtime/io/Io.h"
#include "runtime/io/_mvDataSource.h"

namespace morvane {

// A source that lends its bytes is read without a copy, and what a decompressor took too much goes back to
// it. Any other is read through a buffer, made with the first piece, and what was taken too much of it is
// lost: so far does every decompressor promise where it leaves its source. One for a run of a decoder, on
// its stack.
class InputWindow {
 public:
  // Nothing is read yet. Both must outlive it.
  InputWindow(_mvDataSource& source, const Io& io) : m_source(source), m_io(io), m_lends(source.canLend()) {}

  // The next piece; n is 0 at the end of the data. It stays valid until the next call. False, with the reason
  // in the log, when the source fails, the monitor aborts or there is no memory for the buffer.
  bool next(const char*& bytes, unsigned& n) {
    n = 0;
    if (m_lends) return m_source.lend(kPiece, bytes, n, m_io.monitor, m_io.log);
    if (!m_own) m_own.reset(new (std::nothrow) char[kPiece]);
    if (!m_own) return m_io.fail("Out of memory for a read buffer.");
    bytes = m_own.get();
    return m_source.read(m_own.get(), kPiece, n, m_io.monitor, m_io.log);
  }
  // The last n bytes of the last piece were not used. Called once, at the end. An inflater holds a few whole
  // bytes back, so that n may be larger than that piece, by no more than the 16 bytes that takeBack allows.
  void giveBack(unsigned n) {
    if (m_lends && n > 0) m_source.takeBack(n);
  }

 private:
  // No more than this is taken in between two questions whether to abort, whatever comes out of it. It is
  // also the size of the buffer for a source that does not lend.
  static constexpr unsigned kPiece = 64 * 1024;

  // Neither is owned.
  _mvDataSource& m_source;
  // Whom the source is to ask and tell.
  const Io& m_io;
  // Whether the source lends is asked once: it does not change.
  const bool m_lends;
  // Only for a source that does not lend.
  std::unique_ptr<char[]> m_own;
};

}  // namespace morvane
