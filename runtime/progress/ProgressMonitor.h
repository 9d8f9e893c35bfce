// Turns the work that a call does into events, and the application's wish to abort into a failure of the
// call.
//
// A monitor exists only when the application gave an event sink; operations take a ProgressMonitor* that may
// be null. The unit of work is the byte: reading counts the archive's bytes, writing those of the sources.
#pragma once

#include <optional>

#include "runtime/base/Export.h"
#include "runtime/base/RelaxedAtomic.h"
#include "runtime/progress/ProgressEvent.h"

namespace morvane {

class LogBase;

// One call's, on the thread of that call. A callback that throws ends the call through it. It never touches
// the log that it is given, and has it only for the callers' common form.
class MORVANE_API ProgressMonitor {
 public:
  // `abortCheckMs`: milliseconds between two questions inside a member's data; 0 or less asks none there.
  // `percentScale`: what the whole job counts as. `total`: 0 when not known, and then no progress is sent.
  // The event must outlive the monitor. `percentScale` 0 or less sends no progress.
  ProgressMonitor(ProgressEvent& event, int abortCheckMs, int percentScale, long long total);
  // The same for a setting that a callback may change: what it is set to holds at once. It must outlive the
  // monitor.
  ProgressMonitor(ProgressEvent& event, const RelaxedAtomic<int>& abortCheckMs, int percentScale,
                  long long total);

  // Valid as long as the monitor: the application's object must outlive the call.
  ProgressEvent& event() { return m_event; }

  // Asks the event whether to abort; true means abort. Once it said so, it is not asked again. Leaves the log
  // alone; the line about it is the caller's.
  bool abortCheck(LogBase& log);
  // The same where much happens between two questions worth asking: asks the first time, and then only when
  // abortCheckMs have passed. Its cost is a look at the clock.
  bool abortCheckTimed(LogBase& log);
  // Adds n units to what is done and reports a new percentage. True means abort. Without a total nothing is
  // reported. n is in bytes; 0 or less does nothing.
  bool consumeProgress(long long n, LogBase& log);
  // All of it is done: what is left of the total is reported at once.
  void consumeRemaining(LogBase& log);
  // Whether work in steps of `step` units at most is reported percentage by percentage, none passed over:
  // then the size of each step is no matter.
  bool reportsEach(long long step) const {
    return m_total <= 0 || m_percentScale <= 0 || step <= m_total / m_percentScale;
  }
  // Whether the event has said so. Nothing takes it back.
  bool isAborted() const { return m_aborted; }
  // What was added so far, no more than the total.
  long long done() const { return m_done; }
  // How often abortCheckTimed was called: who wraps an operation sees whether that has asked by itself.
  unsigned timedChecks() const { return m_timedChecks; }

  // Passes a named piece of information to the event. Names and values are UTF-8 and need to live for the
  // call only.
  static void pprogressInfo(ProgressEvent& event, const char* name, const char* value) {
    event.onInfo(name, value);
  }

 private:
  // The setting as it is now, where it may change.
  int abortCheckMs() const { return m_liveAbortCheckMs ? int{*m_liveAbortCheckMs} : m_abortCheckMs; }
  void reportPercent(long long done);

  // The application's.
  ProgressEvent& m_event;
  // Used where there is no live setting.
  const int m_abortCheckMs;
  const RelaxedAtomic<int>* const m_liveAbortCheckMs = nullptr;
  const int m_percentScale;
  // 0 or less: not known.
  const long long m_total;
  long long m_done = 0;
  long long m_nextReportAt = 0;  // no percentage changes before this much is done
  // The last one that was sent; -1 before the first, so that 0 is sent too.
  int m_lastPercent = -1;
  bool m_everAsked = false;
  // Ticks of the last question.
  unsigned m_lastAsked = 0;
  unsigned m_timedChecks = 0;
  // Set by either callback, and then for good.
  bool m_aborted = false;
};

// The monitor of one call, with the lifetime of the call. Without an event there is no monitor, and
// everything here does nothing.
class MORVANE_API ProgressMonitorPtr {
 public:
  // `event` may be null. AbortCheckMs is a number, or a setting that is looked at as it is.
  template <class AbortCheckMs>
  ProgressMonitorPtr(ProgressEvent* event, const AbortCheckMs& abortCheckMs, int percentScale,
                     long long total) {
    if (event) m_monitor.emplace(*event, abortCheckMs, percentScale, total);
  }
  // Null without an event; owned by this. What a step of a job is given.
  ProgressMonitor* getPm() { return m_monitor ? &*m_monitor : nullptr; }
  // Asks the event; false without one.
  bool get_Aborted(LogBase& log) { return m_monitor && m_monitor->abortCheck(log); }
  // Reports the rest of the total as done.
  void consumeRemaining(LogBase& log) {
    if (m_monitor) m_monitor->consumeRemaining(log);
  }

 private:
  std::optional<ProgressMonitor> m_monitor;
};

}  // namespace morvane
