// The beginning of an expansion, done by the calling thread until so much has come that a thread is worth it.
#pragma once

#include <functional>
#include <vector>

#include "runtime/io/AheadSource.h"
#include "runtime/io/_mvOutput.h"

namespace morvane {

// Stands between a decompressor and its source and output, and counts what it does. A decompressor cannot go
// over to another thread in its midst; but a second one that is given the same pieces does the same again, so
// that it can go on where the first was left. The first is left by an exception, when it wants more.
class SmallStart : public _mvDataSource, public _mvOutput {
 public:
  struct Left {};

  // `ahead` has not been read yet; `heard` is it, or stands in front of it. Once `most` bytes were read
  // `isLeft` is called, once; where it says no the decompressor goes on to the end.
  SmallStart(AheadSource& ahead, _mvDataSource& heard, _mvOutput& out, long long most,
             std::function<bool()> isLeft)
      : m_ahead(ahead), m_heard(heard), m_out(out), m_most(most), m_isLeft(std::move(isLeft)) {}

  // How many reads, bytes taken back and writes there were, and the pieces that the reads had.
  unsigned long long steps() const { return m_steps; }
  std::vector<AheadSource::PiecePtr>& pieces() { return m_pieces; }

  bool canLend() override { return true; }
  bool lendBytes(unsigned most, const char*& bytes, unsigned& n, ProgressMonitor* pm, LogBase& log) override {
    beforeRead();
    return m_heard.lendBytes(most, bytes, n, pm, log);
  }
  bool readSourcePM(char* buffer, unsigned n, unsigned& numRead, ProgressMonitor* pm, LogBase& log) override {
    beforeRead();
    return m_heard.readSourcePM(buffer, n, numRead, pm, log);
  }
  void takeBack(unsigned n) override {
    ++m_steps;
    m_heard.takeBack(n);
  }
  bool _writeBytes(const char* bytes, unsigned n, _mvIoParams& params, LogBase& log) override {
    ++m_steps;
    return m_out._writeBytes(bytes, n, params, log);
  }

  // Both bases have them; no decompressor seeks.
  bool fseekAbsolute64(long long, LogBase&) override { return false; }
  long long ftell64() override { return -1; }

 private:
  void beforeRead() {
    if (m_ahead.isDrained()) {
      if (m_most > 0 && m_fetched >= m_most) {
        m_most = 0;
        if (m_isLeft()) throw Left();
      }
      const AheadSource::PiecePtr piece = m_ahead.fetch();
      m_fetched += piece->size;
      if (m_most > 0) m_pieces.push_back(piece);
    }
    ++m_steps;
  }

  AheadSource& m_ahead;
  _mvDataSource& m_heard;
  _mvOutput& m_out;
  long long m_most;  // 0: it was asked
  const std::function<bool()> m_isLeft;
  unsigned long long m_steps = 0;
  long long m_fetched = 0;
  std::vector<AheadSource::PiecePtr> m_pieces;
};

}  // namespace morvane
