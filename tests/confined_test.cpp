// Creation beneath one directory: whatever stands in the way, before the run or swapped in while it goes on,
// nothing outside the target is made, changed or removed.
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstring>
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
    const char result = letterOf(confined.createFile(path, file, log));
    EXPECT_EQ(result == 'k', file.isOpen() && file.writeSome("new", 3) == 3);
    return result;
  }
  char make(const std::string& path) { return letterOf(confined.makeDirectory(path, log)); }
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
    std::string found;
    const auto add = [&](const std::string& path) {
      struct stat status;
      if (lstat(path.c_str(), &status) != 0) status = {};
      for (const long value :
           {long(status.st_mode), long(status.st_uid), long(status.st_gid), long(status.st_nlink),
            long(status.st_size), long(status.st_mtim.tv_sec), long(status.st_mtim.tv_nsec),
            long(status.st_ctim.tv_sec), long(status.st_ctim.tv_nsec)}) {
        found += std::to_string(value) + " ";
      }
      found += path + "\n";
    };
    add(dir.path());
    for (const auto& [path, what] : treeOf(dir / "outside"))
      add(dir / "outside/" + path), found += what + "\n";
    return found;
  }

  std::string m_before;
};

TEST(Confined, NamesThatLeaveAreRefused) {
  for (int mode = firstMode(); mode < kModes; ++mode) {
    Ground ground(mode);
    for (const char* bad : {"..", "../x", "a/..", "a/../x", "a/b/..", "a//../b", "./..", "/x", "/", "//x",
                            "/..", "../target/x", "a/../../outside/x"}) {
      EXPECT_EQ('R', ground.create(bad)) << bad;
      EXPECT_EQ('R', ground.make(bad)) << bad;
    }
    for (const std::string& nul : {std::string("a\0b", 3), std::string("\0", 1), std::string("d/\0/f", 5)}) {
      EXPECT_TRUE(ground.create(nul) == 'R' && ground.make(nul) == 'R');
    }
    EXPECT_TRUE(treeOf(ground.dir / "target").empty()) << "a refusal makes nothing";
    for (const char* self : {"", ".", "./", "././/."})
      EXPECT_TRUE(ground.make(self) == 'k' && ground.create(self) == 'F');
    ground.log.ClearLog();
    const std::string longest(255, 'n');
    for (const std::string& good :
         {std::string("./a//./b/f"), std::string("a/b/g/"), std::string("..."), std::string("..f"),
          std::string("d../ \\.."), longest, "e/" + longest + "/" + longest}) {
      EXPECT_EQ('k', ground.create(good)) << good;
      EXPECT_EQ('k', ground.make("dirs/" + good)) << good;
    }
    EXPECT_EQ("", ground.log.text());
    EXPECT_EQ("file new", ground.found("a/b/f"));
    EXPECT_EQ("dir", ground.found("dirs/a/b/g"));
    EXPECT_TRUE(ground.create(longest + "n") == 'F' && ground.create(longest + "n/f") == 'F' &&
                ground.make(longest + "n") == 'F');
    EXPECT_EQ('k', ground.create("after")) << "a failure ends nothing";
  }
}

// Each thing that may stand in a leaf's place or on the way to it, in a directory of its own; a letter for
// each mode. $T and $O are the target and the outside.
TEST(Confined, WhateverStandsInTheWay) {
  const char* const kCases[][3] = {
      // In the leaf's place: replaced, never followed.
      {"echo old >x", "x", "kkkk"},
      {"ln -s ../../outside/victim x", "x", "kkkk"},
      {"ln -s $O/victim x", "x", "kkkk"},
      {"ln -s ../../outside/new x", "x", "kkkk"},
      {"ln -s ../../outside/dir x", "x", "kkkk"},
      {"ln -s x x", "x", "kkkk"},
      {"ln -s y x; ln -s ../../outside/dir y", "x", "kkkk"},
      {"mkdir d; ln -s d x", "x", "kkkk"},
      {"mkfifo x", "x", "kkkk"},
      {"mknod x c 1 7 || mkfifo x", "x", "kkkk"},
      {"mkdir x", "x", "kkkk"},
      // As a parent: passed only where it leads inside the target, and never removed.
      {"ln -s ../../outside x", "x/f", "RRRR"},
      {"ln -s $O x", "x/dir/f", "RRRR"},
      {"ln -s $T x", "x/f", "RRRR"},  // absolute, though inside
      {"ln -s / x", "x/morvane-test-leak", "RRRR"},
      {"ln -s ../.. x", "x/outside/new", "RRRR"},
      {"ln -s ../../outside/dir x", "x/a/b/f", "RRRR"},
      {"mkdir -p a/b; ln -s ../../../../outside a/b/x", "a/b/x/f", "RRRR"},
      {"mkdir -p a/b; ln -s ../../../../outside a/b/x", "a/b/x/c/f", "RRRR"},
      {"ln -s y x; ln -s z y; ln -s ../../outside z", "x/f", "RRRR"},
      {"ln -s x x", "x/f", "RRRR"},
      {"ln -s y x; ln -s x y", "x/a/f", "RRRR"},
      {"ln -s nowhere x", "x/f", "RRRR"},
      {"ln -s /proc/self/cwd x", "x/morvane-test-leak", "RRRR"},
      {"ln -s /proc/self/root x", "x/morvane-test-leak", "RRRR"},
      {"mkdir d; ln -s d x", "x/f", "kRRR"},
      {"mkdir d; ln -s d x", "x/new/f", "kRRR"},
      {"mkdir -p d/e; ln -s ../d/e d/x", "d/x/f", "kRRR"},
      {"mkdir d; ln -s y x; ln -s d y", "x/f", "kRRR"},
      {"echo old >x", "x/f", "RRRR"},
      {"mkfifo x", "x/f", "RRRR"}};
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
        SCOPED_TRACE(prepared + std::string(": ") + name + (asFile ? ", file, " : ", directory, ") +
                     std::to_string(mode));
        for (int again = 0; again < 2; ++again) {
          EXPECT_EQ(letters[mode], asFile ? ground.create(path) : ground.make(path)) << ground.log.text();
        }
        struct stat status = {};
        const bool made = lstat((ground.dir / "target/" + path).c_str(), &status) == 0;
        EXPECT_EQ(letters[mode] == 'k', made);
        // Only a link that leads to a directory inside stays, and only in a directory's place.
        const bool linkStays = mode == 0 && !asFile && path == "7/x";
        EXPECT_TRUE(!made || (linkStays ? S_ISLNK(status.st_mode)
                              : asFile  ? S_ISREG(status.st_mode)
                                        : S_ISDIR(status.st_mode)));
      }
      EXPECT_TRUE(ground.create("full/x") == 'R' && ground.make("full/x") == 'k') << "a full directory stays";
      EXPECT_TRUE(exists(ground.dir / "target/full/x/y"));
    }
  }
}

TEST(Confined, OtherNamesAndListenersGetNothing) {
  for (int mode = firstMode(); mode < kModes; ++mode) {
    Ground ground(mode, "cd target; printf old >one; ln one two; mkfifo fifo");
    const OsFile fifo(open((ground.dir / "target/fifo").c_str(), O_RDONLY | O_NONBLOCK));
    const OsFile listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, (ground.dir / "target/socket").c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(0, bind(listening.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    EXPECT_TRUE(ground.create("one") == 'k' && ground.create("fifo") == 'k' &&
                ground.create("socket") == 'k');
    char byte;
    EXPECT_EQ(0, fifo.readSome(&byte, 1));
    EXPECT_TRUE(ground.found("one") == "file new" && ground.found("two") == "file old");
    EXPECT_TRUE(ground.found("fifo") == "file new" && ground.found("socket") == "file new");
  }
}

TEST(Confined, TheProtectedFileStays) {
  for (int mode = firstMode(); mode < kModes; ++mode) {
    Ground ground(mode,
                  "echo -n archive > target/a.tar; ln target/a.tar target/other; ln -s a.tar target/link; "
                  "echo > target/x");
    mvFileInfo archive;
    ASSERT_TRUE(archive.loadFileInfoUtf8((ground.dir / "target/a.tar").c_str(), ground.log));
    ground.confined.protect(archive);
    for (const char* name : {"a.tar", "other", "./other/"})
      EXPECT_TRUE(ground.create(name) == 'R' && ground.make(name) == 'R') << name;
    EXPECT_TRUE(ground.create("a.tar/f") == 'R' && ground.create("link/f") == 'R');
    EXPECT_TRUE(ground.create("link") == 'k' && ground.make("x") == 'k') << "anything else is replaced";
    EXPECT_EQ("file archive", ground.found("a.tar"));
    EXPECT_EQ("file archive", ground.found("other"));
    EXPECT_EQ("file new", ground.found("link"));
  }
}

// The last parent is kept open; what happens to its name in between must not be missed.
TEST(Confined, TheKeptParentIsNoWayAroundTheRules) {
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
    EXPECT_NE('k', ground.create("d/inner")) << "the directory that was kept is gone";
    EXPECT_EQ('k', ground.create("elsewhere/f"));
    EXPECT_EQ('R', ground.create("d/inner"));
    EXPECT_TRUE(ground.make("d") == 'k' && ground.create("d/inner") == 'k')
        << "a directory entry replaces the link";
    shell("mkdir real; ln -s real l");
    EXPECT_EQ(mode == 0 ? 'k' : 'R', ground.create("l/f"));
    EXPECT_TRUE(ground.create("l") == 'k' && ground.create("l/g") == 'R');
    EXPECT_EQ(mode == 0 ? "file new" : "", ground.found("real/f"));
  }
}

TEST(Confined, TargetsAreOpenedOrMade) {
  ScratchDir dir;
  ASSERT_EQ(
      0, run({"sh", "-c", "mkdir real; ln -s real link; ln -s nowhere dangling; touch file"}, "", dir.path())
             .status);
  ConfinedDir confined;
  const mode_t mask = umask(0027);
  for (const std::string target : {"real", "link", "made/for/this", "real/", "file", "file/x", "dangling"}) {
    const bool ok = target[0] != 'f' && target[0] != 'd';
    _mvLogger log;
    OsFile file;
    EXPECT_EQ(ok, confined.open((dir / target).c_str(), ConfinedDir::Links::None, log)) << target;
    EXPECT_EQ(ok, confined.isOpen() && confined.createFile("d/f", file, log) == ConfinedDir::Result::Ok);
    EXPECT_EQ(ok, log.text().empty());
    EXPECT_EQ(ok ? "750\n640\n" : "",
              run({"stat", "-c", "%a", dir / target + "/d", dir / target + "/d/f"}).out);
    EXPECT_EQ(0, run({"rm", "-rf", dir / target + "/d"}).status);
  }
  EXPECT_EQ(0027u, umask(mask)) << "the umask is the process's";
}

TEST(Confined, PathsPastThePathLimit) {
  for (int mode = firstMode(); mode < kModes; ++mode) {
    for (const size_t partLength : {60u, 255u}) {
      Ground ground(mode);
      std::string path;
      while (path.size() < PATH_MAX + 1000) path += std::string(partLength, 'p') + "/";
      EXPECT_EQ('k', ground.create(path + "f")) << ground.log.text();
      EXPECT_EQ('k', ground.create("g"));
      EXPECT_TRUE(ground.create(path + "f") == 'k' && ground.make(path + "d") == 'k' &&
                  ground.make(path + "d/e") == 'k');
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
