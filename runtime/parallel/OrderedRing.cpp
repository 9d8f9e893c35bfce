// The ring is three counts under one lock. What is between the first two waits to be begun, what is between
// the second and the third is being done or is done; nobody ever looks for work, because jobs are begun in
// order.
#include "runtime/parallel/OrderedRing.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <new>

namespace morvane {

namespace {

// What is worth a thread, which costs some ten microseconds to make and to end.
constexpr unsigned long long kJobsWorthWorkers = 32;
constexpr size_t kBytesWorthWorkers = 1024 * 1024;

constexpr long long kMostThreads = 64;

long long processorsOfProcess() {
  cpu_set_t set;
  // It fails where the machine has more processors than the set has room for.
  if (sched_getaffinity(0, sizeof set, &set) == 0) return CPU_COUNT(&set);
  return sysconf(_SC_NPROCESSORS_ONLN);
}

// Stacks and buffers of threads could use up what a process with little room for memory needs for its work.
bool hasLittleMemory() {
  constexpr rlim_t kMuch = 512UL * 1024 * 1024;
  rlimit limit{};
  return getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur < kMuch;
}

}  // namespace

unsigned workerCount(long long threads) {
  if (threads == 0) threads = hasLittleMemory() ? 1 : processorsOfProcess();
  return static_cast<unsigned>(std::clamp(threads, 1LL, kMostThreads) - 1);
}

OrderedRing::Job::~Job() = default;

OrderedRing::OrderedRing(unsigned workers, unsigned slots) : m_workersWanted(workers), m_slots(slots) {}

OrderedRing::~OrderedRing() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stop = true;
  }
  m_workCame.notify_all();
  for (WorkerThread& worker : m_workers) worker.join();
}

// Fewer threads than wanted, or none, are no failure: the system may have no more to give, or forbid them.
void OrderedRing::startWorkers() {
  m_startTried = true;
  try {
    while (m_workers.size() < m_workersWanted) {
      if (!m_workers.emplace_back().start([this] { workUntilStopped(); })) return;
    }
  } catch (const std::bad_alloc&) {
  }
}

void OrderedRing::submit(Job& job, size_t weight) {
  bool wake = false;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    Slot& slot = slotOf(m_submitted);
    slot.job = &job;
    slot.isDone = false;
    ++m_submitted;
    wake = m_idle > 0;
  }
  // Outside the lock, so that who is woken need not wait for it.
  if (wake) m_workCame.notify_one();
  m_weight += std::min(weight, kBytesWorthWorkers);
  const bool isWorthIt = m_submitted >= kJobsWorthWorkers || m_weight >= kBytesWorthWorkers;
  if (isWorthIt && !m_startTried && m_workersWanted > 0) startWorkers();
}

bool OrderedRing::oldestIsDone() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_taken < m_begun && slotOf(m_taken).isDone;
}

// It helps until the oldest is done, with that one first where nobody has begun it.
OrderedRing::Job& OrderedRing::take() {
  std::unique_lock<std::mutex> lock(m_mutex);
  Slot& slot = slotOf(m_taken);
  while (m_taken == m_begun || !slot.isDone) {
    if (m_begun < m_submitted) {
      doNext(lock);
    } else {
      m_oldestDone.wait(lock);
    }
  }
  ++m_taken;
  Job& job = *slot.job;
  const std::exception_ptr failure = std::move(slot.failure);
  slot.failure = nullptr;
  lock.unlock();
  if (failure) std::rethrow_exception(failure);
  return job;
}

// What was thrown is let go of before the lock is taken, because the first thread frees it.
void OrderedRing::doNext(std::unique_lock<std::mutex>& lock) {
  const unsigned long long number = m_begun++;
  Slot& slot = slotOf(number);
  lock.unlock();
  try {
    slot.job->work();
  } catch (...) {
    slot.failure = std::current_exception();
  }
  lock.lock();
  slot.isDone = true;
  if (number == m_taken) m_oldestDone.notify_one();
}

// Nothing in here throws: a job's own exceptions stay in doNext, and locks that are used rightly do not fail.
void OrderedRing::workUntilStopped() {
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_stop) {
    if (m_begun < m_submitted) {
      doNext(lock);
    } else {
      ++m_idle;
      m_workCame.wait(lock);
      --m_idle;
    }
  }
}

}  // namespace morvane
