// A place bytes go. The class itself accepts and discards everything; a derived class supplies _writeBytes.
//
// Ownership: an output handed to a method is never owned by it and must outlive the call. Threads: one writer
// at a time. Failure: false, with one error line already in `log`; after it the output may be closed but not
// used.
#pragma once

#include "runtime/base/Export.h"

namespace morvane {

class DataBuffer;
class LogBase;
class ProgressMonitor;

// What travels with a write beside its bytes. The monitor may be null; it is not owned.
class _mvIoParams {
 public:
  explicit _mvIoParams(ProgressMonitor* pm = nullptr) : m_pm(pm) {}
  // For outputs that may wait: they ask it whether to abort when a signal breaks the wait.
  ProgressMonitor* monitor() const { return m_pm; }

 private:
  ProgressMonitor* m_pm;
};

// An application may derive its own: _writeBytes is all that it must supply.
class MORVANE_API _mvOutput {
 public:
  _mvOutput() = default;
  _mvOutput(const _mvOutput&) = delete;
  _mvOutput& operator=(const _mvOutput&) = delete;

  // Takes all n bytes, or fails. n may be 0. The bytes are the caller's and may change afterwards: what is
  // held back has to be copied.
  virtual bool _writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log);

  // For outputs that have positions, in bytes from the first; a failure is false, with its line in the log.
  // The base does nothing, succeeds, and stands at 0. The component itself only ever writes forward. A
  // derived class that has no use for them leaves them alone.
  virtual bool seekToEnd(LogBase& log);
  virtual bool fseekAbsolute64(long long position, LogBase& log);
  virtual long long ftell64();
  virtual bool resetOutput(LogBase& log);
  // Called once after the last byte of a job that succeeded so far; false makes the job fail. An output that
  // holds bytes back lets them go here.
  virtual bool announceOutputFinished(LogBase& log);

  virtual ~_mvOutput();

  // Writes through _writeBytes; fails if that fails or the monitor (which may be null) was told to abort. The
  // question whether to abort is asked first, as often as AbortCheckMs allows; progress is not counted here.
  [[nodiscard]] bool writeBytesPM(const char* bytes, unsigned n, ProgressMonitor* pm, LogBase& log);
  // All of a buffer.
  [[nodiscard]] bool writeDbPM(const DataBuffer& bytes, ProgressMonitor* pm, LogBase& log);
  // Four bytes, the least significant first.
  [[nodiscard]] bool writeLittleEndianUInt32PM(unsigned value, ProgressMonitor* pm, LogBase& log);
};

}  // namespace morvane
