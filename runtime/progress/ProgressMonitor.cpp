// When an event is asked and told. Both are rare on purpose: an application's callback may be slow, and a run
// passes here with every piece of data.
#include "runtime/progress/ProgressMonitor.h"

#include <algorithm>
#include <limits>

#include "runtime/base/Ticks.h"

namespace morvane {

// Negative totals count as not known.
ProgressMonitor::ProgressMonitor(ProgressEvent& event, int abortCheckMs, int percentScale, long long total)
    : m_event(event), m_abortCheckMs(abortCheckMs), m_percentScale(percentScale), m_total(total) {}

ProgressMonitor::ProgressMonitor(ProgressEvent& event, const RelaxedAtomic<int>& abortCheckMs,
                                 int percentScale, long long total)
    : m_event(event),
      m_abortCheckMs(0),
      m_liveAbortCheckMs(&abortCheckMs),
      m_percentScale(percentScale),
      m_total(total) {}

// What the callback leaves in `abort` is the answer; one that throws gets through to the frame of the
// method. The time is taken before the callback, so that one that is slow does not put off the next
// question.
bool ProgressMonitor::abortCheck(LogBase&) {
  if (!m_aborted) {
    m_everAsked = true;
    m_lastAsked = millisecondTicks();
    m_event.onAbortCheck(m_aborted);
  }
  return m_aborted;
}

// The first question is asked at once, so that an application that wants to stop before anything happens can.
// The difference of ticks is unsigned and right across their wrap.
bool ProgressMonitor::abortCheckTimed(LogBase& log) {
  ++m_timedChecks;
  const int interval = abortCheckMs();
  if (m_aborted || interval <= 0) return m_aborted;
  if (m_everAsked && millisecondTicks() - m_lastAsked < static_cast<unsigned>(interval)) return false;
  return abortCheck(log);
}

// More than the total may be done, as when files grow meanwhile; it stays at the whole then.
bool ProgressMonitor::consumeProgress(long long n, LogBase&) {
  if (m_total <= 0 || n <= 0) return m_aborted;
  m_done = n > m_total - m_done ? m_total : m_done + n;
  if (m_done >= m_nextReportAt) reportPercent(m_done);
  return m_aborted;
}

// Work that was passed over, such as the rest of an archive behind its end mark, has never been counted.
void ProgressMonitor::consumeRemaining(LogBase&) {
  if (m_total > 0) reportPercent(m_done = m_total);
}

// m_nextReportAt is the least amount of work that is one part more, rounded up, so that most calls end with
// one comparison.
void ProgressMonitor::reportPercent(long long done) {
  if (m_percentScale <= 0) return;
  // 128 bits: the product of a 63-bit count and a 31-bit scale.
  __extension__ using Wide = __int128;
  const int percent = static_cast<int>(static_cast<Wide>(done) * m_percentScale / m_total);
  const Wide next = (static_cast<Wide>(percent + 1LL) * m_total + m_percentScale - 1) / m_percentScale;
  m_nextReportAt = static_cast<long long>(std::min<Wide>(next, std::numeric_limits<long long>::max()));
  if (percent <= m_lastPercent) return;
  if (m_lastPercent < 0) m_event.onTotal(m_total);
  m_lastPercent = percent;
  bool abort = false;
  m_event.onProgress(percent, abort);
  m_aborted = m_aborted || abort;
}

}  // namespace morvane
