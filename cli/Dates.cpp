// strptime does the reading, since it knows calendars; what is here are the forms, tried one after the other
// until one takes the whole text.
#include "cli/Dates.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <initializer_list>
#include <limits>
#include <string_view>

namespace mvtar {

namespace {

constexpr long kNanoseconds = 1000 * 1000 * 1000;  // in a second
constexpr int kMinute = 60, kHour = 60 * kMinute, kDay = 24 * kHour, kNoon = 12;

// Between a time and its zone people write a blank or none.
const char* withoutBlanks(const char* text) {
  while (*text == ' ') ++text;
  return text;
}

// ".25" as nanoseconds, and ",25", which ISO 8601 allows as well. Digits beyond the ninth are of no use to
// any file system: the unit is 0 by then, and they are passed over. `at` is left behind them.
long parseFraction(const char*& at) {
  if (*at != '.' && *at != ',') return 0;
  long nanoseconds = 0;
  long unit = kNanoseconds / 10;
  for (++at; *at >= '0' && *at <= '9'; ++at, unit /= 10) nanoseconds += (*at - '0') * unit;
  return nanoseconds;
}

// "Z", "UTC", "GMT", "+01:00", "+0100" or "+01" to the end of the text; seconds east of Greenwich. Nothing
// for anything else, names of other zones among it: "IST" is three different times, and a wrong guess would
// select the wrong files.
std::optional<int> parseZone(const char* at) {
  at = withoutBlanks(at);
  for (const char* const name : {"Z", "UTC", "GMT"}) {
    if (std::string_view(at) == name) return 0;
  }
  if (*at != '+' && *at != '-') return std::nullopt;
  const int sign = *at == '-' ? -1 : 1;
  std::string digits;
  for (++at; *at; ++at) {
    const bool isColon = *at == ':' && digits.size() == 2;
    if (!isColon && (*at < '0' || *at > '9')) return std::nullopt;
    if (!isColon) digits += *at;
  }
  if (digits.size() == 2) digits += "00";
  if (digits.size() != 4) return std::nullopt;
  const int number = std::atoi(digits.c_str());
  const int inHour = number % 100 * kMinute, seconds = number / 100 * kHour + inHour;
  // A day is more than any zone is away.
  if (inHour >= kHour || seconds > kDay) return std::nullopt;
  return sign * seconds;
}

// One form, and behind seconds perhaps a fraction of them; then a zone or nothing. A time that is no time of
// the local clock (a leap of it) is moved by mktime, as everywhere.
std::optional<timespec> parseForm(const char* text, std::string_view form) {
  tm parts{};
  const char* at = strptime(text, form.data(), &parts);
  if (!at) return std::nullopt;
  // Two digits are a year of this time, as mail headers have them (RFC 5322, 4.3) and date(1) takes them.
  constexpr int kTwoDigits = 100, kLastCentury = 69, kFirstYear = 1900;
  const int year = parts.tm_year + kFirstYear;
  if (year >= 0 && year < kTwoDigits) parts.tm_year = year < kLastCentury ? year + kTwoDigits : year;
  const bool endsInSeconds = form.substr(form.size() - 2) == "%S";
  const long nanoseconds = endsInSeconds ? parseFraction(at) : 0;
  // strptime takes 31 for any month, and timegm would then make it a day of the next one. It is asked about
  // noon, because its -1 for an error is also the last second of 1969, which is not at noon.
  tm day = parts;
  day.tm_hour = kNoon;
  day.tm_isdst = -1;
  if (timegm(&day) == -1 || day.tm_mday != parts.tm_mday) return std::nullopt;
  // Without a zone it is local time, and mktime goes by TZ.
  if (*withoutBlanks(at) == '\0') {
    // -1 leaves it to mktime to find out from the date whether summer time holds.
    parts.tm_isdst = -1;
    return timespec{mktime(&parts), nanoseconds};
  }
  const std::optional<int> zone = parseZone(at);
  if (!zone) return std::nullopt;
  return timespec{timegm(&parts) - *zone, nanoseconds};
}

// "Sun Nov 22 11:50:46 UTC 2026", as `date` prints it: the zone stands inside, where strptime cannot pass it
// over. It is moved to the end, where parseForm looks for it.
std::optional<timespec> parseDateOutput(const std::string& text) {
  const size_t year = text.rfind(' ');
  // Where the year is at the very beginning there is no word in front of it.
  const size_t zone = year == std::string::npos || year == 0 ? year : text.rfind(' ', year - 1);
  if (zone == std::string::npos) return std::nullopt;
  const std::string rest = text.substr(0, zone) + text.substr(year) + text.substr(zone, year - zone);
  const auto time = parseForm(rest.c_str(), "%a %b %d %H:%M:%S %Y");
  // As locales with hours from 1 to 12 have it.
  return time ? time : parseForm(rest.c_str(), "%a %b %d %I:%M:%S %p %Y");
}

// "@1700000000.5", the form of `date +@%s.%N`. strtoll tells by errno alone that a number does not fit; a cut
// one would be a date that nobody wrote. Behind a minus the fraction counts back, "-0.5" too, and nanoseconds
// count forward from the second before.
std::optional<timespec> parseSeconds(const char* text) {
  char* end = nullptr;
  const char* const digits = text + 1;
  if (*digits == '\0') return std::nullopt;
  errno = 0;
  timespec time{std::strtoll(digits, &end, 10), 0};
  const char* at = end;
  if (at == digits || errno == ERANGE) return std::nullopt;
  time.tv_nsec = parseFraction(at);
  if (*at != '\0') return std::nullopt;
  if (time.tv_nsec == 0 || std::find(digits, static_cast<const char*>(end), '-') == end) return time;
  if (time.tv_sec == std::numeric_limits<time_t>::min()) return std::nullopt;
  return timespec{time.tv_sec - 1, kNanoseconds - time.tv_nsec};
}

// Words, and a number of units before or behind now: "3 days ago", "1 hour". Days are 24 hours here, whatever
// the local clock does on them. Months and years are no units, because they have no one length.
std::optional<timespec> parseRelative(const std::string& text) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  constexpr struct {
    const char* word;
    int days;
  } kWords[] = {{"now", 0}, {"today", 0}, {"yesterday", -1}, {"tomorrow", 1}};
  for (const auto& row : kWords) {
    if (text == row.word) return timespec{now.tv_sec + row.days * kDay, now.tv_nsec};
  }
  constexpr struct {
    const char* word;
    int seconds;
  } kUnits[] = {{"second", 1},   {"sec", 1},    {"minute", kMinute}, {"min", kMinute},
                {"hour", kHour}, {"day", kDay}, {"week", 7 * kDay}};
  char* end = nullptr;
  // The bound keeps the product with a week's seconds far from overflow; 100 million seconds are over three
  // years, and of larger units it is more than anybody asks for.
  const long long count = std::strtoll(text.c_str(), &end, 10);
  constexpr long long kMost = 100 * 1000 * 1000;
  if (end == text.c_str() || count < -kMost || count > kMost) return std::nullopt;
  // Behind a number with a blank or without one: "3days" and "3 days".
  std::string unit = withoutBlanks(end);
  constexpr std::string_view kAgo = " ago";
  // Something has to stand in front of " ago", the unit.
  const bool isAgo =
      unit.size() > kAgo.size() && unit.compare(unit.size() - kAgo.size(), kAgo.size(), kAgo) == 0;
  if (isAgo) unit.resize(unit.size() - kAgo.size());
  for (const auto& row : kUnits) {
    if (unit != row.word && unit != std::string(row.word) + "s") continue;
    return timespec{now.tv_sec + (isAgo ? -count : count) * row.seconds, now.tv_nsec};
  }
  return std::nullopt;
}

// Each form has to take the whole text but for a zone, so that a short one never takes the beginning of a
// longer text, and the order of the forms does not matter.
std::optional<timespec> parseDate(const std::string& text) {
  if (!text.empty() && text[0] == '@') return parseSeconds(text.c_str());
  // ISO 8601, the same with slashes, mail headers (RFC 5322), and `date` in English, each with every time of
  // day behind it. Names of days and months go by the C locale, which this process has for them.
  constexpr const char* kDays[] = {"%Y-%m-%d", "%Y/%m/%d", "%a, %d %b %Y", "%d %b %Y", "%a %d %b %Y"};
  constexpr const char* kTimes[] = {"", " %H:%M:%S", " %H:%M", "T%H:%M:%S", "T%H:%M", " %I:%M:%S %p"};
  for (const char* const day : kDays) {
    for (const char* const time : kTimes) {
      if (const auto found = parseForm(text.c_str(), std::string(day) + time)) return found;
    }
  }
  if (const auto time = parseForm(text.c_str(), "%a %b %d %H:%M:%S %Y")) return time;
  const auto printed = parseDateOutput(text);
  return printed ? printed : parseRelative(text);
}

}  // namespace

// A date goes first, because a file may be called "2026-11-22" and whoever means it can write "./2026-11-22".
std::optional<timespec> parseDateOrFile(const std::string& text) {
  const bool isPath = !text.empty() && (text[0] == '/' || text[0] == '.');
  if (!isPath) {
    if (const auto time = parseDate(text)) return time;
  }
  struct stat status;
  if (text.empty() || stat(text.c_str(), &status) != 0) return std::nullopt;
  return status.st_mtim;
}

}  // namespace mvtar
