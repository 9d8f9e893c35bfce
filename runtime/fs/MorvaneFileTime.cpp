// File times, and the calendar for those who show them. The calendar is UTC throughout: what is shown must
// not depend on where the process runs.
#include "runtime/fs/MorvaneFileTime.h"

#include <cstdio>
#include <limits>

#include "runtime/text/StringBuffer.h"

namespace morvane {

// Any value fits.
MorvaneFileTime MorvaneFileTime::fromUnixTime32(unsigned seconds, unsigned nanoseconds) {
  return fromUnixTime64(seconds, nanoseconds);
}

// Not checked: who has nanoseconds of a second or more brings them into range first.
MorvaneFileTime MorvaneFileTime::fromUnixTime64(long long seconds, unsigned nanoseconds) {
  MorvaneFileTime time;
  time.m_seconds = seconds;
  time.m_nanoseconds = nanoseconds;
  return time;
}

// Seconds count down to the last whole one already, since nanoseconds count forward from it: nothing has to
// be rounded.
unsigned MorvaneFileTime::toUnixTime32() const {
  constexpr unsigned kMax = std::numeric_limits<unsigned>::max();
  if (m_seconds < 0) return 0;
  return m_seconds > static_cast<long long>(kMax) ? kMax : static_cast<unsigned>(m_seconds);
}

// The system counts nanoseconds forward before 1970, too, so that both parts are taken as they are.
timespec MorvaneFileTime::toTimespec() const {
  timespec out{};
  out.tv_sec = static_cast<time_t>(m_seconds);
  out.tv_nsec = static_cast<long>(m_nanoseconds);
  return out;
}

// gmtime_r fails for years that an int cannot hold; the year itself may just not hold 1900 more.
MorvaneSysTime MorvaneSysTime::fromFileTime(const MorvaneFileTime& time) {
  const time_t seconds = static_cast<time_t>(time.seconds());
  MorvaneSysTime out;
  tm parts{};
  constexpr int kFirstYear = 1900;  // of struct tm
  const bool fits =
      gmtime_r(&seconds, &parts) && parts.tm_year <= std::numeric_limits<int>::max() - kFirstYear;
  if (!fits) return out;  // a year that does not fit an int: shown as the epoch
  out.year = parts.tm_year + kFirstYear;
  out.month = parts.tm_mon + 1;
  out.day = parts.tm_mday;
  out.hour = parts.tm_hour;
  out.minute = parts.tm_min;
  out.second = parts.tm_sec;
  out.weekday = parts.tm_wday;
  return out;
}

// The names are English whatever the locale, as RFC 1123 has them; strftime would translate them. Room for a
// year of ten digits and a sign.
void _mvDateParser::FileTimeToStringGmt(const MorvaneFileTime& time, StringBuffer& out) {
  static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const MorvaneSysTime parts = MorvaneSysTime::fromFileTime(time);
  char text[96];
  // Two digits for the day, as HTTP has it; RFC 1123 would take one.
  std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[parts.weekday], parts.day,
                kMonths[parts.month - 1], parts.year, parts.hour, parts.minute, parts.second);
  out.setString(text);
}

}  // namespace morvane
