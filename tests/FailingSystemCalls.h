// Stands in front of the C library for the calls that make things, look at them and set what they are: in the
// thread that asks for it one of them fails, or something else happens just before it.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace morvane::testing {

// While one of these lives, the `at`-th such call of this thread is met; at 0 none is, and they are only
// counted. One at a time. Calls are named as the system does; an empty name stands for any of them.
class MetCall {
 public:
  MetCall(const std::string& name, int at);
  ~MetCall();
  MetCall(const MetCall&) = delete;
  MetCall& operator=(const MetCall&) = delete;
  // How many there were.
  static int count();
};

// It fails with `error`, and is not made.
struct FailingCall : MetCall {
  FailingCall(const std::string& name, int at, int error);
};

// `act(0)` is called first, as somebody else who is faster, and `act(1)` before the call behind it; its own
// calls do not count.
struct OvertakenCall : MetCall {
  OvertakenCall(int at, std::function<void(int)> act);
};

// The system has no openat2, for all threads.
struct WithoutOpenat2 {
  WithoutOpenat2();
  ~WithoutOpenat2();
};

// Does the work in a process of its own that the system gives no thread. What it returns; nothing where the
// system cannot forbid threads.
std::optional<bool> withoutThreads(const std::function<bool()>& work);

}  // namespace morvane::testing
