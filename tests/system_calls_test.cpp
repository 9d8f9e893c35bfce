// Each call of the system that makes a member, or gives it what it was, or looks at what is to be archived,
// fails once at every place where it is made: contents stay whole, what is not kept is named, and nothing is
// open to more people than the archive says.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "ArchiveSupport.h"
#include "FailingSystemCalls.h"
#include "TreeSupport.h"
#include "runtime/fs/DirAutoCreate.h"

namespace morvane::testing {
namespace {

struct Call {
  const char* name;
  int error;
};

std::string restoringWords() {
  return isRoot() ? "Profile=usual,Restore=all"
                  : "Profile=usual,Restore=fullmode+time+link+special+sparse+xattr";
}

// What a run tells of members by name; counts of members are no names.
struct NamingEvent : ProgressEvent {
  void onInfo(const char*, const char* path) override { named += "\n/"s + path + "\n"; }
  std::string named;
};

class FailingCalls : public ::testing::Test {
 protected:
  FailingCalls() {
    makeTree(m_dir);
    if (!isRoot()) must(m_dir, "chmod 400 t/empty");
    addAttributes(m_dir);
    must(m_dir, "touch -d '2005-05-05' t/d t/key");
  }
  // Nobody but the superuser can remove what is in a closed directory.
  ~FailingCalls() override { must(m_dir, "chmod -R u+rwx ."); }

  bool writes(NamingEvent& event, ClsTar& tar, std::string& bytes) {
    tar.put_UncommonOptions("Profile=usual,Store=usual+xattr");
    tar.put_WriteFormat("pax");
    LimitedOutput out;
    const bool ok = tar.AddDirRoot2("t", m_dir / "t") && tar.WriteTar(out, &event);
    bytes = out.bytes;
    return ok;
  }
  // Into a new directory, in which old things are in the way.
  bool extracts(NamingEvent& event, ClsTar& tar, bool gzip, const Call& call, int at) {
    m_out = m_dir / ("out" + std::to_string(++m_runs));
    writeFile(m_out + "/t/run", "old");
    fs::create_hard_link(m_out + "/t/run", m_out + "/other");
    fs::create_directory(m_out + "/t/key");
    setMtime(m_out + "/other", 1);
    m_before = factsOf(m_out);
    tar.put_UncommonOptions(restoringWords().c_str());
    tar.put_UntarFromDir(m_out);
    const FailingCall failing(call.name, at, call.error);
    return gzip ? tar.UntarGz(m_dir / "a.tar.gz", &event) : tar.Untar(m_dir / "a.tar", &event) >= 0;
  }
  // Holds what was made against what is made when nothing fails. What a run that ended early did not come to
  // is what it was.
  // Whether there was no difference.
  bool expectAllNamed(const Facts& expected, const NamingEvent& event, ClsTar& tar, bool wentOn) {
    const Facts found = factsOf(m_out);
    const auto isNamed = [&](const std::string& path) {
      return has(event.named, "/" + path + "\n") || has(event.named, "/" + path + "/\n") ||
             logHas(tar, "/" + path + "\n");
    };
    int different = 0;
    for (const std::string& path : differences(expected, found)) {
      if (path == "." || path == "t") continue;  // they were there, and have the times of what is in them
      ++different;
      const auto is = found.find(path), was = expected.find(path), old = std::as_const(m_before).find(path);
      const bool isOld =
          is == found.end() ? old == m_before.end() : old != m_before.end() && old->second == is->second;
      bool named = (isOld && !wentOn) || isNamed(path);
      // So is what is in a directory that was left out, and what is said of one name is said of the file.
      for (fs::path above = fs::path(path).parent_path(); !above.empty(); above = above.parent_path())
        named |= isOld && isNamed(above.string());
      for (const auto& [name, fact] : expected)
        named |= was != expected.end() && fact.firstName == was->second.firstName && isNamed(name);
      EXPECT_TRUE(named) << path << " is not named\n" << event.named << logOf(tar);
      if (isOld || is == found.end() || was == expected.end()) continue;
      constexpr mode_t kOwner = 0700;
      EXPECT_EQ(0u, is->second.mode & ~was->second.mode & 07777u & ~kOwner) << path << " is open to more";
    }
    return different == 0;
  }

  const ScratchDir m_dir;
  std::string m_out;
  Facts m_before;
  int m_runs = 0;
};

TEST_F(FailingCalls, OfAnExtraction) {
  const Call kCalls[] = {
      {"fchownat", EPERM},   {"fchmod", EPERM},    {"chmod", EPERM},       {"symlinkat", EPERM},
      {"symlinkat", ENOSPC}, {"linkat", EPERM},    {"linkat", EIO},        {"mknodat", EPERM},
      {"mknodat", EIO},      {"mkdirat", EACCES},  {"fsetxattr", ENOTSUP}, {"utimensat", EPERM},
      {"futimens", EPERM},   {"ftruncate", EFBIG}, {"ftruncate", EPERM},   {"lseek", EIO},
      {"lseek", EINVAL},     {"fstat", EIO},       {"fstatat", EIO},       {"unlinkat", EACCES}};
  NamingEvent none;
  ClsTar writer;
  std::string archive;
  ASSERT_TRUE(writes(none, writer, archive)) << logOf(writer);
  archive.resize(archive.find_last_not_of('\0') / 512 * 512 + 512);
  // Links whose targets come late, one of them through the other.
  for (const auto& [name, target] : {std::pair("late/h", "late/f"), std::pair("g", "late/h")})
    archive += ArchiveBuilder().add({name, "", '1', target}).bytes(0);
  archive += member("late/f", "late data") + patched(directory("late/"), kModeField, "0000755") + kEnd;
  writeFile(m_dir / "a.tar", archive);
  must(m_dir, "gzip -k a.tar");
  for (const bool gzip : {false, true}) {
    for (const Call& call : kCalls) {
      ClsTar whole;
      EXPECT_TRUE(extracts(none, whole, gzip, call, 0)) << logOf(whole);
      const int count = FailingCall::count();
      const Facts expected = factsOf(m_out);
      for (int at = 1; at <= count; ++at) {
        SCOPED_TRACE(std::string(call.name) + " " + std::to_string(at) + " of " + std::to_string(count) +
                     ": " + std::strerror(call.error) + (gzip ? ", gzip" : ""));
        ClsTar tar;
        NamingEvent event;
        const bool ok = extracts(event, tar, gzip, call, at);
        expectAllNamed(expected, event, tar, ok || tar.get_OnlyLeftOut());
      }
    }
  }
}

// What cannot be looked at is left out by name; what cannot be found out about holes is stored whole.
TEST_F(FailingCalls, OfACreation) {
  const Call kCalls[] = {{"lseek", EIO},      {"fstat", EIO},     {"fstatat", EACCES},
                         {"readlinkat", EIO}, {"listxattr", EIO}, {"getxattr", EIO}};
  const auto restored = [&](const std::string& bytes) {
    NamingEvent event;
    ClsTar tar;
    writeFile(m_dir / "a.tar", bytes);
    extracts(event, tar, false, {"", 0}, 0);
    return factsOf(m_out);
  };
  for (const Call& call : kCalls) {
    NamingEvent none;
    ClsTar whole;
    std::string bytes;
    int count = 0;
    {
      const FailingCall failing(call.name, 0, 0);
      EXPECT_TRUE(writes(none, whole, bytes)) << logOf(whole);
      count = FailingCall::count();
    }
    const Facts expected = restored(bytes);
    for (int at = 1; at <= count; ++at) {
      SCOPED_TRACE(std::string(call.name) + " " + std::to_string(at) + " of " + std::to_string(count));
      ClsTar tar;
      NamingEvent event;
      bool ok = false;
      {
        const FailingCall failing(call.name, at, call.error);
        ok = writes(event, tar, bytes);
      }
      if (!ok && !tar.get_OnlyLeftOut()) continue;
      restored(bytes);
      EXPECT_EQ(ok, expectAllNamed(expected, event, tar, true)) << logOf(tar);
    }
  }
}

// Whatever fails is said, and the archive is what it was.
TEST_F(FailingCalls, OfAnAppending) {
  ASSERT_TRUE(ClsTar().WriteTar(m_dir / "whole.tar"));
  const std::string before = readFile(m_dir / "whole.tar");
  for (const char* const name : {"fstat", "lseek", "ftruncate"}) {
    bool ok = false;
    int failed = 0;
    for (int at = 1; !ok && at < 100; ++at) {
      SCOPED_TRACE(name + std::to_string(at));
      writeFile(m_dir / "a.tar", before);
      ClsTar tar;
      EXPECT_TRUE(tar.AddFile(m_dir / "t/run"));
      const XString archive(m_dir / "a.tar");
      {
        const FailingCall failing(name, at, EIO);
        ok = tar.AppendTar(archive, nullptr);
        ok = ok && FailingCall::count() < at;
      }
      const bool isOld = readFile(m_dir / "a.tar") == before;
      XString path, reason;
      tar.get_FailureCause(path, reason);
      EXPECT_TRUE(!logHas(tar, "    Failure.\n") || (isOld && !reason.isEmpty())) << logOf(tar);
      failed += isOld ? 1 : 0;
    }
    EXPECT_TRUE(ok && failed > 0) << name;
  }
}

// Nothing is made below the current directory in place of the root.
TEST_F(FailingCalls, OfTheWayToADirectory) {
  const std::string path = m_dir / "new/directory";
  _mvLogger log;
  {
    const FailingCall failing("openat", 1, EMFILE);
    EXPECT_FALSE(DirAutoCreate::ensureDirUtf8(path.c_str(), log));
  }
  EXPECT_TRUE(has(log.text(), "path: " + path + "\nreason: Too many open files\n")) << log.text();
  EXPECT_FALSE(exists("." + m_dir.path()));
}

// A link that waited, and cannot be made when the target is exchanged for another, is a copy in its own
// target.
TEST_F(FailingCalls, OfALinkThatWaitsWhenTheTargetChanges) {
  TarWith tar(restoringWords() + ",EntryEvents", m_dir / "1");
  ActingEvent event;
  event.act = [&](const std::string& path) {
    if (has(path, "last")) tar.put_UntarFromDir(m_dir / "2");
  };
  const std::string link = ArchiveBuilder().add({"h", "", '1', "f"}).bytes(0);
  const FailingCall failing("linkat", 1, EPERM);
  EXPECT_LT(untar(tar, link + member("f", "data") + member("last") + member("last2") + kEnd, &event), 0);
  EXPECT_TRUE(tar.get_OnlyLeftOut() && logHas(tar, "The member is a copy")) << logOf(tar);
  EXPECT_EQ("data", readFile(m_dir / "1/h"));
  EXPECT_TRUE(exists(m_dir / "1/last") && exists(m_dir / "2/last2") && !exists(m_dir / "2/h"));
}

}  // namespace
}  // namespace morvane::testing
