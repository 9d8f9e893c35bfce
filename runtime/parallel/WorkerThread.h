// One thread that works for the one that made it, and is gone before its owner is.
#pragma once

#include <pthread.h>

#include <functional>

namespace morvane {

// Signals are the application's: their handlers run in its own threads, where it expects them, and never in
// here. The stack is small, because memory that is set aside for it may be what a process has been limited
// to.
class WorkerThread {
 public:
  WorkerThread() = default;
  ~WorkerThread() { join(); }
  WorkerThread(const WorkerThread&) = delete;
  WorkerThread& operator=(const WorkerThread&) = delete;

  // Begins to work, once. False where the system gives no thread, which is no failure: the work can be done
  // without. What is run throws nothing.
  bool start(std::function<void()> run);
  // Waits for its end; where it never began, for nothing.
  void join();

 private:
  static void* runIn(void* self);

  std::function<void()> m_run;
  // Of meaning only while m_isStarted, because POSIX has no value for "no thread".
  pthread_t m_thread{};
  bool m_isStarted = false;
};

// How many threads of `most` the system gives at a time; they are gone when this returns. To be asked
// before a library that makes its own and fails where it gets none. The answer is a guess: another part of
// the process may take the threads in between.
unsigned threadsToBeHad(unsigned most);

}  // namespace morvane
