// Times as people write them on a command line.
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace mvtar {

// A date, or the modification time of a file. Dates: "@SECONDS"; "2026-11-22", "2026-11-22 11:50",
// "2026-11-22T11:50:46.5+01:00" (also with "Z" or a zone's difference behind a blank); the form of `date -R`
// and of `date` in English; "now", "today", "yesterday", "tomorrow"; "3 days ago", "1 hour". Local time where
// nothing else is said. A text that begins with "/" or "." is a file, and so is one that is no date. Nothing
// for what is neither.
std::optional<timespec> parseDateOrFile(const std::string& text);

// Whether a comes before b; equal times do not. Nanoseconds are 0 to 999,999,999 in both, before 1970 too.
inline bool isEarlier(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

}  // namespace mvtar
