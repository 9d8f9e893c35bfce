// Somebody else changes the target while members are placed in it: exchanges directories, files, FIFOs and
// links for links to the surroundings, or for other names of what is there. Nothing beside the target
// changes, and no program of another owner than the archive's gets its set-id bits.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include "ArchiveSupport.h"
#include "FailingSystemCalls.h"
#include "TreeSupport.h"
#include "runtime/fs/OsFile.h"

namespace morvane::testing {
namespace {

constexpr unsigned kOwner = 1234;

// What is done to a name of the target, which may be there or not; paths are below the scratch directory.
struct Attack {
  const char *at, *by;  // `by`: a link's text, or what gets another name; null: the thing is only taken away
  bool isHard = false;
};
const Attack kAttacks[] = {{"d", "../out/dir"},
                           {"d", nullptr},
                           {"e", "../out/dir"},
                           {"e", nullptr},
                           {"e", "d"},
                           {"n", "../out/dir"},
                           {"d/f", "../../out/victim"},
                           {"d/f", "out/victim", true},
                           {"d/f", "out/pipe", true},
                           {"d/l", "../../out/victim"},
                           {"d/l", "out/link", true},
                           {"d/l", "out/victim", true},
                           {"d/p", "../../out/pipe"},
                           {"d/p", "out/pipe", true},
                           {"p", "out/pipe", true},
                           {"l", "out/link", true},
                           {"d/h", "../../out/victim"},
                           {"d/h", "out/victim", true},
                           {"late", "out/victim", true}};

class Races : public ::testing::Test {
 protected:
  Races() {
    must(m_dir,
         "mkdir -p out/dir && echo untouched > out/victim && echo inner > out/dir/f && mkfifo -m 600 "
         "out/pipe && "
         "ln -s victim out/link && cp /bin/true out/dir/g && chmod 700 out/dir/g && chmod 751 out/dir && "
         "find out -exec touch -h -d @1000000000 {} +");
    m_before = factsOf(m_dir / "out");
    ArchiveBuilder archive;
    for (const ArchiveBuilder::Member& each :
         {Member{"d/", "", '5'}, Member{"d/f", "program"}, Member{"d/l", "", '2', "anything"},
          Member{"d/p", "", '6'}, Member{"d/h", "", '1', "d/f"}, Member{"h", "", '1', "late"},
          Member{"e/", "", '5'}, Member{"e/g", "data"}, Member{"e/l", "", '2', "g"}, Member{"n/m/f", "data"},
          Member{"p", "", '6'}, Member{"l", "", '2', "f"}, Member{"late", "late"}, Member{"last", "last"}}) {
      std::string bytes = ArchiveBuilder().add(each).bytes(0);
      bytes = patched(bytes, kModeField, each.name == "d/f" ? "0006755" : "0000777");
      bytes = patched(bytes, kUidField, "0002322");
      m_archive += patched(bytes, kGidField, "0002322");
    }
    m_archive += kEnd;
  }
  using Member = ArchiveBuilder::Member;

  // Takes the thing away to a name of its own, and puts another in its place; in the second step that goes
  // again. No link is followed on the way: what is beside the target is not the attacker's.
  void attack(const Attack& attack, int step = 0) {
    const fs::path at = fs::path("in") / attack.at;
    const OsFile target(osOpen((m_dir / "in").c_str(), O_PATH));
    const OsFile parent(
        osOpen((m_dir / at.parent_path().string()).c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW));
    const std::string leaf = at.filename().string();
    if (step == 1) {
      unlinkat(parent.fd(), leaf.c_str(), 0);
      return;
    }
    renameat(parent.fd(), leaf.c_str(), target.fd(), ("moved" + std::to_string(++m_moved)).c_str());
    if (!attack.by) return;
    (void)!(attack.isHard ? linkat(AT_FDCWD, (m_dir / attack.by).c_str(), parent.fd(), leaf.c_str(), 0)
                          : symlinkat(attack.by, parent.fd(), leaf.c_str()));
  }
  void extract() {
    TarWith tar("Profile=usual,Restore=all,OwnerBy=id", m_dir / "in");
    untar(tar, m_archive);
  }
  // What came of it; the target is gone afterwards.
  void expectUntouched() {
    EXPECT_TRUE(differences(m_before, factsOf(m_dir / "out")).empty())
        << differences(m_before, factsOf(m_dir / "out"))[0];
    std::error_code ignored;
    for (const auto& entry : fs::recursive_directory_iterator(m_dir / "in", ignored)) {
      struct stat status;
      if (lstat(entry.path().c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
      EXPECT_TRUE((status.st_mode & 06000) == 0 || (status.st_uid == kOwner && status.st_gid == kOwner))
          << entry.path() << " belongs to " << status.st_uid;
    }
    fs::remove_all(m_dir / "in", ignored);
    for (const char* name : {"out/victim", "out/pipe", "out/link", "out/dir/f"}) {
      struct stat status;
      EXPECT_TRUE(lstat((m_dir / name).c_str(), &status) == 0 && status.st_nlink == 1) << name;
    }
  }

  const ScratchDir m_dir;
  Facts m_before;
  std::string m_archive;
  std::atomic<int> m_moved{0};
};

// Every change, before every call of the system that placing makes.
TEST_F(Races, BetweenEveryTwoCalls) {
  for (const bool hasOpenat2 : {true, false}) {
    const auto without = hasOpenat2 ? nullptr : std::make_unique<WithoutOpenat2>();
    int count = 0;
    {
      const OvertakenCall none(0, [](int) {});
      extract();
      count = MetCall::count();
    }
    expectUntouched();
    EXPECT_LT(50, count);
    for (const Attack& each : kAttacks) {
      for (int at = 1; at <= count; at += hasOpenat2 ? 1 : 2) {
        SCOPED_TRACE(std::string(each.at) + " " + (each.by ? each.by : "gone") +
                     (each.isHard ? " hard" : "") + " before call " + std::to_string(at) +
                     (hasOpenat2 ? "" : " without openat2"));
        {
          const OvertakenCall overtaken(at, [&](int step) {
            if (step == 0 || each.isHard) attack(each, step);
          });
          extract();
        }
        expectUntouched();
        if (HasFailure()) return;
      }
    }
  }
}

// The same by a thread that never stops, for what happens within a call.
TEST_F(Races, ByAThread) {
  for (const bool hasOpenat2 : {true, false}) {
    const auto without = hasOpenat2 ? nullptr : std::make_unique<WithoutOpenat2>();
    std::atomic<bool> goesOn{true}, isDone{false}, waits{false};
    std::thread attacker([&] {
      std::mt19937 random(1);
      int attacks = 0;
      while (!isDone) {
        waits = !goesOn;
        // Each leaves something in the target, which has to be removed again.
        if (!goesOn) attacks = 0;
        if (goesOn && ++attacks < 200) attack(kAttacks[random() % std::size(kAttacks)]);
      }
    });
    for (int i = 0; i < 300 && !HasFailure(); ++i) {
      goesOn = true;
      extract();
      goesOn = false;
      waits = false;
      while (!waits) std::this_thread::yield();
      expectUntouched();
    }
    isDone = true;
    attacker.join();
  }
}

}  // namespace
}  // namespace morvane::testing
