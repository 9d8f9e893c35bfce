// How SIGINT and SIGTERM end a command: by a flag that the component is told of when it asks whether to
// abort, so that it leaves files and messages in order. Waits in the system are broken by the signal itself,
// which is why no handler asks for SA_RESTART.
#include "cli/Interrupt.h"

#include <unistd.h>

#include <atomic>
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

// Put together beforehand, because a handler must not allocate, and never freed: a handler may run while it
// is exchanged, and behind main, where a string of this file would be gone. Null: the usual one.
std::atomic<const std::string*> g_lastLine{nullptr};
static_assert(std::atomic<const std::string*>::is_always_lock_free, "a handler must not wait");

// Only what may be called from a handler. 128 and the signal's number is what a shell makes of a process that
// a signal ended.
void endAtOnce(int signal) {
  constexpr std::string_view kUsual = "mvtar: interrupted, and ended in the midst of it\n";
  const std::string* const line = g_lastLine;
  const std::string_view text = line ? std::string_view(*line) : kUsual;
  const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
  (void)written;
  _exit(128 + signal);
}

// Having a handler is all that it takes to break a wait. Whoever has not heard after so many knocks (five
// seconds) is lost in something that cannot be asked, such as a regular expression that takes years.
void onKnock(int) {
  constexpr int kPatience = 50;
  // Touched by this handler alone; a knock that is lost between two threads does no harm.
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

// SIGALRM first: the timer's signal would end the process without it. Children that end unheeded, where the
// caller ignored SIGCHLD, would leave no status to wait for. Where no timer can be had interrupts
// work all the same, but for one that falls between the question and the wait.
void catchInterrupts() {
  handle(SIGALRM, onKnock);
  handle(SIGCHLD, SIG_DFL);
  for (const int refusal : {SIGPIPE, SIGXFSZ})
    handle(refusal, SIG_IGN);  // a closed pipe or a limit is a failed write
  g_hasTimer = timer_create(CLOCK_MONOTONIC, nullptr, &g_timer) == 0;
  handleInterrupts(onInterrupt);
}

// An interrupt that came just before is not lost.
void endOnInterrupt(const std::string& line) {
  g_lastLine = new std::string(line + "\n");
  handleInterrupts(endAtOnce);
  if (isInterrupted()) endAtOnce(g_signal);
}

bool isInterrupted() { return g_signal != 0; }

int interruptStatus() { return 128 + g_signal; }

}  // namespace mvtar
