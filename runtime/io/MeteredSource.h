// Counts what is taken from a source, which it does not own and otherwise stands for.
#pragma once

#include "runtime/io/_mvDataSource.h"

namespace morvane {

// For limits that compare what goes into a decompressor with what comes out. Bytes that a seek passes are not
// counted, because no decompressor seeks.
class MeteredSource : public _mvDataSource {
 public:
  // The source must outlive it.
  explicit MeteredSource(_mvDataSource& source) : m_source(source) {}
  // Read and lent, less what was taken back.
  long long bytesTaken() const { return m_taken; }

  // A read that fails counts nothing.
  bool readSourcePM(char* buffer, unsigned int n, unsigned int& numRead, ProgressMonitor* pm,
                    LogBase& log) override {
    const bool ok = m_source.readSourcePM(buffer, n, numRead, pm, log);
    if (ok) m_taken += numRead;
    return ok;
  }
  bool endOfStream() override { return m_source.endOfStream(); }
  bool canLend() override { return m_source.canLend(); }
  bool lendBytes(unsigned most, const char*& bytes, unsigned& n, ProgressMonitor* pm, LogBase& log) override {
    const bool ok = m_source.lendBytes(most, bytes, n, pm, log);
    if (ok) m_taken += n;
    return ok;
  }
  void takeBack(unsigned n) override {
    m_source.takeBack(n);
    m_taken -= n;
  }
  bool canPeek() override { return m_source.canPeek(); }
  // What is only shown is not taken.
  bool peekBytes(unsigned n, const char*& bytes, unsigned& got, ProgressMonitor* pm, LogBase& log) override {
    return m_source.peekBytes(n, bytes, got, pm, log);
  }
  long long ftell64() override { return m_source.ftell64(); }
  long long sizeIfKnown() override { return m_source.sizeIfKnown(); }
  bool fseekAbsolute64(long long position, LogBase& log) override {
    return m_source.fseekAbsolute64(position, log);
  }

 private:
  _mvDataSource& m_source;
  // Bytes, from the beginning of this object on.
  long long m_taken = 0;
};

}  // namespace morvane
