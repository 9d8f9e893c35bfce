// The bytes of a source as a decompressor takes them: large pieces, and what was not used given back at the
// end.
#pragma once

#include <memory>
#include <new>

#include "runtime/io/_mvDataSource.h"
#include "runtime/log/LogBase.h"

namespace morvane {

class InputWindow {
 public:
  InputWindow(_mvDataSource& source, ProgressMonitor* pm, LogBase& log)
      : m_source(source), m_pm(pm), m_log(log), m_lends(source.canLend()) {}

  // The next piece; n is 0 at the end of the data.
  bool next(const char*& bytes, unsigned& n) {
    n = 0;
    if (m_lends) return m_source.lend(kPiece, bytes, n, m_pm, m_log);
    if (!m_own) m_own.reset(new (std::nothrow) char[kPiece]);
    if (!m_own) {
      m_log.LogError("Out of memory for a read buffer.");
      return false;
    }
    bytes = m_own.get();
    return m_source.read(m_own.get(), kPiece, n, m_pm, m_log);
  }
  // The last n bytes of the last piece were not used.
  void giveBack(unsigned n) {
    if (m_lends && n > 0) m_source.takeBack(n);
  }

 private:
  // No more than this is taken in between two questions whether to abort, whatever comes out of it.
  static constexpr unsigned kPiece = 64 * 1024;

  _mvDataSource& m_source;
  ProgressMonitor* const m_pm;
  LogBase& m_log;
  const bool m_lends;
  std::unique_ptr<char[]> m_own;
};

}  // namespace morvane
