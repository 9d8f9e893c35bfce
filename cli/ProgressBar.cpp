// The bar is drawn over itself with a carriage return and never wraps, because only one line can be taken
// back.
#include "cli/ProgressBar.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "cli/StandardStreams.h"

namespace mvtar {

namespace {

constexpr int kWidest = 40;  // of the bar between its brackets
constexpr int kAround = 8;   // "[] 100%" and the column that a terminal needs behind it

// Asked for each time: a window may be resized meanwhile. A line that is wider would run on into the next
// one, where clearing does not reach it.
int columns() {
  winsize size{};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

}  // namespace

// Within a window that is too narrow for any bar the percentage stands alone. One write for each state, so
// that a terminal never shows half of one. (Nothing is too large for `line`: the bar has 40 characters at
// most.)
void ProgressBar::show(int parts) {
  if (m_when == When::Never) return;
  const auto elapsed = std::chrono::steady_clock::now() - m_start;
  if (m_when == When::AfterOneSecond && elapsed < std::chrono::seconds(1)) return;
  const int width = std::min(kWidest, columns() - kAround);
  char line[kWidest + 2 * kAround] = "\r";
  char* end = line + 1;
  if (width > 0) {
    const int filled = parts * width / kScale;
    *end++ = '[';
    end = std::fill_n(std::fill_n(end, filled, '#'), width - filled, ' ');
    *end++ = ']';
    *end++ = ' ';
  }
  end += std::snprintf(end, static_cast<size_t>(line + sizeof line - end), "%3d%%", parts * 100 / kScale);
  writeToStandardError({line, static_cast<size_t>(end - line)});
  m_onScreen = true;
}

// Carriage return, and erase to the end of the line.
void ProgressBar::clear() {
  if (!m_onScreen) return;
  writeToStandardError("\r\033[K");
  m_onScreen = false;
}

}  // namespace mvtar
