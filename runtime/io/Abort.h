// How the streams end when the application asks to abort.
#pragma once

#include "runtime/io/Io.h"
#include "runtime/log/LogBase.h"
#include "runtime/progress/ProgressMonitor.h"

namespace morvane {

// The line of a job that is aborted while it reads, writes or waits; writing and reading archives have lines
// of their own between members. Always false, for the caller to return. It stands here once, because readers
// of logs go by its words.
inline bool logAborted(LogBase& log) {
  log.LogError("Aborted by application.");
  return false;
}

// True, with its line in the log, when a wait broken by a signal is to end. Without a monitor the wait goes
// on. Asks at once, whatever interval is set: a signal that breaks a wait is rare, and most often it is the
// reason to stop. It is for calls that ended with EINTR. The caller then fails without a line of its own.
inline bool endsWait(ProgressMonitor* pm, LogBase& log) {
  if (!pm || !pm->abortCheck(log)) return false;
  logAborted(log);
  return true;
}

// True, with its line in the log, when a job that waits for other threads' work is to end. Asks by time,
// because such a wait is looked at again and again, and each question is a call of the application's. The
// caller ends its threads and fails. Without a monitor nobody asks, and the wait goes on.
inline bool isAbortedWhileWaiting(const Io& io) {
  if (!io.monitor || !io.monitor->abortCheckTimed(io.log)) return false;
  logAborted(io.log);
  return true;
}

}  // namespace morvane
