// Counts what is taken from a source, which it does not own and otherwise stands for.
#pragma once

#include "runtime/io/_mvDataSource.h"

namespace morvane {

// For limits that compare what goes into a decompressor with what comes out. Bytes that a seek passes are not
// counted, because no decompressor seeks. Everything else is passed on as it is: pieces, errors, and the
// terms on which bytes are lent. It asks and tells the monitor nothing by itself, because the source does.
class MeteredSource : public _mvDataSource {
 public:
  // The source must outlive it.
  explicit MeteredSource(_mvDataSource& source) : m_source(source) {}
  // Read and lent, less what was taken back. It is read between two writes of the decompressor (RatioLimit),
  // so it counts what was handed out and not what a source read ahead.
  long long bytesTaken() const { return m_taken; }

  // A read that fails counts nothing. The monitor and the log are the reader's, handed on.
  bool readSourcePM(char* buffer, unsigned int n, unsigned int& numRead, ProgressMonitor* pm,
                    LogBase& log) override {
    const bool ok = m_source.readSourcePM(buffer, n, numRead, pm, log);
    if (ok) m_taken += numRead;
    return ok;
  }
  // Asked of the source itself, which may know its end before a read has met it.
  bool endOfStream() override { return m_source.endOfStream(); }
  // Which way bytes are taken is the source's to say.
  bool canLend() override { return m_source.canLend(); }
  // Lent bytes count at once, although the borrower may give some of them back.
  bool lendBytes(unsigned most, const char*& bytes, unsigned& n, ProgressMonitor* pm, LogBase& log) override {
    const bool ok = m_source.lendBytes(most, bytes, n, pm, log);
    if (ok) m_taken += n;
    return ok;
  }
  // Bytes that are lent again are counted once.
  void takeBack(unsigned n) override {
    m_source.takeBack(n);
    m_taken -= n;
  }
  // Looking ahead is what tells one compression from another, before any decompressor begins.
  bool canPeek() override { return m_source.canPeek(); }
  // What is only shown is not taken.
  bool peekBytes(unsigned n, const char*& bytes, unsigned& got, ProgressMonitor* pm, LogBase& log) override {
    return m_source.peekBytes(n, bytes, got, pm, log);
  }
  // Positions are the source's, and tell nothing of what was taken.
  long long ftell64() override { return m_source.ftell64(); }
  // Of all of the source, from its position 0 on.
  long long sizeIfKnown() override { return m_source.sizeIfKnown(); }
  // What it passes is not counted.
  bool fseekAbsolute64(long long position, LogBase& log) override {
    return m_source.fseekAbsolute64(position, log);
  }

 private:
  // Not owned.
  _mvDataSource& m_source;
  // Bytes, from the beginning of this object on.
  long long m_taken = 0;
};

}  // namespace morvane
