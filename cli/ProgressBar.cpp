#include "cli/ProgressBar.h"

#include <cstdio>
#include <string>

namespace mvtar {

namespace {

constexpr int kWidth = 40;

}  // namespace

void ProgressBar::show(int parts) {
  if (m_when == When::Never) return;
  const auto elapsed = std::chrono::steady_clock::now() - m_start;
  if (m_when == When::AfterOneSecond && elapsed < std::chrono::seconds(1)) return;
  const int filled = parts * kWidth / kScale;
  const std::string bar =
      std::string(static_cast<size_t>(filled), '#') + std::string(static_cast<size_t>(kWidth - filled), ' ');
  std::fprintf(stderr, "\r[%s] %3d%%", bar.c_str(), parts * 100 / kScale);
  std::fflush(stderr);
  m_onScreen = true;
}

void ProgressBar::clear() {
  if (!m_onScreen) return;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
  m_onScreen = false;
}

}  // namespace mvtar
