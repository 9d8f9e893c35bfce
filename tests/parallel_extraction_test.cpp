// Writing behind with several threads against one: events, logs, results and trees.
#include <sys/resource.h>

#include <csignal>

#include "ParallelSupport.h"
#include "runtime/io/_mvFileDataSource.h"
#include "runtime/log/LogNull.h"

namespace morvane::testing {
namespace {

std::string withoutTimes(std::string log) {
  for (size_t at = log.find("untar: "); at != std::string::npos; at = log.find("untar: ", at + 1)) {
    log.erase(at, log.find('\n', at) - at);
  }
  return log;
}

// A link of before makes one directory of two paths; an empty target is the run's own.
enum class Target { HasThings, IsEmpty, IsMissing };

using Change = std::function<void(RowEvent&, ClsTar&)>;

// By the pull engine, whose workers read large files of an archive on a disk by themselves, or, from gzip, by
// the push engine.
enum class From { Memory, File, Gzip };
constexpr From kBothEngines[] = {From::File, From::Gzip};

Seen extract(const std::string& archive, int threads, From from, const std::string& words,
             const Change& change, Target target = Target::HasThings) {
  ScratchDir dir;
  if (target == Target::HasThings)
    must(dir, "mkdir -p out/there && cd out && echo old > there/f && echo old > there/g && ln -s . old");
  if (target == Target::IsEmpty) must(dir, "mkdir out");
  const std::string where = dir / "out";
  TarWith tar("Profile=usual,Threads=" + std::to_string(threads) + words, where);
  tar.put_AbortCheckMs(kNotByTheClock);
  RowEvent event;
  const std::string bytes = from == From::Gzip ? run({"gzip", "-1nc"}, archive).out : archive;
  writeFile(dir / "a.tar", archive);
  if (from == From::File) tar.put_PercentScale(10);  // so that its pieces are smaller than one part
  if (change) change(event, tar);
  const size_t before = threadsNow();
  _mvMemoryDataSource source;
  source.initializeMemSource(reinterpret_cast<const unsigned char*>(bytes.data()),
                             static_cast<unsigned>(bytes.size()));
  Seen seen;
  _mvFileDataSource file;
  XString path, reason;
  path.setFromUtf8((dir / "a.tar").c_str());
  LogNull unwanted;
  EXPECT_TRUE(file.openDataSourceFile(path, unwanted));
  _mvDataSource& plain = from == From::File ? static_cast<_mvDataSource&>(file) : source;
  seen.result = from == From::Gzip ? tar.UntarAny(source, &event) : tar.Untar(plain, &event);
  expectThreads(before);
  seen.tree = factsOf(where);
  // What was not given a time of the archive has that of the moment.
  constexpr long long kLaterThanAll = 1750000000;
  for (auto& [name, fact] : seen.tree) {
    if (fact.seconds > kLaterThanAll) fact.seconds = fact.nanoseconds = 0;
  }
  const auto neutral = [&where](std::string text) {
    for (size_t at = text.find(where); at != std::string::npos; at = text.find(where))
      text.erase(at, where.size());
    return text;
  };
  for (const std::string& row : event.rows) seen.events.push_back(neutral(row));
  seen.log = withoutTimes(neutral(logOf(tar)));
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
  for (const size_t n :
       {size_t{65535}, size_t{65536}, size_t{65537}, size_t{300000}, size_t{1048576}, size_t{1048577}})
    archive += member("d/size" + std::to_string(n), noise(n, 9)) + member("d/sub/s" + std::to_string(n), "s");
  archive += member("d/a5", "again") + member("d/a6", "and") + member("d/a6", "again");
  archive += ArchiveBuilder().add({"d/hard", "", '1', "d/a7"}).add({"d/early", "", '1', "d/late"}).bytes(0);
  archive +=
      member("d/late", "late") + member("d/a8/below", "a file on the way") + member("d/sub", "over it");
  archive += ArchiveBuilder().add({"d/link", "", '2', "sub"}).bytes(0) + member("d/link/through", "x");
  archive +=
      directory("d/a9/") + member("d/a9/in", "in") + member("../out", "refused") + member("d/../up", "no");
  archive += member("there/f", "new") + member("there/n", "n") + member("d/skipped", "s");
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

TEST(ParallelExtraction, TreesEventsAndLogsAreThoseOfOneThread) {
  const std::string archive = tangledArchive();
  for (const char* const words : {"", ",SkipUncreatable=off", ",MemberEvents", ",Restore=mode+time"}) {
    for (const From from : {From::Memory, From::File}) {
      const Seen one = extract(archive, 1, from, words, nullptr);
      for (const int threads : kManyThreads)
        expectSame(one, extract(archive, threads, from, words, nullptr), words + std::to_string(threads));
    }
    expectSame(extract(archive, 1, From::Gzip, words, nullptr),
               extract(archive, 4, From::Gzip, words, nullptr), "gzip");
  }
  for (const Target target : {Target::HasThings, Target::IsEmpty, Target::IsMissing}) {
    for (const From from : kBothEngines) {
      for (const std::string& other : {looseArchive(), doubledArchive(), turnedArchive()}) {
        expectSame(extract(other, 1, from, "", nullptr, target), extract(other, 4, from, "", nullptr, target),
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

TEST(ParallelExtraction, WhatWasForgottenIsNotPassed) {
  for (const From from : kBothEngines)
    expectSame(extract(forgottenArchive(), 1, from, "", nullptr, Target::IsEmpty),
               extract(forgottenArchive(), 2, from, "", nullptr, Target::IsEmpty), "");
}

// The first failure in the archive's order is the one that is told, though what comes behind it was met
// before.
TEST(ParallelExtraction, FailuresComeInTheirOrder) {
  std::string archive = directory("d/");
  for (int i = 0; i < 100; ++i) archive += member("d/" + std::to_string(i), i == 80 ? noise(70000, 1) : "x");
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
  for (const From from : kBothEngines) {
    for (const std::string& words :
         {""s, ",SkipUncreatable=off"s, ",MaxMembers=101"s, ",SkipUncreatable=off,MaxMembers=101"s}) {
      for (const std::string& each : {damaged, limited, cut, longName}) {
        Seen seen[2];
        for (const int threads : {1, 4}) {
          const auto limit = [&](RowEvent&, ClsTar&) {
            const rlimit low{30000, before.rlim_max};
            EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &low));
          };
          seen[threads / 4] = extract(each, threads, from, words, limit, Target::IsEmpty);
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
        expectSame(seen[0], seen[1], words + std::to_string(static_cast<int>(from)));
      }
    }
  }
  std::signal(SIGXFSZ, oldAction);
}

// What a callback sets holds for what follows, and not for what is under way and has to be done again.
TEST(ParallelExtraction, WhatACallbackSetsHoldsFromThere) {
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
  for (const From from : kBothEngines) {
    for (const Change& change : {Change(discards), Change(tellsAll)})
      expectSame(extract(archive, 1, from, ",EntryEvents", change),
                 extract(archive, 4, from, ",EntryEvents", change), std::to_string(static_cast<int>(from)));
  }
}

// Cut anywhere, and ended at any callback.
TEST(ParallelExtraction, RunsThatEndEarlyAreThoseOfOneThread) {
  const std::string archive = tangledArchive();
  for (const From from : kBothEngines) {
    const size_t rows = extract(archive, 1, from, "", nullptr).events.size();
    for (size_t at = 700; at < archive.size(); at += archive.size() / 13) {
      const std::string cut = archive.substr(0, at);
      expectSame(extract(cut, 1, from, "", nullptr), extract(cut, 4, from, "", nullptr),
                 "cut at " + std::to_string(at));
    }
    for (size_t at = 1; at < rows; at += 53) {
      const auto throwing = [at](RowEvent& event, ClsTar&) { event.throwAt = at; };
      const auto aborting = [at](RowEvent& event, ClsTar&) { event.abortAt = at; };
      expectSame(extract(archive, 1, from, "", throwing), extract(archive, 4, from, "", throwing),
                 "thrown at " + std::to_string(at));
      expectSame(extract(archive, 1, from, "", aborting), extract(archive, 4, from, "", aborting),
                 "aborted at " + std::to_string(at));
    }
  }
}

}  // namespace
}  // namespace morvane::testing
