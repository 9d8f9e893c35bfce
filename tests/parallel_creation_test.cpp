// Reading ahead with several threads against one: archives, events, logs and results.
#include <fcntl.h>
#include <sys/resource.h>

#include "ParallelSupport.h"

namespace morvane::testing {
namespace {

Seen create(const ScratchDir& dir, int threads, const std::function<void(RowEvent&)>& change) {
  TarWith tar("Profile=usual,OpenBeforeEvent,Threads=" + std::to_string(threads));
  tar.put_AbortCheckMs(kNotByTheClock);
  RowEvent event;
  if (change) change(event);
  tar.AddDirRoot2("t", dir / "t");
  const size_t before = threadsNow();
  LimitedOutput out;
  Seen seen;
  seen.result = tar.WriteTar(out, &event);
  expectThreads(before);
  seen.archive = out.bytes;
  seen.events = event.rows;
  seen.log = logOf(tar);
  return seen;
}

// Sizes around what is read ahead, empty and sparse ones, links, FIFOs, directories between files, names that
// are skipped.
TEST(ParallelCreation, ArchivesEventsAndLogsAreThoseOfOneThread) {
  ScratchDir dir;
  must(dir, R"(mkdir -p t/b/deep t/m; cd t
    for n in 0 1 511 512 513 65535 65536 65537 200000; do head -c $n /dev/urandom > f$n; done
    for i in $(seq 90); do echo $i > m/$i; done; echo x > b/deep/x; truncate -s 100000 m/hole; ln -s x b/link
    ln f1 m/second; mkfifo m/fifo; echo no > m/skipped; for i in $(seq 70); do echo $i > z$i; done
    for d in $(seq 60); do mkdir -p w/$d/skipped/below w/$d/x/y; for f in 1 2 3; do echo $d > w/$d/$f; echo $f > w/$d/x/y/$f; done; done
    d=deep; for i in $(seq 40); do d=$d/$i; mkdir -p $d/side; for f in 1 2 3; do echo $i > $d/f$f; echo $f > $d/side/$f; done; done
    chmod 000 w/7)");
  const Seen one = create(dir, 1, nullptr);
  EXPECT_EQ(isRoot() ? 1 : 0, one.result) << one.log;  // w/7 is closed to others
  for (const int threads : kManyThreads)
    expectSame(one, create(dir, threads, nullptr), std::to_string(threads));
  // Ended at any of its callbacks, by a word or by an exception.
  for (size_t at = 1; at < one.events.size(); at += 37) {
    const auto throwing = [at](RowEvent& event) { event.throwAt = at; };
    const auto aborting = [at](RowEvent& event) { event.abortAt = at; };
    expectSame(create(dir, 1, throwing), create(dir, 4, throwing), "thrown at " + std::to_string(at));
    expectSame(create(dir, 1, aborting), create(dir, 4, aborting), "aborted at " + std::to_string(at));
  }
}

// The application has nearly all of them open.
TEST(ParallelCreation, WhatIsReadAheadLeavesFilesToBeOpened) {
  ScratchDir dir;
  must(dir,
       "for d in $(seq 80); do mkdir -p t/$d/x; for f in 1 2 3; do echo $d > t/$d/$f; echo $f > t/$d/x/$f; "
       "done; done");
  const Seen one = create(dir, 1, nullptr);
  rlimit before{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
  const rlimit low{256, before.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
  std::vector<int> taken;
  for (int fd = 0; (fd = open("/", O_RDONLY | O_CLOEXEC)) >= 0;) taken.push_back(fd);
  for (int i = 0; i < 20; ++i, taken.pop_back()) close(taken.back());
  const Seen many = create(dir, 4, nullptr);
  for (const int fd : taken) close(fd);
  EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
  expectSame(one, many, "few files");
}

// What was opened early has changed, or gone, when its turn comes.
TEST(ParallelCreation, SourcesThatChangeMeanwhileAreToldOrWhole) {
  for (const int threads : {1, 4}) {
    ScratchDir dir;
    must(dir, "mkdir t; for i in $(seq 100 180); do echo $i > t/$i; done; head -c 100000 /dev/zero > t/175");
    const Seen seen = create(dir, threads, [&](RowEvent& event) {
      event.act = [&](const std::string& path) {
        if (!has(path, "/t/120")) return;
        must(dir, "rm t/150; echo much longer > t/160; : > t/170; echo new > n; mv n t/175");
      };
    });
    writeFile(dir / "a.tar", seen.archive);
    must(dir, "tar -tf a.tar > names && grep -qx t/180 names && mkdir out && tar -xf a.tar -C out");
    // A file is the old one, the new one, or told.
    const std::string grown = readFile(dir / "out/t/160");
    std::string events;
    for (const std::string& row : seen.events) events += row + "\n";
    EXPECT_TRUE(grown == "160\n" || grown == "much longer\n" || has(events, "sizeChanged")) << grown;
    // Too large to be read ahead: not even described before its turn.
    EXPECT_EQ("new\n", readFile(dir / "out/t/175"));
    EXPECT_TRUE(exists(dir / "out/t/150") || has(events, "unreadable")) << events;
  }
}

// Its size is told when it is met, and a worker must add nothing to it until it has been copied.
TEST(ParallelCreation, AnArchiveInItsOwnTreeCanBeRead) {
  ScratchDir dir;
  must(dir, "mkdir t; for i in $(seq 10 30); do head -c 150000 /dev/zero > t/a$i; echo $i > t/z$i; done");
  for (int i = 0; i < 5; ++i) {
    TarWith tar("Threads=4");
    tar.AddDirRoot2("t", dir / "t");
    ASSERT_TRUE(tar.WriteTar(dir / "t/m.tar")) << logOf(tar);
    must(dir, "tar -tf t/m.tar > names && grep -qx t/m.tar names && grep -qx t/z30 names");
  }
}

}  // namespace
}  // namespace morvane::testing
