// The system's threads themselves, for those of the standard library have stacks of the size that it likes.
#include "runtime/parallel/WorkerThread.h"

#include <chrono>
#include <deque>
#include <mutex>
#include <thread>

#include "runtime/base/SignalsBlocked.h"

namespace morvane {

namespace {

// Compressors and calls into the file system need some ten thousand bytes, sanitizers a multiple of it. The
// default of glibc is what `ulimit -s` says, 8 MiB as a rule, and counts against RLIMIT_AS in full.
constexpr size_t kStack = 1024 * 1024;

}  // namespace

// A stack size that the system does not take leaves the default in place, which will do as well; so the
// result is not looked at.
bool WorkerThread::start(std::function<void()> run) {
  m_run = std::move(run);
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setstacksize(&attributes, kStack);
  {
    // For the length of this one call: the new thread inherits the mask, and the calling one gets its own
    // back.
    const SignalsBlocked signalsBlocked;
    m_isStarted = pthread_create(&m_thread, &attributes, runIn, this) == 0;
  }
  pthread_attr_destroy(&attributes);
  return m_isStarted;
}

// A second call does nothing, because joining a thread twice is undefined. Its result is not looked at: it
// can only say that the thread was never there, which m_isStarted excludes.
void WorkerThread::join() {
  if (m_isStarted) pthread_join(m_thread, nullptr);
  m_isStarted = false;
}

// pthread_create wants a plain function; the object is what it is given.
void* WorkerThread::runIn(void* self) {
  static_cast<WorkerThread*>(self)->m_run();
  return nullptr;
}

unsigned threadsToBeHad(unsigned most) {
  unsigned made = 0;
  {
    // Threads wait for this lock, and so all of them exist at the same time, until the last has been made.
    // The lock is released before the deque joins them, because it was declared behind it.
    std::mutex making;
    std::deque<WorkerThread> threads;
    const std::lock_guard<std::mutex> lock(making);
    const auto wait = [&] { const std::lock_guard<std::mutex> end(making); };
    while (made < most && threads.emplace_back().start(wait)) ++made;
  }
  // A thread that was joined counts for the system a moment longer, which matters where they are scarce.
  if (made < most) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  return made;
}

}  // namespace morvane
