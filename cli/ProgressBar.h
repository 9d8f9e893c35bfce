// A bar on standard error that shows how far a job is.
#pragma once

#include <chrono>

namespace mvtar {

// AfterOneSecond: a job that is over at once shows none. Failing to write it is nobody's concern.
class ProgressBar {
 public:
  // Always shows it even where standard error is no terminal.
  enum class When { Never, AfterOneSecond, Always };
  // The scale of show(): parts of a whole job.
  static constexpr int kScale = 1000;

  explicit ProgressBar(When when) : m_when(when), m_start(std::chrono::steady_clock::now()) {}
  // Nothing of it is left behind, whatever the end.
  ~ProgressBar() { clear(); }

  bool mayBeShown() const { return m_when != When::Never; }
  // From 0 to kScale. Called as often as the component reports.
  void show(int parts);
  // Takes the bar off the screen, so that a line can be written in its place.
  void clear();

 private:
  const When m_when;
  const std::chrono::steady_clock::time_point m_start;
  // Whether something of it stands on the screen now.
  bool m_onScreen = false;
};

}  // namespace mvtar
