// Runs an action when the scope ends, on every path out of it:
//   ScopeExit closeListing([&] { listing.finish(); });
// What the action throws stays in it: it may run because of another exception.
#pragma once

#include <utility>

namespace morvane {

// The action must not outlive what it refers to: it runs before locals that were made earlier are destroyed.
// There is no way to call it off: what is to happen on success alone is no matter for this.
template <class Action>
// For undoing a step in the middle of a function, where a class for it would be longer than the function.
// What must be told when it fails is no matter for this either. On the stack, of one thread.
class ScopeExit {
 public:
  // The type of the action is deduced: a lambda as a rule.
  explicit ScopeExit(Action action) : m_action(std::move(action)) {}
  // Nobody could be told of a failure here.
  ~ScopeExit() {
    try {
      m_action();
    } catch (...) {
    }
  }
  ScopeExit(const ScopeExit&) = delete;
  ScopeExit& operator=(const ScopeExit&) = delete;

 private:
  // By value, so that nothing is allocated.
  Action m_action;
};

}  // namespace morvane
