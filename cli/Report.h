// What the command says, and the status it will end with.
#pragma once

#include <string>
#include <string_view>

#include "cli/ProgressBar.h"

namespace morvane {
class ClsTar;
}

namespace mvtar {

// Exit statuses. Everything was done; something was not (a message has said what); the command line was
// wrong, EX_USAGE of sysexits.h.
constexpr int kDone = 0;
constexpr int kDiffers = 1;  // only -d: nothing went wrong, but something is different
constexpr int kNotAllDone = 2;
constexpr int kWrongUsage = 64;

constexpr char kOutOfMemory[] = "out of memory";

// Lives for one command, like the bar, which it does not own. `outputCarriesData` says that standard output
// is an archive's or a member's, and no place for lines. Paths are shown with control characters as escapes,
// whatever they come from; other texts stand as they are. The status only ever gets worse.
class Report {
 public:
  Report(ProgressBar& bar, bool outputCarriesData) : m_bar(bar), m_outputCarriesData(outputCarriesData) {}

  // "mvtar: PATH: reason" on standard error.
  void notice(std::string_view path, std::string_view text);
  // The same for something that was not done: the status becomes 2. A reason that means missing memory is
  // said in the same words whoever found it.
  void problem(std::string_view path, std::string_view reason);
  // The reason of a failed call of the component, when it is about more than what was said already.
  void failure(morvane::ClsTar& tar, const std::string& archive);
  // A line with a name (as stored) on standard output, or on standard error when standard output carries
  // data.
  void name(std::string_view name, const std::string& before = "", const std::string& behind = "");
  // A finished line in the same place.
  void line(const std::string& text);
  // Text of the listing, as it is, on standard output.
  void text(std::string_view text);
  // What -d found: "PATH: what differs" on standard output. The status becomes 1 unless it is 2.
  void difference(std::string_view path, const std::string& what);
  // What --totals asks for. "members" and "bytes" of what was done, on standard error.
  void totals(long long members, long long bytes);
  // What --log asks for.
  // On standard error, as the component has written it, whatever it says.
  void log(morvane::ClsTar& tar);

  // Says once more that something is missing, and tells the status. Call it last: what is buffered for
  // standard output is written here, and a failure to do so counts.
  int finish();
  // Whether something was not done.
  bool anyProblem() const { return m_status == kNotAllDone; }

 private:
  ProgressBar& m_bar;
  const bool m_outputCarriesData;
  int m_status = kDone;
};

// The end of a command that has no memory to go on with: says so without any. What was done stays.
int finishWithoutMemory();

}  // namespace mvtar
