// A bar on standard error that shows how far a job is, how fast it goes and how long it will take.
#pragma once

#include <chrono>
#include <string>

namespace mvtar {

// AfterOneSecond: a job that is over at once shows none. Failing to write it is nobody's concern. One for
// each command; Report clears it before every line, so that nothing else may write to a terminal past Report.
class ProgressBar {
 public:
  // Always shows it even where standard error is no terminal.
  enum class When { Never, AfterOneSecond, Always };
  // The scale of show(): parts of a whole job.
  static constexpr int kScale = 1000;

  // The clock runs from here on, for the first second and for the rate.
  explicit ProgressBar(When when) : m_when(when), m_start(std::chrono::steady_clock::now()) {}
  // Nothing of it is left behind, whatever the end.
  ~ProgressBar() { clear(); }

  // False spares the component the look at every source that a total takes.
  bool mayBeShown() const { return m_when != When::Never; }
  // How many bytes a whole job is, for the rate; 0: not known.
  void setTotal(long long bytes) { m_total = bytes; }
  // From 0 to kScale. Called as often as the component reports.
  void show(int parts);
  // Takes the bar off the screen, so that a line can be written in its place.
  void clear();

  // One state of the bar, for a window of so many columns: the share always, the rate (bytes in a second) and
  // the seconds left where there is room and they are known (0 or more), the bar itself in what is left. It
  // leaves the last column free.
  static std::string lineOf(int parts, long long rate, long long secondsLeft, int columns);

 private:
  const When m_when;
  const std::chrono::steady_clock::time_point m_start;
  std::chrono::steady_clock::time_point m_lastDrawn;
  long long m_total = 0;
  // Whether something of it stands on the screen now.
  bool m_onScreen = false;
};

}  // namespace mvtar
