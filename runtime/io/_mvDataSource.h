// A place bytes come from, with a current position.
//
// An application may derive its own. readSourcePM is all it must supply: such a source is read from where it
// stands, ends with the first read that gives nothing, and is skipped forward by reading. One that also knows
// where it stands (ftell64) is moved by fseekAbsolute64 instead.
//
// The component reads through the operations that are not virtual (read, lend, skip and those over them):
// they are the one place that asks whether to abort and that notes the end, whatever a derived source does
// about either.
//
// Ownership: a source handed to a method is never owned by it and must outlive the call. Threads: one reader
// at a time. Failure: false, with one error line already in `log`.
#pragma once

#include "runtime/base/Export.h"

namespace morvane {

class LogBase;
class ProgressMonitor;
class _mvOutput;

class MORVANE_API _mvDataSource {
 public:
  _mvDataSource() = default;
  _mvDataSource(const _mvDataSource&) = delete;
  _mvDataSource& operator=(const _mvDataSource&) = delete;
  virtual ~_mvDataSource();

  // Reads up to n bytes and sets numRead. Fewer than n, or none, means the end of the data (a derived source
  // may also return fewer before the end). Reports what it read to the monitor, which may be null; an abort
  // is a failure. n is at least 1. On failure numRead is of no meaning.
  virtual bool readSourcePM(char* buffer, unsigned int n, unsigned int& numRead, ProgressMonitor* pm,
                            LogBase& log) = 0;
  // True once the source is exhausted. The base goes by the last read: whether it gave nothing. Asked between
  // reads; it must not wait.
  virtual bool endOfStream();
  // Moves to a byte position. The base cannot. Where it fails, later reads must fail too: readers of archives
  // go by that.
  virtual bool fseekAbsolute64(long long position, LogBase& log);

  // Where the next read begins, -1 when the source cannot tell (and so cannot be moved back to it).
  virtual long long ftell64();
  // Bytes from position 0 to the end, -1 when not known.
  virtual long long sizeIfKnown();

  // Whether the next read or lending gives something, or the end, without waiting for anybody: then it may be
  // done before its time. The base never says so.
  virtual bool readsAtOnce();

  // Lends up to `most` bytes (at least 1 unless at the end) that lie ready in memory and moves past them,
  // instead of copying them out; they stay valid until the next operation. Sources that hold no bytes say
  // false to canLend().
  virtual bool canLend();
  virtual bool lendBytes(unsigned most, const char*& bytes, unsigned& n, ProgressMonitor* pm, LogBase& log);
  // The last n bytes that were lent were not used; they are lent or read again. Up to 16 may be from a piece
  // before the last.
  virtual void takeBack(unsigned n);

  // Shows the next bytes, up to n of at most 512, without moving past them; fewer only at the end. Sources
  // that do not supply it say false to canPeek(). The bytes stay valid until the next operation.
  virtual bool canPeek();
  virtual bool peekBytes(unsigned n, const char*& bytes, unsigned& got, ProgressMonitor* pm, LogBase& log);

  // readSourcePM and lendBytes, and then the question whether to abort: a source of an application's may not
  // ask it, and bytes may go on coming of which nothing ever comes out.
  [[nodiscard]] bool read(char* buffer, unsigned n, unsigned& numRead, ProgressMonitor* pm, LogBase& log);
  [[nodiscard]] bool lend(unsigned most, const char*& bytes, unsigned& n, ProgressMonitor* pm, LogBase& log);
  // Moves past n bytes by reading them; stops without failing where the data end.
  [[nodiscard]] bool skip(long long n, ProgressMonitor* pm, LogBase& log);
  // The most that is lent at a time, so that an abort is heard after no more than this.
  static constexpr unsigned kLentPiece = 128 * 1024;
  // For a source that can be moved: moves past n bytes that somebody else reads, with the progress and the
  // questions whether to abort that reading them has. `passed` is how many that was done for, behind an
  // exception too; the source moves only once it was done for all. False, with the reason in the log, when it
  // was not.
  [[nodiscard]] bool passUnread(unsigned n, unsigned& passed, ProgressMonitor* pm, LogBase& log);
  // Reads n bytes; fewer only at the end of the data, whatever pieces the source gives.
  [[nodiscard]] bool readFully(char* buffer, unsigned n, unsigned& numRead, ProgressMonitor* pm,
                               LogBase& log);
  // Copies exactly n bytes to an output. False if the source ends early, the output fails or the monitor
  // aborts. The second form streams through the caller's buffer and allocates nothing.
  [[nodiscard]] bool copyNToOutputPM(_mvOutput& out, long long n, ProgressMonitor* pm, LogBase& log);
  [[nodiscard]] bool copyNToOutput2PM(_mvOutput& out, long long n, char* buffer, unsigned bufferSize,
                                      ProgressMonitor* pm, LogBase& log);

 private:
  bool m_gaveNothing = false;  // the last read or lending
};

}  // namespace morvane
