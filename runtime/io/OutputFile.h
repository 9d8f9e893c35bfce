// A file being written, behind a buffer of its own.
//
// Small writes are gathered, large ones pass the buffer by. Every error is sticky: after the first, all later
// writes fail. A reader may put bytes straight into the buffer, and hands them over from there. Data may
// still be in the buffer, or refused by the system as late as at close, so a result counts only after flush()
// or closeHandle() said so; the destructor closes but cannot report.
#pragma once

#include <memory>

#include "runtime/io/_mvOutput.h"

namespace morvane {

class MorvaneFileTime;
class OsFile;
struct mvFileInfo;

// One writer at a time. Bytes that were accepted may be read back from the file only behind a flush.
class MORVANE_API OutputFile : public _mvOutput {
 public:
  // Creates or truncates the file (mode 0666 less the umask), following a symbolic link, never waiting for
  // the reader of a FIFO. Null, with the reason in the log, on failure. The caller deletes the result. Paths
  // are the system's bytes. `log` gets the path and the system's reason.
  static OutputFile* createFileUtf8(const char* path, LogBase& log);
  // Takes over an open descriptor; `path` is what messages call it. Null when there is no memory. The file is
  // written from where the descriptor stands.
  static OutputFile* adopt(OsFile file, const char* path);
  ~OutputFile() override;

  bool _writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) override;
  // Room in the buffer for at least n bytes (at most kMostSpare), made by a flush if need be. What is put
  // there is taken by _writeBytes, from its first byte on and in any pieces, without being copied once more.
  // Null when there is no such room; _writeBytes then says why.
  char* spareRoom(unsigned n, unsigned& room, ProgressMonitor* pm, LogBase& log);
  static constexpr unsigned kMostSpare = 64 * 1024;

  // From here to endBehind a full buffer of a regular file is written by a worker, while the other of two is
  // filled; of any other file nothing is changed by it. A write that fails is told by the next operation that
  // would write. Whatever needs all bytes to be written waits for them. Throws std::bad_alloc.
  void beginBehind();
  // Waits for the worker, and ends it. False, with the reason in the log, if the last write has failed.
  bool endBehind(LogBase& log);

  // The file will get n bytes in all: if they come in one piece, they need no buffer.
  void expect(long long n);

  // From here on a failure that concerns this file alone (a damaged spot of the disk, a limit on its size,
  // its owner's quota) is said, and what comes behind it is accepted and dropped: whoever copies into the
  // file gets past its data. The file has failed all the same, which closeHandle tells.
  void dropAfterOwnFailure();
  // Makes it fail so, for a reason that the caller has said: what it is given makes no sense.
  void failAlone();
  // Whether a failure was of that kind, and was borne. Only ever true after dropAfterOwnFailure.
  bool hasFailedAlone() const;

  // Bytes accepted so far.
  long long ftell64() override;
  // Sends what is buffered on its way, and tells whether it went.
  bool announceOutputFinished(LogBase& log) override { return flush(nullptr, log); }

  // Moves on past bytes that are to be a hole / gives the file its length, behind the last byte. What is
  // buffered is flushed first.
  [[nodiscard]] bool passHole(long long n, ProgressMonitor* pm, LogBase& log);
  [[nodiscard]] bool setLength(long long length, ProgressMonitor* pm, LogBase& log);

  // For what is set through the open file. -1 when it is closed.
  int descriptor() const;

  // The identity of the open file; false when there is none to tell.
  bool getFileInfo(mvFileInfo& info) const;

  // The monitor may be null; it is asked where a signal breaks a wait.
  bool flush(ProgressMonitor* pm, LogBase& log);
  // Flushes and closes; true when every byte written so far arrived. Log and monitor may be null. Closing
  // again repeats the first answer.
  bool closeHandle(LogBase* log = nullptr, ProgressMonitor* pm = nullptr);
  // For an aborted job: writes what is buffered to a regular file, and gives it up elsewhere, where the
  // output has then failed.
  void abandon();

  // The last-modified time / all three times (Linux has no settable creation time), through the descriptor
  // while the file is open, else through its path. A failure is logged. The first leaves the time of access
  // alone. Nanoseconds are set as far as the file system has them.
  bool setFileTimeUtc(const MorvaneFileTime& modification, LogBase* log);
  bool setFileTimeUtc_3(const MorvaneFileTime& creation, const MorvaneFileTime& access,
                        const MorvaneFileTime& modification, LogBase& log);

 private:
  // The open file, the buffer, and what became of them.
  struct State;

  explicit OutputFile(std::unique_ptr<State> state);
  bool writeThrough(const char* bytes, size_t n, ProgressMonitor* pm, LogBase& log);
  // Makes room in the buffer: by a worker, where there is one.
  bool emptyBuffer(ProgressMonitor* pm, LogBase& log);
  // The worker's write is over, and has not failed.
  bool finishBehind(LogBase& log);
  bool failToWrite(int error, LogBase& log);
  void failWith(int error);
  bool failToShape(const char* message, LogBase& log);
  bool makeBuffer(unsigned capacity);
  bool setTimes(const MorvaneFileTime* access, const MorvaneFileTime& modification, LogBase& log);

  const std::unique_ptr<State> m_state;
};

}  // namespace morvane
