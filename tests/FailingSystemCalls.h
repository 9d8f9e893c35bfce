// Lets one call of the system fail, in the thread that asks for it: the test program stands in front of the C
// library for the calls that make things and set what they are.
#pragma once

#include <string>
#include <vector>

namespace morvane::testing {

// The calls that can fail, by the system's names.
std::vector<std::string> failingCalls();

// While it lives, the `at`-th such call of this thread fails with `error`, and is not made; at 0 none does,
// and they are only counted. One at a time.
class FailingCall {
 public:
  FailingCall(const std::string& name, int at, int error);
  ~FailingCall();
  FailingCall(const FailingCall&) = delete;
  FailingCall& operator=(const FailingCall&) = delete;
  // How many there were.
  static int count();
};

}  // namespace morvane::testing
