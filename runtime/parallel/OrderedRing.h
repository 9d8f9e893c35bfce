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
#pragma once

#include <cstddef>
#include <vector>

#include "runtime/parallel/WorkerPool.h"

namespace morvane {

// Used by one thread, as the pool is that does the work. It holds pointers only: jobs belong to whoever
// hands them in, and stay where they are from submit to take. That each job goes in with the same rank
// keeps the pool's list in the order of the ring.
class OrderedRing {
 public:
  using Job = WorkerPool::Task;

  // At most `slots` jobs are under way. 0 workers is one thread: jobs are done when they are taken.
  OrderedRing(unsigned workers, unsigned slots) : m_slots(slots), m_pool(workers) {}

  // Jobs that were handed in and not taken yet.
  unsigned underWay() const { return static_cast<unsigned>(m_submitted - m_taken); }
  bool isEmpty() const { return m_submitted == m_taken; }
  bool isFull() const { return underWay() == m_slots.size(); }

  // Hands in the next job, where there is room. `weight` is what WorkerPool::submit wants to know. Not
  // while the ring is full: the slot of the oldest job would be overwritten.
  // A job that the pool has no memory for was not handed in.
  void submit(Job& job, size_t weight) {
    m_slots[m_submitted % m_slots.size()] = &job;
    m_pool.submit(job, 0, weight);
    ++m_submitted;
  }
  // Whether take would give the oldest without waiting or working.
  bool oldestIsDone() { return !isEmpty() && m_pool.isDone(*m_slots[m_taken % m_slots.size()]); }
  // The oldest job, done. Waits for it, or does it. Not for an empty ring. Throws what the job threw; it is
  // taken then too.
  Job& take() {
    Job& job = *m_slots[m_taken++ % m_slots.size()];
    m_pool.finish(job);
    return job;
  }
  // Takes back what nobody has begun, and waits for the rest. What jobs threw is forgotten.
  void dropAll() {
    while (!isEmpty()) m_pool.drop(*m_slots[m_taken++ % m_slots.size()]);
  }

 private:
  // Counts of jobs; the number of a job is its count.
  unsigned long long m_submitted = 0, m_taken = 0;
  // A job's slot is its number modulo the slots, which no two jobs under way share.
  std::vector<Job*> m_slots;
  WorkerPool m_pool;
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
  // The call has no effect until submit, and may be repeated: it is always the same job.
  JobType& next() { return m_jobs[m_next]; }
  void submit(size_t weight) {
    m_ring.submit(m_jobs[m_next], weight);
    m_next = (m_next + 1) % m_jobs.size();
  }
  // As OrderedRing::take. The job is the caller's until the next take.
  JobType& take() { return static_cast<JobType&>(m_ring.take()); }
  void dropAll() { m_ring.dropAll(); }

 private:
  std::vector<JobType> m_jobs;
  size_t m_next = 0;
  // Behind m_jobs, so that it is destroyed before them: its destructor waits for workers that are still
  // writing to a job.
  OrderedRing m_ring;
};

}  // namespace morvane
