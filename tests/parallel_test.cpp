// The ordered ring against a model, and the log that is told later.
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "FailingSystemCalls.h"
#include "TestSupport.h"
#include "runtime/log/HeldLog.h"
#include "runtime/log/LogCause.h"
#include "runtime/log/LogContextExitor.h"
#include "runtime/parallel/OrderedRing.h"

namespace morvane::testing {
namespace {

int threadsOfProcess() {
  return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator()));
}

// The system takes a thread that was joined off its list a moment later; a sanitizer has one of its own.
bool threadsMore(int expected) {
  static const int kBefore = threadsOfProcess();
  for (int i = 0; i < 1000; ++i) {
    if (threadsOfProcess() - kBefore == expected) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

std::atomic<int> works{0}, atOnce{0};

struct TestJob : OrderedRing::Job {
  void work() override {
    ++works;
    ++atOnce;
    if (pause > 0) std::this_thread::sleep_for(std::chrono::microseconds(pause));
    const pthread_t self = pthread_self();
    done = number * 3;
    thread = self;
    --atOnce;
    if (fails == 1) throw std::bad_alloc();
    if (fails == 2) throw std::runtime_error(std::to_string(number));
  }
  int number = 0, done = 0, fails = 0;
  unsigned pause = 0;
  pthread_t thread{};
};

// Whatever the workers do, jobs come back in their order, each done once, failures where they belong.
TEST(OrderedRing, AgreesWithAQueue) {
  ASSERT_TRUE(threadsMore(0));
  for (unsigned seed = 1; seed <= 60; ++seed) {
    std::mt19937 generator(seed);
    const auto random = [&] { return static_cast<unsigned>(generator()); };
    const unsigned workers = random() % 6, slots = 1 + random() % 9;
    const int jobs = static_cast<int>(random() % 300);
    const int dropAt = random() % 3 ? -1 : static_cast<int>(random() % 300);
    const size_t weight = random() % 2 ? 100'000 : 1;
    works = 0;
    std::vector<int> failing;
    int submitted = 0, taken = 0;
    {
      RingOf<TestJob> ring(workers, slots);
      const auto take = [&] {
        const bool fails = failing[static_cast<size_t>(taken)] > 0;
        const bool wasDone = ring.oldestIsDone();
        try {
          const TestJob& job = ring.take();
          ASSERT_TRUE(!fails && job.number == taken && job.done == 3 * taken) << seed << " " << taken;
        } catch (const std::bad_alloc&) {
          ASSERT_EQ(1, failing[static_cast<size_t>(taken)]);
        } catch (const std::runtime_error& error) {
          ASSERT_EQ(std::to_string(taken), error.what());
        }
        ASSERT_TRUE(wasDone || workers > 0 || works == taken + 1) << "alone, nothing is done too early";
        ++taken;
      };
      while (submitted < jobs && submitted != dropAt) {
        while (ring.isFull() || (!ring.isEmpty() && random() % 4 == 0)) take();
        TestJob& job = ring.next();
        job.number = submitted++;
        job.fails = random() % 20 ? 0 : static_cast<int>(1 + random() % 2);
        job.pause = random() % 3 ? 0 : random() % 200;
        failing.push_back(job.fails);
        ring.submit(weight);
        ASSERT_EQ(static_cast<unsigned>(submitted - taken), ring.underWay());
      }
      while (submitted != dropAt && !ring.isEmpty()) take();
    }
    ASSERT_TRUE(atOnce == 0 && works <= submitted) << "what was begun was waited for";
    ASSERT_TRUE(submitted == dropAt || works == submitted) << seed;
    ASSERT_TRUE(threadsMore(0)) << seed;
  }
}

TEST(OrderedRing, ThreadsAreForWorkThatIsWorthThem) {
  ASSERT_TRUE(threadsMore(0));
  const struct {
    const char* name;
    unsigned workers;
    int jobs;
    size_t weight;
    int threads;
  } kCases[] = {
      {"little work", 4, 31, 1000, 0}, {"many jobs", 4, 32, 0, 4},         {"a megabyte", 4, 2, 600'000, 4},
      {"nobody wanted", 0, 60, 1, 0},  {"an overflow", 2, 2, SIZE_MAX, 2},
  };
  for (const auto& each : kCases) {
    RingOf<TestJob> ring(each.workers, 64);
    for (int i = 0; i < each.jobs; ++i) ring.submit(each.weight);
    EXPECT_TRUE(threadsMore(each.threads)) << each.name;
    while (!ring.isEmpty()) {
      const TestJob& job = ring.take();
      EXPECT_TRUE(each.threads > 0 || pthread_equal(job.thread, pthread_self())) << each.name;
    }
  }
  EXPECT_TRUE(workerCount(1) == 0 && workerCount(2) == 1 && workerCount(64) == 63 && workerCount(5000) == 63);
  cpu_set_t set;
  sched_getaffinity(0, sizeof set, &set);
  EXPECT_EQ(static_cast<unsigned>(std::min(CPU_COUNT(&set), 64)), workerCount(0) + 1);
}

// One worker that is held up: what waits behind it is done by rank, each rank in its order; what was dropped
// is not done.
TEST(WorkerPool, WhatIsSoonerIsDoneFirst) {
  struct Numbered : WorkerPool::Task {
    void work() override {
      for (isBegun = true; isHeld;) std::this_thread::yield();
      order->push_back(number);
    }
    int number = 0;
    std::vector<int>* order = nullptr;
    std::atomic<bool> isHeld{false}, isBegun{false};
  };
  std::vector<int> order;
  Numbered tasks[6];
  WorkerPool pool(1);
  const unsigned ranks[] = {0, 1, 1, 2, 3, 1};
  for (int i = 0; i < 6; ++i) {
    tasks[i].number = i;
    tasks[i].order = &order;
    tasks[i].isHeld = i == 0;
    pool.submit(tasks[i], ranks[i], 1 << 20);
    while (!tasks[0].isBegun) std::this_thread::yield();
  }
  pool.drop(tasks[3]);
  EXPECT_TRUE(pool.isDone(tasks[3]));
  tasks[0].isHeld = false;
  for (const Numbered& task : tasks) {
    while (!pool.isDone(task)) std::this_thread::yield();
  }
  for (Numbered& task : tasks) pool.finish(task);
  EXPECT_EQ((std::vector<int>{0, 4, 1, 2, 5}), order);
}

// Signals that are meant for the application never reach a worker.
struct MaskJob : OrderedRing::Job {
  void work() override { pthread_sigmask(SIG_SETMASK, nullptr, &blocked); }
  sigset_t blocked{};
};

TEST(OrderedRing, SignalsAreTheApplications) {
  sigset_t before, after;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  RingOf<MaskJob> ring(1, 64);
  for (int i = 0; i < 40; ++i) ring.submit(1);
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  while (!ring.oldestIsDone()) std::this_thread::yield();
  const sigset_t worker = ring.take().blocked;
  EXPECT_TRUE(sigismember(&worker, SIGINT) && sigismember(&worker, SIGTERM) &&
              !sigismember(&worker, SIGSEGV));
  for (const int signal : {SIGINT, SIGTERM, SIGUSR1})
    EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal));
}

TEST(OrderedRing, WithoutThreadsTheWorkIsDoneAllTheSame) {
  const auto isDone = withoutThreads([] {
    int right = 0;
    RingOf<TestJob> ring(4, 8);
    for (int i = 0; i < 100; ++i) {
      if (ring.isFull()) right += ring.take().done % 3 == 0;
      ring.next().number = i;
      ring.submit(100'000);
    }
    while (!ring.isEmpty()) right += ring.take().done % 3 == 0;
    return right == 100;
  });
  if (!isDone) GTEST_SKIP() << "no seccomp here";
  EXPECT_TRUE(*isDone);
}

// What a log holds, told later, is what it would have been.
TEST(HeldLog, TellsLinesAndCauseInTheirTurn) {
  const std::function<void(LogBase&)> kWorks[] = {
      [](LogBase& log) { log.LogInfo("only a line\n with a break"); },
      [](LogBase& log) {
        LogContextExitor outer(log, "outer"), inner(log, "inner");
        log.LogError("failed");
        log.LogData("path", "p");
        log.LogData("reason", "r");
      },
      [](LogBase& log) { log.LogNotice("no cause"); },
      [](LogBase& log) { log.noteCause("noted", "path", "reason"); },
      [](LogBase& log) {
        log.LogError("first");
        if (log.verbose()) log.LogError("second");
      },
      [](LogBase&) {},
      [](LogBase& log) { LogContextExitor silent(log, "silent"); },
  };
  for (const bool verbose : {false, true}) {
    for (const auto& first : kWorks) {
      for (const auto& second : kWorks) {
        _mvLogger direct, later;
        for (_mvLogger* log : {&direct, &later}) {
          log->setVerbose(verbose);
          log->enterContext("method");
        }
        first(direct);
        second(direct);
        HeldLog one, two;
        one.beginLike(later);
        two.beginLike(later);
        second(two);
        first(one);
        one.tellTo(later);
        two.tellTo(later);
        EXPECT_EQ(direct.text(), later.text());
        EXPECT_EQ(direct.cause().message, later.cause().message);
        EXPECT_EQ(direct.cause().path + direct.cause().reason, later.cause().path + later.cause().reason);
        EXPECT_EQ(direct.cause().depth, later.cause().depth);
        EXPECT_TRUE(one.isEmpty() && two.isEmpty());
      }
    }
  }
  LogNull nobody;
  HeldLog held;
  held.beginLike(nobody);
  held.LogError("not built");
  EXPECT_TRUE(held.isEmpty());
}

}  // namespace
}  // namespace morvane::testing
