// The bar is drawn over itself with a carriage return and never wraps, because only one line can be taken
// back. It is ASCII alone, which every terminal shows in as many columns as it has characters.
#include "cli/ProgressBar.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "cli/StandardStreams.h"

namespace mvtar {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWidest = 40;     // of the bar between its brackets
constexpr int kNarrowest = 10;  // before the rate, or the time that is left, is dropped for it

// Asked for each time: a window may be resized meanwhile. A line that is wider would run on into the next
// one, where clearing does not reach it.
int columnsOfScreen() {
  winsize size{};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

// " 118 MB/s", always of one width.
std::string rateText(long long rate) {
  // Powers of 1000, as disks and networks are sold.
  constexpr const char* kUnits[] = {"B", "kB", "MB", "GB", "TB"};
  double value = static_cast<double>(rate);
  size_t unit = 0;
  // Not 1000: from 999.5 on it would be rounded to a fourth digit. Below 9.95 there is room for a tenth, and
  // two digits tell more than one.
  for (; value >= 999.5 && unit + 1 < std::size(kUnits); ++unit) value /= 1000;
  char text[32];
  std::snprintf(text, sizeof text, "%6.*f %s/s", unit > 0 && value < 9.95 ? 1 : 0, value, kUnits[unit]);
  return text;
}

// "  1:02" or "  1:02:03".
std::string timeText(long long seconds) {
  char text[40];
  if (seconds < 3600) {
    std::snprintf(text, sizeof text, "  %lld:%02lld", seconds / 60, seconds % 60);
  } else {
    std::snprintf(text, sizeof text, "  %lld:%02lld:%02lld", seconds / 3600, seconds / 60 % 60, seconds % 60);
  }
  return text;
}

}  // namespace

// Too narrow for everything, the time goes first, then the rate, then the bar.
std::string ProgressBar::lineOf(int parts, long long rate, long long secondsLeft, int columns) {
  char share[16];
  std::snprintf(share, sizeof share, "%3d%%", std::clamp(parts, 0, kScale) * 100 / kScale);
  // The last column stays free, because some terminals go on to the next line as soon as it is written.
  const int room = columns - 1 - static_cast<int>(sizeof "[] " - 1 + std::string(share).size());
  std::string behind;
  if (rate >= 0) {
    const std::string text = rateText(rate);
    if (static_cast<int>(text.size()) + kNarrowest <= room) behind = text;
  }
  // Where a known rate found no room, the time that is left goes with it: it is the first to go.
  if (secondsLeft >= 0 && (rate < 0 || !behind.empty())) {
    const std::string text = timeText(secondsLeft);
    if (static_cast<int>(behind.size() + text.size()) + kNarrowest <= room) behind += text;
  }
  const int width = std::min(kWidest, room - static_cast<int>(behind.size()));
  // The share alone is left, which is shown at any width.
  if (width <= 0) return share;
  const int filled = std::clamp(parts, 0, kScale) * width / kScale;
  return "[" + std::string(static_cast<size_t>(filled), '#') +
         std::string(static_cast<size_t>(width - filled), ' ') + "] " + share + behind;
}

// Ten times a second are as often as an eye can follow; the end is always shown. One write for each state, so
// that a terminal never shows half of one. What a narrower state leaves of a wider one is erased.
void ProgressBar::show(int parts) {
  if (m_when == When::Never) return;
  const auto now = Clock::now();
  const auto elapsed = now - m_start;
  if (m_when == When::AfterOneSecond && elapsed < std::chrono::seconds(1)) return;
  if (m_onScreen && parts < kScale && now - m_lastDrawn < std::chrono::milliseconds(100)) return;
  const double seconds = std::chrono::duration<double>(elapsed).count();
  const double share = static_cast<double>(parts) / kScale;
  // In the first moment neither is more than a guess.
  const bool isKnown = seconds >= 0.5 && parts > 0;
  const auto rate =
      isKnown && m_total > 0 ? static_cast<long long>(share * static_cast<double>(m_total) / seconds) : -1;
  // As if the rest went at the rate of what is done. Not std::llround, because that would be all that the
  // program needs libm for, and loading a library is a tenth of its start.
  const std::chrono::duration<double> rest(isKnown ? seconds * (1 - share) / share : -1);
  const long long left = std::chrono::round<std::chrono::seconds>(rest).count();
  writeToStandardError("\r" + lineOf(parts, rate, left, columnsOfScreen()) + "\033[K");
  m_lastDrawn = now;
  m_onScreen = true;
}

// Carriage return, and erase to the end of the line.
void ProgressBar::clear() {
  if (!m_onScreen) return;
  writeToStandardError("\r\033[K");
  m_onScreen = false;
}

}  // namespace mvtar
