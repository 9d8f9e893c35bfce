// Blocks the signals of the calling thread for a scope, so that threads made in it are never given any.
#pragma once

#include <csignal>
#include <initializer_list>

namespace morvane {

// Signals are the application's: their handlers run in its own threads, where it expects them. Those of a
// fault cannot be put off and stay as they are. A new thread takes over what is blocked where it is made.
// Where the mask cannot be set nothing is put back either: the thread is then made with the signals of its
// maker.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
      sigdelset(&blocked, fault);
    m_isBlocked = pthread_sigmask(SIG_BLOCK, &blocked, &m_before) == 0;
  }
  ~SignalsBlocked() {
    if (m_isBlocked) pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t m_before{};
  bool m_isBlocked = false;
};

}  // namespace morvane
