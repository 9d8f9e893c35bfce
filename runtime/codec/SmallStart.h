// The beginning of an expansion, done by the calling thread until so much has come that a thread is worth
// it.
//
// For a source whose size is not known, such as a pipe: a small archive then costs no thread, and a large
// one only the beginning twice.
#pragma once

#include <functional>
#include <vector>

#include "runtime/io/AheadSource.h"
#include "runtime/io/_mvOutput.h"

namespace morvane {

// Stands between a decompressor and its source and output, and counts what it does. A decompressor cannot
// go over to another thread in its midst; but a second one that is given the same pieces does the same
// again, so that it can go on where the first was left. The first is left by an exception, when it wants
// more. Used by expandAhead, on the first thread, where the size of the source is not known.
class SmallStart : public _mvDataSource, public _mvOutput {
 public:
  // Thrown out of a read, through the decompressor, whose own objects clean up behind it. No caller of the
  // codec sees it.
  struct Left {};

  // `ahead` has not been read yet; `heard` is it, or stands in front of it. Once `most` bytes were read
  // `isLeft` is called, once; where it says no the decompressor goes on to the end. `most` is in bytes and
  // more than 0.
  SmallStart(AheadSource& ahead, _mvDataSource& heard, _mvOutput& out, long long most,
             std::function<bool()> isLeft)
      : m_ahead(ahead), m_heard(heard), m_out(out), m_most(most), m_isLeft(std::move(isLeft)) {}

  // How many reads, bytes taken back and writes there were, and the pieces that the reads had. A read that
  // leaves is not among them.
  unsigned long long steps() const { return m_steps; }
  // Both are for whoever lets a second decompressor do the same again.
  std::vector<AheadSource::PiecePtr>& pieces() { return m_pieces; }

  // AheadSource lends, and so does what stands in front of it. The decompressor has to see the same answer
  // from the second source that it is given.
  bool canLend() override { return true; }
  // Each of these is one step, counted in the way in which ExpandAhead.cpp's Recorder records them.
  bool lendBytes(unsigned most, const char*& bytes, unsigned& n, ProgressMonitor* pm, LogBase& log) override {
    beforeRead();
    return m_heard.lendBytes(most, bytes, n, pm, log);
  }
  // Of a decoder that reads a few bytes by themselves, as headers are read.
  bool readSourcePM(char* buffer, unsigned n, unsigned& numRead, ProgressMonitor* pm, LogBase& log) override {
    beforeRead();
    return m_heard.readSourcePM(buffer, n, numRead, pm, log);
  }
  // Never leaves: it needs no further bytes, and must not be half done.
  void takeBack(unsigned n) override {
    ++m_steps;
    m_heard.takeBack(n);
  }
  // Straight to the output, and counted: whoever does the same again leaves out as many steps.
  bool _writeBytes(const char* bytes, unsigned n, _mvIoParams& params, LogBase& log) override {
    ++m_steps;
    return m_out._writeBytes(bytes, n, params, log);
  }

  // Both bases have them; no decompressor seeks.
  bool fseekAbsolute64(long long, LogBase&) override { return false; }
  long long ftell64() override { return -1; }

 private:
  // A read that would need further bytes of the source is where the first decompressor may be left, because
  // nothing of that read has happened yet: so it is counted only when it goes on. The pieces are shared,
  // not copied.
  void beforeRead() {
    if (m_ahead.isDrained()) {
      if (m_most > 0 && m_fetched >= m_most) {
        m_most = 0;
        if (m_isLeft()) throw Left();
        // Nobody will do it again.
        m_pieces.clear();
      }
      const AheadSource::PiecePtr piece = m_ahead.fetch();
      m_fetched += piece->size;
      if (m_most > 0) m_pieces.push_back(piece);
    }
    ++m_steps;
  }

  // Asked whether the next read has its bytes; the reading itself goes through m_heard, which may count.
  AheadSource& m_ahead;
  _mvDataSource& m_heard;
  _mvOutput& m_out;
  long long m_most;  // 0: it was asked
  // Starts the other thread; false where there is none to be had.
  const std::function<bool()> m_isLeft;
  // Up to the read that leaves.
  unsigned long long m_steps = 0;
  // Bytes of all pieces so far, kept or not.
  long long m_fetched = 0;
  // In the order in which they were read, until it has been asked.
  std::vector<AheadSource::PiecePtr> m_pieces;
};

}  // namespace morvane
