// The end of a job that wrote to an output: what a file has buffered is flushed while the monitor is still
// asked. Of an aborted job it still goes to a file on a disk, where what was written is to stay, and is
// dropped for anything that may make it wait, as a pipe that nobody reads.
#pragma once

#include "runtime/io/OutputFile.h"
#include "runtime/progress/ProgressMonitor.h"

namespace morvane {

// Made when a job begins, on its stack, so that every way out of the job passes it. It does not close the
// file and does not own it. Any output may be given; what it says of files holds where it is one, and for all
// others it does nothing but announce the end.
class OutputFlush {
 public:
  // `out` and the monitor must outlive it; the monitor may be null. Which kind of output it is is asked once,
  // here.
  OutputFlush(_mvOutput& out, ProgressMonitor* pm)
      : m_out(out), m_file(dynamic_cast<OutputFile*>(&out)), m_pm(pm) {}
  // A job that failed for another reason has nothing to wait for, and its file flushes when it is closed.
  // That may wait for nobody, because abandon only writes to files on a disk.
  ~OutputFlush() {
    if (m_file && m_pm && m_pm->isAborted()) m_file->abandon();
  }
  OutputFlush(const OutputFlush&) = delete;
  OutputFlush& operator=(const OutputFlush&) = delete;

  // Once everything was written. False, with its reason in the log, if not all of it arrives. An output of
  // the application's is told once, and only if the job got here. Before it the job's result must not be
  // called a success.
  [[nodiscard]] bool finish(LogBase& log) {
    return (!m_file || m_file->flush(m_pm, log)) && m_out.announceOutputFinished(log);
  }

 private:
  // m_file is the same output where it is a file, else null.
  _mvOutput& m_out;
  OutputFile* const m_file;
  ProgressMonitor* const m_pm;
};

}  // namespace morvane
