// How SIGINT and SIGTERM end a command: by a flag that the component is told of when it asks whether to
// abort, so that it leaves files and messages in order. Waits in the system are broken by the signal itself,
// which is why no handler asks for SA_RESTART.
#include "cli/Interrupt.h"

#include <unistd.h>

#include <csignal>
#include <ctime>
#include <initializer_list>
#include <string_view>

namespace mvtar {

namespace {

// Set by a handler. Timer and last line are complete before the handlers that use them are set.
volatile std::sig_atomic_t g_signal = 0;
timer_t g_timer;
bool g_hasTimer = false;

// A signal that arrives just before a read or write begins to wait would not break it; so the timer knocks
// again and again until the component has heard. timer_settime may be called from a handler. 100 milliseconds
// are short for a person and next to nothing for the processor.
void onInterrupt(int signal) {
  g_signal = signal;
  if (!g_hasTimer) return;
  constexpr long kKnockEvery = 100 * 1000 * 1000;
  const itimerspec knocks{{0, kKnockEvery}, {0, kKnockEvery}};
  timer_settime(g_timer, 0, &knocks, nullptr);
}

// Put together beforehand: a handler must not allocate.
// The first text is a literal, because before main there is nobody to tell that memory ran out.
std::string g_lastLine;
std::string_view g_lastText = "mvtar: interrupted, and ended in the midst of it\n";

// Only what may be called from a handler. 128 and the signal's number is what a shell makes of a process that
// a signal ended.
void endAtOnce(int signal) {
  const ssize_t written = write(STDERR_FILENO, g_lastText.data(), g_lastText.size());
  (void)written;
  _exit(128 + signal);
}

// Having a handler is all that it takes to break a wait. Whoever has not heard after so many knocks (five
// seconds) is lost in something that cannot be asked, such as a regular expression that takes years.
void onKnock(int) {
  constexpr int kPatience = 50;
  static volatile std::sig_atomic_t knocks = 0;
  if (g_signal != 0 && (knocks = knocks + 1) > kPatience) endAtOnce(g_signal);
}

void handle(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;  // without SA_RESTART: waits are broken
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
}

// The other handler, if any, is replaced.
void handleInterrupts(void (*handler)(int)) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction current {};
    // One that is ignored, as for a command in the background, stays ignored.
    if (sigaction(signal, nullptr, &current) == 0 && current.sa_handler == SIG_IGN) continue;
    handle(signal, handler);
  }
}

}  // namespace

// SIGALRM first: the timer's signal would end the process without it. Where no timer can be had interrupts
// work all the same, but for one that falls between the question and the wait.
void catchInterrupts() {
  handle(SIGALRM, onKnock);
  for (const int refusal : {SIGPIPE, SIGXFSZ})
    handle(refusal, SIG_IGN);  // a closed pipe or a limit is a failed write
  g_hasTimer = timer_create(CLOCK_MONOTONIC, nullptr, &g_timer) == 0;
  handleInterrupts(onInterrupt);
}

// An interrupt that came just before is not lost.
void endOnInterrupt(const std::string& line) {
  g_lastLine = line + "\n";
  g_lastText = g_lastLine;
  handleInterrupts(endAtOnce);
  if (isInterrupted()) endAtOnce(g_signal);
}

bool isInterrupted() { return g_signal != 0; }

int interruptStatus() { return 128 + g_signal; }

}  // namespace mvtar
