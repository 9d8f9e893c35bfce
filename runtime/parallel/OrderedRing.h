// Ordered work, done in parallel: the first thread hands in jobs and takes them back in the same order;
// workers do them in any order.
//
//   struct Square : OrderedRing::Job {
//     void work() override { result = number * number; }
//     int number = 0, result = 0;
//   };
//   RingOf<Square> ring(workerCount(threads), 8);
//   for (int i = 0; i < 100; ++i) {
//     if (ring.isFull()) use(ring.take().result);
//     ring.next().number = i;
//     ring.submit(sizeof i);
//   }
//   while (!ring.isEmpty()) use(ring.take().result);
//
// Small work starts no thread, and where none can be made everything is done all the same: by the first
// thread, when it takes a job that nobody has begun. It helps with others too while the one that it wants is
// not done.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <vector>

#include "runtime/parallel/WorkerThread.h"

namespace morvane {

// How many workers stand beside the first thread when `threads` are asked for: none for 1, one less than it
// for more, for the first thread helps. 0 asks for as many threads as the process has processors, or for one
// where its memory is limited to less than 512 MiB (RLIMIT_AS). There may be more than processors, because
// work that waits for a file system gains from it.
unsigned workerCount(long long threads);

// One thread, here called the first, calls everything; only Job::work runs elsewhere. No thread outlives the
// object. Workers have all signals blocked but those of a fault of their own.
class OrderedRing {
 public:
  // One piece of work, owned by whoever hands it in, and left alone by them from submit to take.
  class Job {
   public:
    virtual ~Job();
    // Runs once, in any thread. It must touch nothing that the first thread or another job may change. What
    // it throws is kept and thrown again by take.
    virtual void work() = 0;
  };

  // At most `slots` jobs are under way. 0 workers is one thread: jobs are done when they are taken.
  OrderedRing(unsigned workers, unsigned slots);
  // Drops what nobody has begun, waits for what is being done, and ends the workers: also behind an
  // exception.
  ~OrderedRing();
  OrderedRing(const OrderedRing&) = delete;
  OrderedRing& operator=(const OrderedRing&) = delete;

  // Jobs that were handed in and not taken yet.
  unsigned underWay() const { return static_cast<unsigned>(m_submitted - m_taken); }
  bool isEmpty() const { return m_submitted == m_taken; }
  bool isFull() const { return underWay() == m_slots.size(); }

  // Hands in the next job, where there is room. `weight` is about how many bytes it moves: workers are made
  // once 32 jobs or a megabyte were handed in, over the life of the ring. Less is not worth a thread.
  void submit(Job& job, size_t weight);
  // Whether take would give the oldest without waiting or working.
  bool oldestIsDone();
  // The oldest job, done. Waits for it, or does it. Not for an empty ring. Throws what the job threw; it is
  // taken then too.
  Job& take();

 private:
  struct Slot {
    Job* job = nullptr;
    bool isDone = false;
    std::exception_ptr failure;
  };

  void startWorkers();
  void workUntilStopped();
  // Does the oldest job that nobody has begun. The lock is held when it is called and when it returns.
  void doNext(std::unique_lock<std::mutex>& lock);
  Slot& slotOf(unsigned long long number) { return m_slots[number % m_slots.size()]; }

  const unsigned m_workersWanted;
  // Of the first thread alone: what of the jobs decides when workers are made.
  size_t m_weight = 0;
  bool m_startTried = false;

  // Guards what stands behind it but for the words said there. One lock for all of it, because each job takes
  // it three times only and jobs are not small.
  std::mutex m_mutex;
  // A job that nobody has begun was handed in, or the end has come: for workers, which wait for nothing else.
  std::condition_variable m_workCame;
  // The oldest job is done: for the first thread, which waits for that one alone.
  std::condition_variable m_oldestDone;
  // Counts of jobs; the number of a job is its count. Jobs are begun in their order, so that those nobody has
  // begun are the numbers from m_begun to m_submitted. m_submitted and m_taken are changed by the first
  // thread alone, under the lock because workers read them; so it may read them itself without.
  unsigned long long m_submitted = 0, m_begun = 0, m_taken = 0;
  // The slots of begun jobs that are not done belong to whoever does them, without the lock; the array itself
  // never changes.
  std::vector<Slot> m_slots;
  // Workers that wait, so that nobody is woken for nothing.
  unsigned m_idle = 0;
  bool m_stop = false;
  // Of the first thread alone. Last, because nothing here may go before the workers have.
  std::deque<WorkerThread> m_workers;
};

// A ring with jobs of its own, used again and again, so that they keep their buffers. `JobType` derives from
// OrderedRing::Job and can be made without arguments.
template <class JobType>
class RingOf {
 public:
  // One job more than slots: the one that was taken last stays as it is.
  RingOf(unsigned workers, unsigned slots) : m_jobs(slots + 1), m_ring(workers, slots) {}

  unsigned underWay() const { return m_ring.underWay(); }
  bool isEmpty() const { return m_ring.isEmpty(); }
  bool isFull() const { return m_ring.isFull(); }
  bool oldestIsDone() { return m_ring.oldestIsDone(); }

  // The job that submit will hand in, with whatever its last use left in it. Not while the ring is full.
  JobType& next() { return m_jobs[m_next]; }
  void submit(size_t weight) {
    m_ring.submit(m_jobs[m_next], weight);
    m_next = (m_next + 1) % m_jobs.size();
  }
  // As OrderedRing::take. The job is the caller's until the next take.
  JobType& take() { return static_cast<JobType&>(m_ring.take()); }

 private:
  std::vector<JobType> m_jobs;
  size_t m_next = 0;
  // Last: it waits for what is being done to the jobs.
  OrderedRing m_ring;
};

}  // namespace morvane
