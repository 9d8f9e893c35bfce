// Tasks are on a list while they wait, and on none once somebody has begun them; whoever needs one that is
// being done waits until it is that one.
#include "runtime/parallel/WorkerPool.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

namespace morvane {

namespace {

// What is worth a thread, which costs some ten microseconds to make and to end.
constexpr unsigned long long kTasksWorthWorkers = 32;
constexpr size_t kBytesWorthWorkers = 1024 * 1024;

constexpr long long kMostThreads = 64;

long long processorsOfProcess() {
  cpu_set_t set;
  // It fails where the machine has more processors than the set has room for.
  if (sched_getaffinity(0, sizeof set, &set) == 0) return CPU_COUNT(&set);
  return sysconf(_SC_NPROCESSORS_ONLN);
}

rlim_t limitOf(__rlimit_resource resource) {
  rlimit limit{};
  return getrlimit(resource, &limit) == 0 ? limit.rlim_cur : RLIM_INFINITY;
}

// Stacks and buffers of threads could use up what a process with little room for memory needs for its work.
bool hasLittleMemory() { return limitOf(RLIMIT_AS) < 512UL * 1024 * 1024; }

}  // namespace

unsigned filesToSpare() {
  constexpr rlim_t kOneOf = 16;
  return static_cast<unsigned>(std::min<rlim_t>(limitOf(RLIMIT_NOFILE) / kOneOf, kMostThreads));
}

// Nothing is asked of the system for one thread.
unsigned workerCount(long long threads) {
  if (threads == 1) return 0;
  if (threads == 0) threads = hasLittleMemory() ? 1 : processorsOfProcess();
  return static_cast<unsigned>(std::clamp(threads, 1LL, std::max<long long>(filesToSpare(), 1)) - 1);
}

unsigned itemsInTask(unsigned workers) {
  constexpr unsigned kFewest = 4, kForAll = 128;
  return std::clamp(kForAll / workers, kFewest, kMostItemsInTask);
}

WorkerPool::Task::~Task() = default;

WorkerPool::~WorkerPool() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stop = true;
    m_waiting.clear();
  }
  m_workCame.notify_all();
  for (WorkerThread& worker : m_workers) worker.join();
}

// Fewer threads than wanted, or none, are no failure: the system may have no more to give, or forbid them.
void WorkerPool::startWorkers() {
  m_startTried = true;
  try {
    const auto processors = static_cast<unsigned long long>(processorsOfProcess());
    for (unsigned started = 0; started < m_workersWanted; ++started) {
      if (!m_workers.emplace_back().start([this] { workUntilStopped(); })) return;
      m_hasWorkersToSpare = started >= processors;
    }
  } catch (const std::bad_alloc&) {
  }
}

void WorkerPool::submit(Task& task, unsigned rank, size_t weight) {
  bool wake = false;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    auto place = m_waiting.end();
    while (place != m_waiting.begin() && (*std::prev(place))->m_rank < rank) --place;
    m_waiting.insert(place, &task);
    task.m_rank = rank;
    task.m_state = Task::State::Waiting;
    wake = m_idle > 0;
  }
  // Outside the lock, so that who is woken need not wait for it.
  if (wake) m_workCame.notify_one();
  ++m_submitted;
  m_weight += std::min(weight, kBytesWorthWorkers);
  const bool isWorthIt = m_submitted >= kTasksWorthWorkers || m_weight >= kBytesWorthWorkers;
  if (isWorthIt && !m_startTried && m_workersWanted > 0) startWorkers();
}

bool WorkerPool::isDone(const Task& task) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return task.m_state == Task::State::Done;
}

// It helps until the task is done, with that one first where nobody has begun it. Where there are more
// workers than processors they wait for a file system, and the first thread has better to do than to wait
// with them: to hand in what comes next.
void WorkerPool::finish(Task& task) {
  std::unique_lock<std::mutex> lock(m_mutex);
  const bool helps = !m_hasWorkersToSpare;
  if (task.m_state == Task::State::Waiting) {
    takeBack(task);
    helps ? work(task, lock) : m_waiting.push_front(&task);
  }
  m_wanted = &task;
  while (task.m_state != Task::State::Done) {
    helps && !m_waiting.empty() ? doNext(lock) : m_wantedDone.wait(lock);
  }
  m_wanted = nullptr;
  lock.unlock();
  if (const std::exception_ptr failure = std::exchange(task.m_failure, nullptr)) {
    std::rethrow_exception(failure);
  }
}

void WorkerPool::drop(Task& task) {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (task.m_state == Task::State::Waiting) {
    takeBack(task);
    task.m_state = Task::State::Done;
  }
  m_wanted = &task;
  while (task.m_state != Task::State::Done) m_wantedDone.wait(lock);
  m_wanted = nullptr;
  task.m_failure = nullptr;
}

void WorkerPool::takeBack(const Task& task) {
  m_waiting.erase(std::find(m_waiting.begin(), m_waiting.end(), &task));
}

void WorkerPool::doNext(std::unique_lock<std::mutex>& lock) {
  Task& task = *m_waiting.front();
  m_waiting.pop_front();
  work(task, lock);
}

// What was thrown is let go of before the lock is taken, because the first thread frees it.
void WorkerPool::work(Task& task, std::unique_lock<std::mutex>& lock) {
  task.m_state = Task::State::Begun;
  lock.unlock();
  try {
    task.work();
  } catch (...) {
    task.m_failure = std::current_exception();
  }
  lock.lock();
  task.m_state = Task::State::Done;
  if (&task == m_wanted) m_wantedDone.notify_one();
}

// Nothing in here throws: a task's own exceptions stay in work, and locks that are used rightly do not fail.
void WorkerPool::workUntilStopped() {
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_stop) {
    if (!m_waiting.empty()) {
      doNext(lock);
    } else {
      ++m_idle;
      m_workCame.wait(lock);
      --m_idle;
    }
  }
}

}  // namespace morvane
