// A file time: Unix seconds and nanoseconds.
#pragma once

#include <ctime>

#include "runtime/base/Export.h"

namespace morvane {

// A value. The epoch unless it is set. Seconds have 63 bits and a sign, so that any time of a file system or
// an archive fits. It has no time zone: seconds count from 1970-01-01 00:00 UTC, without leap seconds, as the
// system (POSIX.1) and tar headers count them.
class MORVANE_API MorvaneFileTime {
 public:
  MorvaneFileTime() = default;
  // Times from 1970 to 2106. Nanoseconds as below.
  static MorvaneFileTime fromUnixTime32(unsigned seconds, unsigned nanoseconds = 0);
  // Nanoseconds run from 0 to 999,999,999 and count forward from the second, also before 1970. So half a
  // second before the epoch is -1 and 500,000,000.
  static MorvaneFileTime fromUnixTime64(long long seconds, unsigned nanoseconds = 0);

  // Rounded down to whole seconds; a time before 1970 gives 0, one past the range 2^32-1. So it cannot be
  // told whether a result at either end is exact.
  unsigned toUnixTime32() const;
  // The parts as they were given.
  long long seconds() const { return m_seconds; }
  unsigned nanoseconds() const { return m_nanoseconds; }
  // As the system's calls want it, to the nanosecond. A system whose time_t is shorter cuts the seconds.
  timespec toTimespec() const;

  friend bool operator==(const MorvaneFileTime& a, const MorvaneFileTime& b) {
    return a.m_seconds == b.m_seconds && a.m_nanoseconds == b.m_nanoseconds;
  }

 private:
  long long m_seconds = 0;
  unsigned m_nanoseconds = 0;
};

// A broken-down time in UTC (proleptic Gregorian calendar). What it is when nothing is set is the epoch, a
// Thursday. The calendar goes on before 1582, as it does in ISO 8601, and no second is 60.
struct MORVANE_API MorvaneSysTime {
  // The year may be negative or have more than four digits.
  int year = 1970, month = 1, day = 1;  // month and day from 1
  // From 0 on, as in ISO 8601.
  int hour = 0, minute = 0, second = 0;
  int weekday = 4;  // 0 is Sunday

  // The epoch for a year that an int cannot hold.
  static MorvaneSysTime fromFileTime(const MorvaneFileTime& time);
};

class StringBuffer;

// For people: what programs read is Unix seconds.
struct MORVANE_API _mvDateParser {
  // The time as GMT date text in the form of RFC 1123: "Sat, 21 Nov 2026 09:42:00 GMT".
  static void FileTimeToStringGmt(const MorvaneFileTime& time, StringBuffer& out);
};

}  // namespace morvane
