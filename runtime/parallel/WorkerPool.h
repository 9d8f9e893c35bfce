// Tasks that the first thread hands in, and finishes one by one in any order it likes; workers do them
// meanwhile, those of the highest rank first.
//
//   struct Square : WorkerPool::Task {
//     void work() override { result = number * number; }
//     int number = 0, result = 0;
//   };
//   Square a, b;
//   WorkerPool pool(workerCount(threads));
//   pool.submit(a, 0, sizeof a);
//   pool.submit(b, 1, sizeof b);
//   pool.finish(a);
//   pool.drop(b);
//
// Small work starts no thread, and where none can be made everything is done all the same: by the first
// thread, when it finishes a task that nobody has begun. It helps with others too while the one that it wants
// is not done.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <mutex>

#include "runtime/parallel/WorkerThread.h"

namespace morvane {

// How many workers stand beside the first thread when `threads` are asked for: none for 1, one less than it
// for more, for the first thread helps. 0 asks for as many threads as the process has processors, or for one
// where its memory is limited to less than 512 MiB (RLIMIT_AS). There may be more than processors, because
// work that waits for a file system gains from it; and fewer than asked for where the process may have few
// files open, because each worker has one.
unsigned workerCount(long long threads);
// How many directories, each with a file in it, may be held open beside what work needs in one thread: a part
// of what the process may open, and of what it may still open.
unsigned filesToSpare();
// How many small items, such as files, are worth handing in as one task: fewer where there are many workers
// to share them. `workers` is not 0.
constexpr unsigned kMostItemsInTask = 32;
unsigned itemsInTask(unsigned workers);

// One thread, here called the first, calls everything; only Task::work runs elsewhere. No thread outlives the
// object. Workers have all signals blocked but those of a fault of their own.
class WorkerPool {
 public:
  // One piece of work, owned by whoever hands it in, and left alone by them from submit to finish or drop.
  // It may be handed in again then.
  class Task {
   public:
    virtual ~Task();
    // Runs once, in any thread. It must touch nothing that the first thread or another task may change. What
    // it throws is kept and thrown again by finish.
    virtual void work() = 0;

   private:
    friend class WorkerPool;
    enum class State { Waiting, Begun, Done };
    // Guarded by the pool's lock, but for the failure, which is the worker's until Done.
    State m_state = State::Done;
    unsigned m_rank = 0;
    std::exception_ptr m_failure;
  };

  explicit WorkerPool(unsigned workers) : m_workersWanted(workers) {}
  // Drops what nobody has begun, waits for what is being done, and ends the workers: also behind an
  // exception.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Behind those of its rank and above. `weight` is about how many bytes it moves: workers are made once 32
  // tasks or a megabyte were handed in, over the life of the pool. Less is not worth a thread.
  void submit(Task& task, unsigned rank, size_t weight);
  // Whether finish would return without waiting or working.
  bool isDone(const Task& task);
  // Does it, or waits for it. Throws what it threw.
  void finish(Task& task);
  // It is not wanted any more: taken back where nobody has begun it, else waited for. What it threw is
  // forgotten. One that is done already is let go of at once.
  void drop(Task& task);

 private:
  // Once in the life of the pool, from submit. What it could not start is not tried again.
  void startWorkers();
  // What a worker runs, from its beginning to its end.
  void workUntilStopped();
  // Does the first task that waits. The lock is held when it is called and when it returns.
  void doNext(std::unique_lock<std::mutex>& lock);
  // Does a task that is on no list, without the lock; it is held when this is called and when it returns.
  void work(Task& task, std::unique_lock<std::mutex>& lock);
  // From the list, on which it is.
  void takeBack(const Task& task);

  const unsigned m_workersWanted;
  // Of the first thread alone: what of the tasks decides when workers are made.
  size_t m_weight = 0;
  unsigned long long m_submitted = 0;
  bool m_startTried = false;
  bool m_hasWorkersToSpare = false;  // more of them than there are processors

  // Guards what stands behind it but for m_workers. One lock for all of it, because each task takes it three
  // times only and tasks are not small.
  std::mutex m_mutex;
  // A task was handed in, or the end has come: for workers, which wait for nothing else.
  std::condition_variable m_workCame;
  // m_wanted is done: for the first thread, which waits for that one alone.
  std::condition_variable m_wantedDone;
  // One is enough, because the first thread alone waits so, for one at a time.
  const Task* m_wanted = nullptr;
  // By falling rank, each rank in the order of coming; but one that the first thread waits for may stand in
  // front of all.
  std::deque<Task*> m_waiting;
  // Workers that wait, so that nobody is woken for nothing.
  unsigned m_idle = 0;
  // The end: workers take nothing more. Under the lock, so that none falls asleep behind it.
  bool m_stop = false;
  // Of the first thread alone. Last, because nothing here may go before the workers have.
  std::deque<WorkerThread> m_workers;
};

}  // namespace morvane
