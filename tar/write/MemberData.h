// The data of one member, copied from its source into the archive in pieces of at most 20,000 bytes.
#pragma once

#include "tar/write/SourceFile.h"
#include "tar/write/WriteRun.h"

namespace morvane {

// It holds nothing between two calls. Counts are bytes of data; the padding behind them is the caller's to
// write. It writes where the run's output leads, and knows nothing of headers.
class MemberData {
 public:
  explicit MemberData(WriteRun& run) : m_run(run) {}

  // How a copy went. One that a failed read ended is no failure of the archive. Without `ok` the reason is in
  // the log, but for a lack of memory.
  struct Copied {
    bool ok = false;  // every byte that was read is in the archive
    bool readFailed = false;
    long long bytes = 0;
  };

  // Up to `most` bytes of an open source file: read straight into the output's buffer, where it has one. It
  // is read from where it stands. `most` is 0 or more.
  Copied copyFile(SourceFile& file, long long most);
  // Up to `most` bytes of any source, which is read without the monitor: an abort is for the output's side to
  // report.
  Copied copySource(_mvDataSource& source, long long most);
  // Bytes that lie in memory. False, with the reason in the log, when the output refuses a piece or the
  // application aborts.
  [[nodiscard]] bool put(const char* bytes, unsigned n);

  // More than any file has. For sources whose size does not count.
  static constexpr long long kToTheEnd = 0x7FFFFFFFFFFFFFFF;

 private:
  // `copied` goes on from what it is.
  void copyPieces(_mvDataSource& source, long long most, Copied& copied);
  // One piece, with its progress; false with the reason in the log.
  bool putPiece(const char* bytes, unsigned n);

  WriteRun& m_run;
};

}  // namespace morvane
