// Creation beneath one directory: whatever stands in the way, before the run or swapped in while it goes on,
// nothing outside the target is made, changed or removed.
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <thread>

#include "TestSupport.h"
#include "runtime/fs/ConfinedDir.h"

namespace morvane::testing {
namespace {

// The ways to open parents: links inside the target, no links, and both where the system has no openat2.
constexpr int kModes = 4;

int firstMode() {
  open_how how = {};
  how.flags = O_PATH;
  const OsFile opened(static_cast<int>(syscall(SYS_openat2, AT_FDCWD, ".", &how, sizeof how)));
  return opened.isOpen() ? 0 : 2;
}

// A target and, beside it, what nobody may touch.
class Ground {
 public:
  explicit Ground(int mode, const std::string& prepare = ":") {
    writeFile(dir / "outside/victim", "untouched");
    writeFile(dir / "outside/dir/inner", "untouched");
    EXPECT_EQ(0, run({"sh", "-c", "mkdir target; chmod 751 outside/dir; " + prepare}, "", dir.path()).status);
    m_before = surroundings();
    const auto links = mode % 2 ? ConfinedDir::Links::None : ConfinedDir::Links::InsideTarget;
    EXPECT_TRUE(confined.open((dir / "target").c_str(), links, log)) << log.text();
    if (mode >= 2) confined.withoutOpenat2();
  }
  ~Ground() { EXPECT_EQ(m_before, surroundings()); }

  // 'k' done, 'R' refused, 'F' failed.
  char create(const std::string& path) {
    OsFile file;
    const char result = letterOf(confined.createFile(path, 0666, file, log));
    EXPECT_EQ(result == 'k', file.isOpen() && file.writeSome("new", 3) == 3);
    EXPECT_TRUE(!file.isOpen() || fcntl(file.fd(), F_GETFD) & FD_CLOEXEC) << "no program inherits it";
    return result;
  }
  char make(const std::string& path) {
    ConfinedDir::MadeDirectory made;
    return letterOf(confined.makeDirectory(path, 0777, made, log));
  }
  std::string found(const std::string& path) { return treeOf(dir / "target")[path]; }

  ScratchDir dir;
  ConfinedDir confined;
  _mvLogger log;

 private:
  static char letterOf(ConfinedDir::Result result) {
    return result == ConfinedDir::Result::Ok ? 'k' : result == ConfinedDir::Result::Refused ? 'R' : 'F';
  }
  // Names, types, modes, owners, link counts, sizes, times and contents of everything but the target.
  std::string surroundings() {
    return run({"sh", "-c", "stat -c '%n %f %u %g %h %s %y %z' . $(find outside); cat outside/victim"}, "",
               dir.path())
        .out;
  }

  std::string m_before;
};

TEST(Confined, NamesThatLeaveAreRefused) {
  const mode_t mask = umask(0027);
  for (int mode = firstMode(); mode < kModes; ++mode) {
    Ground ground(mode);
    for (const std::string& bad : {".."s, "../x"s, "a/.."s, "a/../x"s, "a//../b"s, "./.."s, "/x"s, "/"s,
                                   "../target/x"s, "a\0b"s, "\0"s, "d/\0/f"s}) {
      EXPECT_TRUE(ground.create(bad) == 'R' && ground.make(bad) == 'R') << bad;
    }
    EXPECT_TRUE(treeOf(ground.dir / "target").empty()) << "a refusal makes nothing";
    for (const char* self : {"", ".", "././/."})
      EXPECT_TRUE(ground.make(self) == 'k' && ground.create(self) == 'F');
    const std::string longest(255, 'n');
    for (const std::string& good : {"./a//./b/f"s, "a/b/g/"s, "..."s, "..f"s, "d../ \\.."s, "e/" + longest}) {
      EXPECT_TRUE(ground.create(good) == 'k' && ground.make("dirs/" + good) == 'k') << good;
    }
    EXPECT_EQ("file new", ground.found("a/b/f"));
    EXPECT_EQ("dir", ground.found("dirs/a/b/g"));
    EXPECT_TRUE(ground.create(longest + "n") == 'F' && ground.create(longest + "n/f") == 'F' &&
                ground.make(longest + "n") == 'F');
    EXPECT_EQ('k', ground.create("after")) << "a failure ends nothing";
    EXPECT_EQ("750\n640\n", run({"stat", "-c", "%a", "a", "a/b/f"}, "", ground.dir / "target").out);
  }
  umask(mask);
}

// Each thing that may stand in a leaf's place or on the way to it, in a directory of its own; a letter for
// each mode. $T and $O are the target and the outside.
TEST(Confined, WhateverStandsInTheWay) {
  const char* const kCases[][3] = {
      // In the leaf's place: replaced, never followed.
      {"mkdir d; ln -s d x", "x", "kkkk"},
      {"echo old >x", "x", "kkkk"},
      {"ln -s ../../outside/victim x", "x", "kkkk"},
      {"ln -s ../../outside/new x", "x", "kkkk"},
      {"ln -s $O/dir x", "x", "kkkk"},
      {"ln -s x x", "x", "kkkk"},
      {"mkfifo x", "x", "kkkk"},
      {"mkdir x", "x", "kkkk"},
      // As a parent: passed only where it leads inside the target, and never removed.
      {"ln -s ../../outside x", "x/f", "RRRR"},
      {"ln -s $O x", "x/dir/f", "RRRR"},
      {"ln -s $T x", "x/f", "RRRR"},  // absolute, though inside
      {"ln -s ../.. x", "x/outside/new", "RRRR"},
      {"mkdir -p a/b; ln -s ../../../../outside a/b/x", "a/b/x/c/f", "RRRR"},
      {"ln -s y x; ln -s ../../outside y", "x/f", "RRRR"},
      {"ln -s y x; ln -s x y", "x/a/f", "RRRR"},
      {"ln -s nowhere x", "x/f", "RRRR"},
      {"ln -s /proc/self/root x", "x/morvane-test-leak", "RRRR"},
      {"mkdir -p d/e; ln -s ../d/e d/x", "d/x/new/f", "kRRR"},
      {"mkdir d; ln -s y x; ln -s d y", "x/f", "kRRR"},
      {"echo old >x", "x/f", "RRRR"}};
  std::string prepare = "O=$PWD/outside; T=$PWD/target; cd target; mkdir -p full/x/y";
  for (size_t i = 0; i < std::size(kCases); ++i) {
    prepare += "; mkdir " + std::to_string(i) + "; cd " + std::to_string(i) + "; " + kCases[i][0] + "; cd ..";
  }
  for (int mode = firstMode(); mode < kModes; ++mode) {
    for (const bool asFile : {true, false}) {
      Ground ground(mode, prepare);
      for (size_t i = 0; i < std::size(kCases); ++i) {
        const auto& [prepared, name, letters] = kCases[i];
        const std::string path = std::to_string(i) + "/" + name;
        SCOPED_TRACE(prepared + ": "s + name + (asFile ? ", file, " : ", directory, ") +
                     std::to_string(mode));
        for (int again = 0; again < 2; ++again) {
          EXPECT_EQ(letters[mode], asFile ? ground.create(path) : ground.make(path)) << ground.log.text();
        }
        struct stat status = {};
        const bool made = lstat((ground.dir / "target/" + path).c_str(), &status) == 0;
        EXPECT_EQ(letters[mode] == 'k', made);
        // Only a link that leads to a directory inside stays, and only in a directory's place.
        const mode_t type = mode == 0 && !asFile && i == 0 ? S_IFLNK : asFile ? S_IFREG : S_IFDIR;
        EXPECT_TRUE(!made || (status.st_mode & S_IFMT) == type);
      }
      EXPECT_TRUE(ground.create("full/x") == 'R' && ground.make("full/x") == 'k') << "a full directory stays";
      EXPECT_TRUE(exists(ground.dir / "target/full/x/y"));
    }
  }
}

TEST(Confined, OtherNamesOfAFileAndTheProtectedFileStay) {
  for (int mode = firstMode(); mode < kModes; ++mode) {
    Ground ground(
        mode, "cd target; printf old >a.tar; ln a.tar other; ln -s a.tar link; echo -n old >one; ln one two");
    mvFileInfo archive;
    ASSERT_TRUE(archive.loadFileInfoUtf8((ground.dir / "target/a.tar").c_str(), ground.log));
    ground.confined.protect(archive);
    for (const char* name : {"a.tar", "./other/"})
      EXPECT_TRUE(ground.create(name) == 'R' && ground.make(name) == 'R') << name;
    EXPECT_TRUE(ground.create("link") == 'k' && ground.create("one") == 'k') << "anything else is replaced";
    EXPECT_TRUE(ground.found("a.tar") == "file old" && ground.found("link") == "file new");
    EXPECT_TRUE(ground.found("one") == "file new" && ground.found("two") == "file old");
  }
}

// No member goes where an earlier one went because it went there.
TEST(Confined, EachMemberIsResolvedAnew) {
  for (int mode = firstMode(); mode < kModes; ++mode) {
    Ground ground(mode, "mkdir target/d");
    const auto shell = [&](const std::string& command) {
      EXPECT_EQ(0, run({"sh", "-c", command}, "", ground.dir / "target").status);
    };
    EXPECT_EQ('k', ground.create("d/f"));
    shell("rm d/f");
    EXPECT_EQ('k', ground.create("d")) << "the empty directory gives way";
    EXPECT_EQ('R', ground.create("d/g")) << "and is no parent any more";
    EXPECT_TRUE(ground.make("d") == 'k' && ground.create("d/g") == 'k');
    shell("rm -r d; ln -s ../outside/dir d");
    EXPECT_EQ('R', ground.create("d/inner")) << "the directory that was kept is gone";
    EXPECT_EQ('k', ground.create("elsewhere/f"));
    EXPECT_EQ('R', ground.create("d/inner"));
    EXPECT_TRUE(ground.make("d") == 'k' && ground.create("d/inner") == 'k') << "the link is replaced";
    shell("mkdir real; ln -s real l");
    EXPECT_EQ(mode == 0 ? 'k' : 'R', ground.create("l/f"));
    EXPECT_TRUE(ground.create("l") == 'k' && ground.create("l/g") == 'R');
    // A directory that is moved out of the target takes nothing with it.
    EXPECT_EQ('k', ground.create("moving/f"));
    const ScratchDir elsewhere;
    shell("mv moving " + elsewhere.path());
    EXPECT_TRUE(ground.create("moving/g") == 'k' && ground.found("moving/g") == "file new");
    EXPECT_FALSE(exists(elsewhere / "moving/g"));
  }
}

TEST(Confined, PathsPastThePathLimit) {
  for (int mode = firstMode(); mode < kModes; ++mode) {
    for (const size_t partLength : {60u, 255u}) {
      Ground ground(mode);
      std::string path;
      while (path.size() < PATH_MAX + 1000) path += std::string(partLength, 'p') + "/";
      // What was made is found again, and what stands there is replaced.
      for (const std::string& leaf : {"f"s, "d/e"s, "f"s}) {
        EXPECT_EQ('k', ground.create(path + leaf)) << ground.log.text();
        EXPECT_EQ('k', ground.create("g")) << "another parent";
      }
      mvFileInfo info;
      EXPECT_TRUE(info.loadFileInfoUtf8((ground.dir / "target/" + path + "f").c_str(), ground.log));
      EXPECT_EQ(3, info.m_size);
      // A link that far down, out to the surroundings.
      const OsFile deepest(osOpen((ground.dir / "target/" + path).c_str(), O_PATH));
      ASSERT_EQ(0, symlinkat((ground.dir / "outside").c_str(), deepest.fd(), "out"));
      EXPECT_TRUE(ground.create(path + "out/f") == 'R' && ground.create(path + "out/dir/f") == 'R');
      EXPECT_EQ('k', ground.create(path + "out")) << "replaced";
    }
  }
}

// Another process keeps putting links to the outside where a parent or a leaf is about to be used.
TEST(Confined, LinksSwappedInWhileItRuns) {
  for (int mode = firstMode(); mode < kModes; ++mode) {
    Ground ground(mode, "mkdir target/trash");
    std::atomic<bool> done{false};
    std::thread swapper([&] {
      const std::string sub = ground.dir / "target/sub", leaf = ground.dir / "target/leaf";
      const std::string spare = ground.dir / "target/spare", trash = ground.dir / "target/trash/";
      for (int i = 0; !done; ++i) {
        if (rename(sub.c_str(), spare.c_str()) != 0)
          rename(spare.c_str(), (trash + std::to_string(i)).c_str());
        (void)!symlink("../outside/dir", sub.c_str());
        (void)!symlink("../outside/victim", leaf.c_str());
        std::this_thread::yield();
        unlink(sub.c_str());
        rename(spare.c_str(), sub.c_str());
      }
    });
    int made = 0, refused = 0;
    for (int i = 0; i < 100'000 && (i < 300 || made < 20 || refused < 20); ++i) {
      const char result = i % 3 == 0   ? ground.create("sub/inner")
                          : i % 3 == 1 ? ground.create("sub/new/f")
                                       : ground.make("sub/d");
      made += result == 'k';
      refused += result == 'R';
      ground.create("leaf");
      if (i % 7 == 0) ground.make("sub");
    }
    done = true;
    swapper.join();
    EXPECT_TRUE(made >= 20 && refused >= 20) << made << " made, " << refused << " refused";
  }
}

}  // namespace
}  // namespace morvane::testing
