// Where a reader stands in an archive, and how it gets further: by seeking where the source can, else by
// reading on. Positions count from the archive's start, wherever in the source that lies. Used by the runs of
// this room. It reads nothing itself but what it passes over, and knows neither headers nor members.
#pragma once

#include "runtime/io/_mvDataSource.h"
#include "runtime/log/LogBase.h"
#include "runtime/progress/ProgressMonitor.h"
#include "tar/format/TarBlock.h"

namespace morvane {

// On the stack of one run. It counts what others read: whoever takes bytes from the source says so, and a
// position that comes from an archive's claims saturates at 2^63-1 instead of wrapping round.
class ArchiveCursor {
 public:
  // The archive starts where the source stands. A source without positions is read on instead of being moved,
  // and can go forward only.
  ArchiveCursor(_mvDataSource& source, ProgressMonitor* pm)
      : m_source(source), m_pm(pm), m_start(source.ftell64()) {}

  // Bytes from the archive's start. It is where the reader has got to by what it was told, whether or not the
  // source could be asked.
  long long position() const { return m_at; }
  // Tells that n bytes were read from the source. Negative counts do not come. Nothing is read or sought.
  void passed(long long n) { m_at = saturatedSum(m_at, n); }
  // False, with the reason in the log, when a source that cannot be moved failed while it was read on: what
  // comes next would be data in the place of a header. Where a seek fails, reads fail from then on, and it is
  // the next header that says so. Forward or, where the source can seek, back; in bytes from the archive's
  // start.
  [[nodiscard]] bool moveTo(long long position, LogBase& log) {
    const long long skipped = position - m_at;
    m_at = position;
    if (skipped == 0) return true;
    if (m_start < 0) {
      if (m_source.skip(skipped, m_pm, log)) return true;
      if (!m_pm || !m_pm->isAborted()) log.LogError("Failed to pass over data of the archive.");
      return false;
    }
    m_source.fseekAbsolute64(saturatedSum(m_start, position), log);
    if (m_pm) m_pm->consumeProgress(skipped, log);
    return true;
  }

 private:
  // Borrowed for the run.
  _mvDataSource& m_source;
  // May be null. Bytes that are passed over count as progress, too.
  ProgressMonitor* const m_pm;
  // In the source's own counting.
  const long long m_start;  // -1 when the source cannot be moved
  // Saturated: a position may be a claim that no archive reaches.
  long long m_at = 0;
};

}  // namespace morvane
