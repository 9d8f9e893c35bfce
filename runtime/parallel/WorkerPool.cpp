// Tasks are on a list while they wait, and on none once somebody has begun them; whoever needs one that is
// being done waits until it is that one.
#include "runtime/parallel/WorkerPool.h"

#include <dirent.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <new>
#include <utility>

namespace morvane {

namespace {

// What is worth a thread, which costs some ten microseconds to make and to end. A small file is about ten
// microseconds of work and a megabyte some ten milliseconds of compressing, so that either is several times
// the cost.
constexpr unsigned long long kTasksWorthWorkers = 32;
constexpr size_t kBytesWorthWorkers = 1024 * 1024;

// So that a number from an option word bounds memory, and not the other way round.
constexpr long long kMostThreads = 64;

long long processorsOfProcess() {
  cpu_set_t set;
  // It fails where the machine has more processors than the set has room for.
  if (sched_getaffinity(0, sizeof set, &set) == 0) return CPU_COUNT(&set);
  return sysconf(_SC_NPROCESSORS_ONLN);
}

// A limit that cannot be asked for counts as none: what it forbids fails where it is used, and is told
// there.
rlim_t limitOf(__rlimit_resource resource) {
  rlimit limit{};
  return getrlimit(resource, &limit) == 0 ? limit.rlim_cur : RLIM_INFINITY;
}

// Stacks and buffers of threads could use up what a process with little room for memory needs for its work.
bool hasLittleMemory() { return limitOf(RLIMIT_AS) < 512UL * 1024 * 1024; }

// The larger part is the application's own, and what the work itself has open, such as the directories of a
// walk.
unsigned shareOfFiles(rlim_t files) {
  constexpr rlim_t kOneOf = 16;
  return static_cast<unsigned>(std::min<rlim_t>(files / kOneOf, kMostThreads));
}

// Without /proc none is known.
rlim_t openFiles() {
  const std::unique_ptr<DIR, int (*)(DIR*)> all(opendir("/proc/self/fd"), closedir);
  rlim_t count = 0;
  while (all && readdir(all.get())) ++count;
  return count;
}

}  // namespace

// Where very many may be open, counting them could take longer than the work.
unsigned filesToSpare() {
  constexpr rlim_t kWorthCounting = 4096;
  const rlim_t limit = limitOf(RLIMIT_NOFILE);
  const unsigned share = shareOfFiles(limit);
  if (limit > kWorthCounting) return share;
  const rlim_t isFree = limit - std::min(limit, openFiles());
  // Two for each, a directory and a file in it, and as many again for the work itself.
  return static_cast<unsigned>(std::min<rlim_t>(share, isFree / 4));
}

// Nothing is asked of the system for one thread. The lower bound of std::clamp must not be above the upper
// one, hence the inner max: a process that may open less than 32 files works in one thread.
unsigned workerCount(long long threads) {
  if (threads == 1) return 0;
  if (threads == 0) threads = hasLittleMemory() ? 1 : processorsOfProcess();
  return static_cast<unsigned>(
      std::clamp(threads, 1LL, std::max<long long>(shareOfFiles(limitOf(RLIMIT_NOFILE)), 1)) - 1);
}

// All workers together have some hundred items at a time. A task of less than four would be spent on waking
// and locking, one of more than kMostItemsInTask would leave the others idle at the end of a small tree.
unsigned itemsInTask(unsigned workers) {
  constexpr unsigned kFewest = 4, kForAll = 128;
  return std::clamp(kForAll / workers, kFewest, kMostItemsInTask);
}

WorkerPool::Task::~Task() = default;

// Taken off the list under the lock, so that no worker begins anything behind this. The threads are joined
// outside of it, because each needs the lock to see that it has to stop.
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
// One that did not start stays in the list as an empty object, which joins nothing. Memory may run out for
// the list itself; the workers that stand by then do the work.
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

// The place is looked for from the end, because that is where a task belongs as a rule: those of a ring
// have all the same rank. What may throw comes before the task is changed.
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
  // Bounded, so that the sum does not wrap, whatever weight a caller names.
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
// with them: to hand in what comes next. The task is then put in front of all others; a worker that is busy
// comes to it next, and one that is idle has been woken by submit.
void WorkerPool::finish(Task& task) {
  std::unique_lock<std::mutex> lock(m_mutex);
  const bool helps = !m_hasWorkersToSpare;
  if (task.m_state == Task::State::Waiting && helps) {
    takeBack(task);
    work(task, lock);
  } else if (task.m_state == Task::State::Waiting) {
    // Within the list, which so needs no memory.
    const auto place = std::find(m_waiting.begin(), m_waiting.end(), &task);
    std::rotate(m_waiting.begin(), place, std::next(place));
  }
  m_wanted = &task;
  while (task.m_state != Task::State::Done) {
    helps && !m_waiting.empty() ? doNext(lock) : m_wantedDone.wait(lock);
  }
  m_wanted = nullptr;
  lock.unlock();
  // The lock is not needed from here on: behind Done the failure is the first thread's own, and no worker
  // looks at the task any more.
  if (const std::exception_ptr failure = std::exchange(task.m_failure, nullptr)) {
    std::rethrow_exception(failure);
  }
}

// It does not help with other tasks while it waits: they may be of no more use to its caller than this one.
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

// A search through the whole list, which is as short as the callers keep it: a ring has its slots, and the
// looks of a walk are 64 at most.
void WorkerPool::takeBack(const Task& task) {
  m_waiting.erase(std::find(m_waiting.begin(), m_waiting.end(), &task));
}

// Off the list before the lock is let go, so that nobody else begins the same task.
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
