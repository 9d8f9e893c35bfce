// The system's threads themselves, for those of the standard library have stacks of the size that it likes.
#include "runtime/parallel/WorkerThread.h"

#include <chrono>
#include <deque>
#include <mutex>
#include <thread>

#include "runtime/parallel/SignalsBlocked.h"

namespace morvane {

namespace {

// Compressors and calls into the file system need some ten thousand bytes, sanitizers a multiple of it.
constexpr size_t kStack = 1024 * 1024;

}  // namespace

bool WorkerThread::start(std::function<void()> run) {
  m_run = std::move(run);
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setstacksize(&attributes, kStack);
  {
    const SignalsBlocked signalsBlocked;
    m_isStarted = pthread_create(&m_thread, &attributes, runIn, this) == 0;
  }
  pthread_attr_destroy(&attributes);
  return m_isStarted;
}

void WorkerThread::join() {
  if (m_isStarted) pthread_join(m_thread, nullptr);
  m_isStarted = false;
}

void* WorkerThread::runIn(void* self) {
  static_cast<WorkerThread*>(self)->m_run();
  return nullptr;
}

unsigned threadsToBeHad(unsigned most) {
  unsigned made = 0;
  {
    // Each stays until all have been made.
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
