// Reading ahead and writing behind with several threads against one: archives, events, logs, results and
// trees.
#include <fcntl.h>
#include <sys/resource.h>

#include <csignal>

#include "ArchiveSupport.h"
#include "TreeSupport.h"

namespace morvane::testing {
namespace {

// All that a call shows to an application.
struct Seen {
  int result = 0;
  std::string archive, log, cause;
  Lines events;
  Facts tree;
};

// Hears everything in one row, and stops the call where it is told to.
class RowEvent : public RecordingEvent {
 public:
  void onInfo(const char* name, const char* value) override {
    row("info " + std::string(name) + " " + value);
  }
  void onTarEntry(const char* path, long long size, bool isDirectory, bool& skip) override {
    row("entry " + std::string(path) + " " + std::to_string(size) + (isDirectory ? " dir" : ""));
    skip = has(path, "skipped");
    if (act) act(path);
  }
  void onTarHeader(const TarMemberInfo& member) override { row(std::string("header ") + member.path); }
  void onProgress(int percent, bool& abort) override {
    row("percent " + std::to_string(percent));
    onAbortCheck(abort);
  }

  Lines rows;
  size_t throwAt = 0, abortAt = 0;
  void onAbortCheck(bool& abort) override { abort = abortAt > 0 && rows.size() >= abortAt; }

 private:
  void row(std::string text) {
    rows.push_back(std::move(text));
    if (rows.size() == throwAt) throw std::runtime_error("callback");
  }
};

// Threads that are there now; those that a call made must be gone when it returns.
size_t threadsNow() {
  size_t count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/task")) count += entry.exists();
  return count;
}

// A thread that has been joined is a moment longer in the list of the system.
void expectThreads(size_t expected) {
  for (int i = 0; i < 1000 && threadsNow() != expected; ++i) usleep(1000);
  EXPECT_EQ(expected, threadsNow());
}

void expectSame(const Seen& one, const Seen& many, const std::string& what) {
  SCOPED_TRACE(what);
  EXPECT_EQ(one.result, many.result);
  EXPECT_TRUE(one.archive == many.archive);
  EXPECT_EQ(one.log, many.log);
  EXPECT_EQ(one.cause, many.cause);
  EXPECT_EQ(one.events, many.events);
  EXPECT_EQ(Lines(), differences(one.tree, many.tree));
}

std::string withoutTimes(std::string log) {
  for (size_t at = log.find("untar: "); at != std::string::npos; at = log.find("untar: ", at + 1)) {
    log.erase(at, log.find('\n', at) - at);
  }
  return log;
}

// The last has batches so small that every second file fills one.
constexpr int kManyThreads[] = {2, 4, 8, 40};

// No question may come by the clock, because two runs would be asked at different places: asked are members
// and parts of the progress.
constexpr int kNotByTheClock = 1000000;

// ---- Creating

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
TEST(ParallelTrees, ArchivesEventsAndLogsAreThoseOfOneThread) {
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
TEST(ParallelTrees, WhatIsReadAheadLeavesFilesToBeOpened) {
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
TEST(ParallelTrees, SourcesThatChangeMeanwhileAreToldOrWhole) {
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

// ---- Extracting

// A link of before makes one directory of two paths; an empty target is the run's own.
enum class Target { HasThings, IsEmpty, IsMissing };

using Change = std::function<void(RowEvent&, ClsTar&)>;

// By the pull engine, or, `compressed`, by the push engine.
Seen extract(const std::string& archive, int threads, bool compressed, const std::string& words,
             const Change& change, Target target = Target::HasThings) {
  ScratchDir dir;
  if (target == Target::HasThings)
    must(dir, "mkdir -p out/there && cd out && echo old > there/f && echo old > there/g && ln -s . old");
  if (target == Target::IsEmpty) must(dir, "mkdir out");
  const std::string where = dir / "out";
  TarWith tar("Profile=usual,Threads=" + std::to_string(threads) + words, where);
  tar.put_AbortCheckMs(kNotByTheClock);
  RowEvent event;
  const std::string bytes = compressed ? run({"gzip", "-1nc"}, archive).out : archive;
  if (change) change(event, tar);
  const size_t before = threadsNow();
  _mvMemoryDataSource source;
  source.initializeMemSource(reinterpret_cast<const unsigned char*>(bytes.data()),
                             static_cast<unsigned>(bytes.size()));
  Seen seen;
  seen.result = compressed ? tar.UntarAny(source, &event) : tar.Untar(source, &event);
  expectThreads(before);
  seen.tree = factsOf(where);
  // What was not given a time of the archive has that of the moment.
  constexpr long long kLaterThanAll = 1750000000;
  for (auto& [path, fact] : seen.tree) {
    if (fact.seconds > kLaterThanAll) fact.seconds = fact.nanoseconds = 0;
  }
  const auto neutral = [&where](std::string text) {
    for (size_t at = text.find(where); at != std::string::npos; at = text.find(where))
      text.erase(at, where.size());
    return text;
  };
  for (const std::string& row : event.rows) seen.events.push_back(neutral(row));
  seen.log = withoutTimes(neutral(logOf(tar)));
  XString path, reason;
  tar.get_FailureCause(path, reason);
  seen.cause = neutral(path.str() + " " + reason.str());
  return seen;
}

// As people pack them: everything below ".", files in the target itself, parents that are no members.
std::string looseArchive() {
  std::string archive = directory("./") + directory("./d/");
  for (int i = 0; i < 100; ++i) {
    const std::string name = std::to_string(i);
    archive += member("./d/" + name, noise(static_cast<size_t>(i) * 50, 1)) + member("top" + name, name) +
               member("p/q/" + name, name);
    if (i % 20 == 7) archive += member("./p/../p/q/" + name, "odd") + member("p//q/" + name, "twice");
  }
  return archive + member("top3", "again") + member("./top4", "again") +
         member("d", "in a directory's place") + ArchiveBuilder().add({"top5", "", '2', "p"}).bytes(0) +
         directory("top6/") + member("top5/q/new", "n") + kEnd;
}

// What one path of two puts there, and the other replaces.
std::string doubledArchive() {
  std::string archive = directory("old/w/");
  for (int i = 0; i < 60; ++i) {
    const std::string name = "w/" + std::to_string(i);
    archive += member("old/" + name, noise(60000, 1));
    if (i % 4 == 0) archive += member(name, "second");
    if (i % 4 == 1) archive += ArchiveBuilder().add({name, "", '2', "there"}).bytes(0);
    if (i % 4 == 2) archive += directory(name + "/");
  }
  return archive + kEnd;
}

// A directory that a link of the archive gives a second path, and another one later.
std::string turnedArchive() {
  const auto link = [](const char* path, const char* to) {
    return ArchiveBuilder().add({path, "", '2', to}).bytes(0);
  };
  return directory("d/") + directory("e/") + directory("e/x/") + link("L", "d") + directory("L/x/") +
         member("L/x/f", "f") + link("L", "e") + member("e/x/g", "g") + link("L/x/g", "nowhere") +
         directory("o/") + directory("d/y/") + link("L", "d") + member("d/y/f", "f") + link("L/y", "../o") +
         member("d/g", "g") + directory("L/g/") + kEnd;
}

// Everything that stands in everything's way, among enough ordinary files to keep workers busy.
std::string tangledArchive() {
  std::string archive = directory("d/") + directory("d/sub/");
  const auto files = [&archive](const std::string& dir, int count) {
    for (int i = 0; i < count; ++i)
      archive += member(dir + std::to_string(i), noise(static_cast<size_t>(i) * 37, 3));
  };
  files("d/a", 60);
  archive += member("d/a5", "again") + member("d/a6", "and") + member("d/a6", "again");
  archive += ArchiveBuilder().add({"d/hard", "", '1', "d/a7"}).add({"d/early", "", '1', "d/late"}).bytes(0);
  archive +=
      member("d/late", "late") + member("d/a8/below", "a file on the way") + member("d/sub", "over it");
  archive += ArchiveBuilder().add({"d/link", "", '2', "sub"}).bytes(0) + member("d/link/through", "x");
  archive +=
      directory("d/a9/") + member("d/a9/in", "in") + member("../out", "refused") + member("d/../up", "no");
  archive += member("there/f", "new") + member("there/n", "n") + member("d/skipped", "s");
  for (const size_t n : {size_t{65537}, size_t{300000}, size_t{1048576}, size_t{1048577}})
    archive += member("d/size" + std::to_string(n), noise(n, 9)) + member("d/sub/s" + std::to_string(n), "s");
  files("d/sub/b", 60);
  // Something else takes a directory's place, and what comes below it must not meet it there.
  archive += directory("r/") + member("r", "a file") + member("r/f", "below it") + directory("r/");
  archive += directory("e/") + directory("l/") + ArchiveBuilder().add({"l", "", '2', "e"}).bytes(0);
  for (int i = 0; i < 40; ++i) {
    const std::string name = "/" + std::to_string(i);
    archive += member("l" + name, noise(20000, 1)) + member("e" + name, noise(15000, 2));
  }
  archive += member("d/" + std::string(300, 'n'), "too long a name") + member("d/behind", "it");
  archive += ArchiveBuilder().add({"d/empty", "", '2', ""}).bytes(0);
  return archive + ArchiveBuilder().add({"d/fifo", "", '6'}).bytes(0) + member("d/./odd", "o") + kEnd;
}

TEST(ParallelTrees, TreesEventsAndLogsAreThoseOfOneThread) {
  const std::string archive = tangledArchive();
  for (const char* const words : {"", ",SkipUncreatable=off", ",MemberEvents", ",Restore=mode+time"}) {
    const Seen one = extract(archive, 1, false, words, nullptr);
    for (const int threads : kManyThreads)
      expectSame(one, extract(archive, threads, false, words, nullptr), words + std::to_string(threads));
    expectSame(extract(archive, 1, true, words, nullptr), extract(archive, 4, true, words, nullptr), "gzip");
  }
  for (const Target target : {Target::HasThings, Target::IsEmpty, Target::IsMissing}) {
    for (const bool compressed : {false, true}) {
      for (const std::string& other : {looseArchive(), doubledArchive(), turnedArchive()}) {
        expectSame(extract(other, 1, compressed, "", nullptr, target),
                   extract(other, 4, compressed, "", nullptr, target),
                   std::to_string(static_cast<int>(target)));
      }
    }
  }
}

// Directories of which so many follow that they are forgotten, and a link in the place of the first.
std::string forgottenArchive() {
  std::string archive = directory("other/") + directory("d/") + member("d/f", "f");
  for (int i = 0; i < 4200; ++i) archive += directory("z" + std::to_string(i) + "/");
  return archive + ArchiveBuilder().add({"d", "", '2', "other"}).bytes(0) + kEnd;
}

TEST(ParallelTrees, WhatWasForgottenIsNotPassed) {
  for (const bool compressed : {false, true})
    expectSame(extract(forgottenArchive(), 1, compressed, "", nullptr, Target::IsEmpty),
               extract(forgottenArchive(), 2, compressed, "", nullptr, Target::IsEmpty), "");
}

// The first failure in the archive's order is the one that is told, though what comes behind it was met
// before.
TEST(ParallelTrees, FailuresComeInTheirOrder) {
  std::string archive = directory("d/");
  for (int i = 0; i < 100; ++i) archive += member("d/" + std::to_string(i), i == 80 ? noise(60000, 1) : "x");
  const std::string damaged = archive + std::string(512, 'x') + kEnd;
  const std::string limited = archive + member("d/late") + kEnd;
  // What is said of a directory may come before files, but it is not what the run has failed for.
  const std::string longName = archive + directory("d/" + std::string(300, 'n') + "/") + kEnd;
  const std::string cut = (archive + member("d/late", noise(5000, 2))).substr(0, archive.size() + 3000);
  const auto hearsOfLimit = [](const Seen& seen) {
    return std::any_of(seen.events.begin(), seen.events.end(),
                       [](const std::string& row) { return has(row, "limit"); });
  };
  rlimit before{};
  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
  const auto oldAction = std::signal(SIGXFSZ, SIG_IGN);
  for (const bool compressed : {false, true}) {
    for (const std::string& words :
         {""s, ",SkipUncreatable=off"s, ",MaxMembers=101"s, ",SkipUncreatable=off,MaxMembers=101"s}) {
      for (const std::string& each : {damaged, limited, cut, longName}) {
        Seen seen[2];
        for (const int threads : {1, 4}) {
          const auto limit = [&](RowEvent&, ClsTar&) {
            const rlimit low{30000, before.rlim_max};
            EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &low));
          };
          seen[threads / 4] = extract(each, threads, compressed, words, limit, Target::IsEmpty);
          EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &before));
          // The number tells which piece it was, and a file behind is written as one. What was told of later
          // headers by then is another matter.
          const size_t number = seen[threads / 4].log.find("data to output. (");
          if (number != std::string::npos) seen[threads / 4].log.erase(number, 19);
          EXPECT_EQ(has(seen[threads / 4].log, "Limit reached"), hearsOfLimit(seen[threads / 4]));
          seen[threads / 4].events.clear();
          seen[threads / 4].tree.clear();
          EXPECT_TRUE(has(seen[threads / 4].log, "File too large"));
          if (each == longName) seen[threads / 4].log.clear();
        }
        expectSame(seen[0], seen[1], words + (compressed ? " gzip" : ""));
      }
    }
  }
  std::signal(SIGXFSZ, oldAction);
}

// What a callback sets holds for what follows, and not for what is under way and has to be done again.
TEST(ParallelTrees, WhatACallbackSetsHoldsFromThere) {
  std::string archive = directory("d/");
  for (int i = 0; i < 100; ++i) archive += member("d/a" + std::to_string(i), "one");
  archive += member("d/a98", "again") + member("d/trigger", "t") + member("d/last", "l") + kEnd;
  const auto discards = [](RowEvent& event, ClsTar& tar) {
    event.act = [&tar](const std::string& path) {
      if (has(path, "trigger")) tar.put_UntarDiscardPaths(true);
    };
  };
  const auto tellsAll = [](RowEvent& event, ClsTar& tar) {
    event.act = [&tar](const std::string& path) {
      if (has(path, "a45")) tar.put_VerboseLogging(true);
    };
  };
  for (const bool compressed : {false, true}) {
    for (const Change& change : {Change(discards), Change(tellsAll)})
      expectSame(extract(archive, 1, compressed, ",EntryEvents", change),
                 extract(archive, 4, compressed, ",EntryEvents", change), compressed ? "gzip" : "plain");
  }
}

// Cut anywhere, and ended at any callback.
TEST(ParallelTrees, RunsThatEndEarlyAreThoseOfOneThread) {
  const std::string archive = tangledArchive();
  for (const bool compressed : {false, true}) {
    const size_t rows = extract(archive, 1, compressed, "", nullptr).events.size();
    for (size_t at = 700; at < archive.size(); at += archive.size() / 13) {
      const std::string cut = archive.substr(0, at);
      expectSame(extract(cut, 1, compressed, "", nullptr), extract(cut, 4, compressed, "", nullptr),
                 "cut at " + std::to_string(at));
    }
    for (size_t at = 1; at < rows; at += 53) {
      const auto throwing = [at](RowEvent& event, ClsTar&) { event.throwAt = at; };
      const auto aborting = [at](RowEvent& event, ClsTar&) { event.abortAt = at; };
      expectSame(extract(archive, 1, compressed, "", throwing), extract(archive, 4, compressed, "", throwing),
                 "thrown at " + std::to_string(at));
      expectSame(extract(archive, 1, compressed, "", aborting), extract(archive, 4, compressed, "", aborting),
                 "aborted at " + std::to_string(at));
    }
  }
}

}  // namespace
}  // namespace morvane::testing
