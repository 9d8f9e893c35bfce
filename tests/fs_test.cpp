// Files, directories, paths and times: what is found out about them, made and walked, however long the path.
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <memory>

#include "TestSupport.h"
#include "runtime/fs/ClsDirTree.h"
#include "runtime/fs/DirAutoCreate.h"
#include "runtime/fs/FileSys.h"
#include "runtime/fs/Psdk.h"
#include "runtime/fs/_mvFilePath.h"

namespace morvane::testing {
namespace {

// Runs as a user whom permissions bind, also when the tests run as root.
class OrdinaryUser {
 public:
  OrdinaryUser() : m_wasRoot(geteuid() == 0) {
    if (m_wasRoot && seteuid(65534) != 0) ADD_FAILURE() << "still root";
  }
  ~OrdinaryUser() {
    if (m_wasRoot && seteuid(0) != 0) ADD_FAILURE() << "no longer root";
  }

 private:
  const bool m_wasRoot;
};

void makeLink(const std::string& target, const std::string& path) {
  ASSERT_EQ(0, symlink(target.c_str(), path.c_str())) << path;
}

void makeDir(const std::string& path) { ASSERT_EQ(0, mkdir(path.c_str(), 0777)) << path; }

std::string walk(const std::string& base, LogBase& log, bool recurse = true, std::string* full = nullptr) {
  const std::unique_ptr<ClsDirTree> tree(ClsDirTree::createNewCls());
  tree->put_BaseDir(base);
  tree->put_Recurse(recurse);
  std::string found;
  bool ok = tree->beginIterate(log);
  for (; ok && !tree->get_DoneIterating(); ok = tree->advancePosition(log)) {
    XString path;
    tree->get_RelativePath(path);
    found += path.str() + (tree->get_IsDirectory() ? (tree->isEnterable() ? "/" : "@") : "") + "\n";
    tree->get_FullUncPath(path);
    if (full) *full += path.str() + "\n";
  }
  EXPECT_TRUE(tree->get_DoneIterating());
  return found + (ok ? "" : "failed\n");
}

TEST(FileInfo, WhatThereIs) {
  ScratchDir dir;
  writeFile(dir / "file", "12345");
  writeFile(dir / "empty", "");
  makeDir(dir / "dir");
  makeLink("file", dir / "to-file");
  makeLink("dir", dir / "to-dir");
  makeLink("to-dir", dir / "to-to-dir");
  makeLink("nowhere", dir / "dangling");
  makeLink("loop", dir / "loop");
  ASSERT_EQ(0, mkfifo((dir / "fifo").c_str(), 0666));
  ASSERT_EQ(0, link((dir / "file").c_str(), (dir / "other").c_str()));
  const struct {
    const char* name;
    bool isDirectory, isLink, isRegular;
    long long size;
  } kCases[] = {
      {"file", false, false, true, 5},       {"empty", false, false, true, 0},
      {"dir", true, false, false, 0},        {"to-file", false, true, false, 0},
      {"to-dir", true, true, false, 0},      {"to-to-dir", true, true, false, 0},
      {"dangling", false, true, false, 0},   {"loop", false, true, false, 0},
      {"fifo", false, false, false, 0},      {"to-dir/", true, false, false, 0},
      {"/dev/full", false, false, false, 0},
  };
  _mvLogger log;
  const OsFile here(open(dir.path().c_str(), O_PATH));
  for (const auto& each : kCases) {
    const std::string path = each.name[0] == '/' ? each.name : dir / each.name;
    for (const bool at : {false, true}) {
      mvFileInfo info;
      ASSERT_TRUE(at ? info.loadFileInfoAt(here.fd(), each.name, path.c_str(), log)
                     : info.loadFileInfoUtf8(path.c_str(), log));
      EXPECT_EQ(each.isDirectory, info.m_isDirectory) << path;
      EXPECT_EQ(each.isLink, info.m_isSymbolicLink) << path;
      EXPECT_EQ(each.isRegular, info.m_isRegularFile) << path;
      EXPECT_EQ(each.size, info.m_size) << path;
    }
    bool ok = true;
    EXPECT_EQ(each.size, FileSys::fileSizeX_64(path, nullptr, ok));
    EXPECT_TRUE(ok);
  }
  EXPECT_EQ("", log.text()) << "nothing here is an error, a dangling link neither";

  mvFileInfo one, other;
  ASSERT_TRUE(one.loadFileInfoUtf8((dir / "file").c_str(), log) &&
              other.loadFileInfoUtf8((dir / "other").c_str(), log));
  EXPECT_TRUE(one.isSameFile(other));
  EXPECT_EQ(2u, one.m_linkCount);
  ASSERT_TRUE(other.loadFileInfoUtf8((dir / "empty").c_str(), log));
  EXPECT_FALSE(one.isSameFile(other));

  const timespec times[2] = {{-5, 1}, {4294967296LL, 999999999}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, (dir / "file").c_str(), times, 0));
  ASSERT_TRUE(one.loadFileInfoUtf8((dir / "file").c_str(), log));
  EXPECT_EQ(-5, one.m_lastAccess.seconds());
  EXPECT_EQ(1u, one.m_lastAccess.nanoseconds());
  EXPECT_EQ(4294967296LL, one.m_lastModified.seconds());
  EXPECT_EQ(999999999u, one.m_lastModified.nanoseconds());
  EXPECT_GE(one.m_creation.seconds(), 1700000000);

  for (const char* missing : {"missing", "file/below", "loop/below"}) {
    bool ok = true;
    log.ClearLog();
    EXPECT_EQ(0, FileSys::fileSizeUtf8_64((dir / missing).c_str(), &log, ok));
    EXPECT_FALSE(ok);
    EXPECT_NE(std::string::npos, log.text().find("path: " + (dir / missing) + "\n"));
  }
}

TEST(FileTime, RoundsDownAndClamps) {
  const struct {
    long long seconds;
    unsigned nanoseconds, unix32;
    const char* gmt;
  } kCases[] = {
      {0, 0, 0, "Thu, 01 Jan 1970 00:00:00 GMT"},
      {-1, 999999999, 0, "Wed, 31 Dec 1969 23:59:59 GMT"},
      {LLONG_MIN, 0, 0, nullptr},
      {951782400, 999999999, 951782400, "Tue, 29 Feb 2000 00:00:00 GMT"},
      {1234567890, 1, 1234567890, "Fri, 13 Feb 2009 23:31:30 GMT"},
      {4107542400, 0, 4107542400u, "Mon, 01 Mar 2100 00:00:00 GMT"},  // 2100 is no leap year
      {4294967295, 999999999, 4294967295u, "Sun, 07 Feb 2106 06:28:15 GMT"},
      {4294967296, 0, 4294967295u, "Sun, 07 Feb 2106 06:28:16 GMT"},
      {253402300800, 0, 4294967295u, "Sat, 01 Jan 10000 00:00:00 GMT"},
      {LLONG_MAX, 999999999, 4294967295u, nullptr},
  };
  for (const auto& each : kCases) {
    const MorvaneFileTime time = MorvaneFileTime::fromUnixTime64(each.seconds, each.nanoseconds);
    EXPECT_EQ(each.unix32, time.toUnixTime32()) << each.seconds;
    EXPECT_EQ(each.seconds, time.toTimespec().tv_sec);
    EXPECT_EQ(each.nanoseconds, static_cast<unsigned>(time.toTimespec().tv_nsec));
    StringBuffer text;
    _mvDateParser::FileTimeToStringGmt(time, text);
    EXPECT_STREQ(each.gmt ? each.gmt : text.getString(), text.getString());
  }
  EXPECT_EQ(4294967295LL, MorvaneFileTime::fromUnixTime32(4294967295u, 7).seconds());
  EXPECT_EQ(7u, MorvaneFileTime::fromUnixTime32(0, 7).nanoseconds());
  const MorvaneSysTime parts = MorvaneSysTime::fromFileTime(MorvaneFileTime::fromUnixTime32(1234567890));
  EXPECT_TRUE(parts.year == 2009 && parts.month == 2 && parts.day == 13 && parts.hour == 23 &&
              parts.minute == 31 && parts.second == 30 && parts.weekday == 5);
}

TEST(DirTree, OrderOfTheBytesDepthFirst) {
  ScratchDir dir;
  const std::string base = dir / "base";
  for (const char* name :
       {"a/x", "a/b/y", "a.b", "a-b", "Z", "\xC3\xA4", "\xFF\xFE/in", " blank", "aa", "new\nline"}) {
    writeFile(base + "/" + name, "");
  }
  makeDir(base + "/empty");
  makeLink("a", base + "/link-to-dir");
  makeLink(base, base + "/a/up");
  makeLink("nowhere", base + "/dangling");
  makeLink("base", dir / "base-link");
  const std::string expected =
      " blank\nZ\na/\na/b/\na/b/y\na/up@\na/x\na-b\na.b\naa\ndangling\nempty/\nlink-to-dir@\nnew\nline\n"
      "\xC3\xA4\n\xFF\xFE/\n\xFF\xFE/in\n";
  _mvLogger log;
  std::string full;
  EXPECT_EQ(expected, walk(base, log, true, &full));
  EXPECT_EQ(0u, full.find(base + "/ blank\n" + base + "/Z\n" + base + "/a\n" + base + "/a/b\n"));
  EXPECT_EQ(expected, walk(dir / "base-link", log)) << "the base may be a link";
  full.clear();
  EXPECT_EQ(expected, walk(base + "///", log, true, &full));
  EXPECT_EQ(0u, full.find(base + "/ blank\n")) << "one slash";
  EXPECT_EQ(" blank\nZ\na/\na-b\na.b\naa\ndangling\nempty/\nlink-to-dir@\nnew\nline\n\xC3\xA4\n\xFF\xFE/\n",
            walk(base, log, false));
  EXPECT_EQ("", walk(base + "/empty", log));

  XString before;
  FileSys::getCurrentDir(before);
  ASSERT_EQ(0, chdir(dir.path().c_str()));
  full.clear();
  EXPECT_EQ("y\n", walk("base/a/b", log, true, &full));
  full += walk("./base/a/../a/b", log, true, &full);
  EXPECT_EQ("base/a/b/y\n./base/a/../a/b/y\ny\n", full) << "as given, never made absolute";
  ASSERT_EQ(0, chdir(before.getUtf8()));
  EXPECT_EQ("", log.text());

  for (const std::string& bad : {dir / "missing", base + "/Z", base + "/dangling", std::string()}) {
    log.ClearLog();
    EXPECT_EQ("failed\n", walk(bad, log));
    EXPECT_NE(std::string::npos, log.text().find("path: " + bad + "\n")) << log.text();
  }
}

TEST(DirTree, AHundredThousandNames) {
  ScratchDir dir;
  const OsFile here(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY));
  constexpr unsigned kNames = 100'000;
  std::string expected;
  for (unsigned i = 0; i < kNames; ++i) {
    char name[16];
    // Made out of order.
    std::snprintf(name, sizeof name, "%06u", (i * 7919u) % kNames);
    ASSERT_EQ(0, mknodat(here.fd(), name, S_IFREG | 0600, 0));
    std::snprintf(name, sizeof name, "%06u\n", i);
    expected += name;
  }
  LogNull log;
  EXPECT_TRUE(expected == walk(dir.path(), log));
}

// 4,000 levels, and every service on the paths at their end, with few files to open.
TEST(LongPaths, EveryServiceTakesThem) {
  ScratchDir dir;
  constexpr int kLevels = 4000;
  const std::string part = "deep";
  std::string deepest = dir.path(), expected, relative;
  OsFile here(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY));
  for (int i = 0; i < kLevels; ++i) {
    ASSERT_EQ(0, mkdirat(here.fd(), part.c_str(), 0777));
    here.reset(openat(here.fd(), part.c_str(), O_RDONLY | O_DIRECTORY));
    deepest += "/" + part;
    relative += (i ? "/" : "") + part;
    expected += relative + "/\n";
  }
  ASSERT_GT(deepest.size(), 4u * PATH_MAX);
  _mvLogger log;

  EXPECT_TRUE(DirAutoCreate::ensureDirUtf8((deepest + "/new/below").c_str(), log)) << log.text();
  EXPECT_TRUE(DirAutoCreate::ensureDirUtf8((deepest + "/new/below").c_str(), log)) << log.text();
  StringBuffer parent;
  EXPECT_TRUE(DirAutoCreate::ensureFileUtf8((deepest + "/p/f").c_str(), parent, log)) << log.text();
  EXPECT_TRUE(parent.equals((deepest + "/p").c_str()));
  const std::string file = deepest + "/file";
  const std::unique_ptr<OutputFile> out(OutputFile::createFileUtf8(file.c_str(), log));
  ASSERT_TRUE(out) << log.text();
  EXPECT_TRUE(out->writeBytesPM("data", 4, nullptr, log) && out->closeHandle(&log));
  EXPECT_TRUE(out->setFileTimeUtc(MorvaneFileTime::fromUnixTime32(1000000000), &log)) << log.text();
  mvFileInfo info;
  EXPECT_TRUE(info.loadFileInfoUtf8(file.c_str(), log)) << log.text();
  EXPECT_EQ(1000000000, info.m_lastModified.seconds());
  DataBuffer loaded;
  EXPECT_TRUE(loaded.loadFileUtf8(file.c_str(), &log)) << log.text();
  EXPECT_EQ(4u, loaded.getSize());
  EXPECT_EQ("", log.text());
  EXPECT_FALSE(info.loadFileInfoUtf8((deepest + "/missing").c_str(), log));
  EXPECT_FALSE(info.loadFileInfoUtf8((dir / std::string(5000, 'n')).c_str(), log)) << "a name too long";
  EXPECT_FALSE(info.loadFileInfoUtf8((dir / "deep/no/" + deepest).c_str(), log));

  expected += relative + "/file\n" + relative + "/new/\n" + relative + "/new/below/\n" + relative + "/p/\n";
  rlimit before;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
  const rlimit few = {100, before.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
  log.ClearLog();
  const std::string found = walk(dir.path(), log);
  EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
  EXPECT_TRUE(expected == found) << log.text();

  XString started, current;
  FileSys::getCurrentDir(started);
  ASSERT_EQ(0, fchdir(here.fd()));
  FileSys::getCurrentDir(current);
  EXPECT_TRUE(deepest == current.str()) << current.str().size();
  EXPECT_TRUE(DirAutoCreate::ensureFileUtf8("relative/f", parent, log));
  EXPECT_EQ(0, chdir(started.getUtf8()));
  EXPECT_TRUE(info.loadFileInfoUtf8((deepest + "/relative").c_str(), log) && info.m_isDirectory);
}

TEST(LongPaths, EveryLengthAroundTheLimit) {
  ScratchDir dir;
  // Parts of different lengths, so that the limit falls on slashes, behind them and inside names.
  for (unsigned cut = 0; cut < 20; ++cut) {
    std::string path = dir / std::string(1 + cut, 'a');
    while (path.size() + 201 < PATH_MAX - 10) path += "/" + std::string(200, 'b');
    _mvLogger log;
    ASSERT_TRUE(DirAutoCreate::ensureDirUtf8(path.c_str(), log)) << log.text();
    for (size_t length = PATH_MAX - 3; length <= PATH_MAX + 3; ++length) {
      const std::string file =
          path + std::string(1 + cut % 3, '/') + std::string(length - path.size() - 1 - cut % 3, 'f');
      const std::unique_ptr<OutputFile> out(OutputFile::createFileUtf8(file.c_str(), log));
      ASSERT_TRUE(out && out->closeHandle(&log)) << log.text();
      mvFileInfo info;
      ASSERT_TRUE(info.loadFileInfoUtf8(file.c_str(), log) && info.m_isRegularFile) << log.text();
    }
  }
}

TEST(DirTree, WhatCannotBeReadEndsTheWalkWithItsName) {
  ScratchDir dir;
  const std::string base = dir / "base";
  writeFile(base + "/a/file", "data");
  writeFile(base + "/closed/secret", "");
  writeFile(base + "/z", "more");
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0777));
  ASSERT_EQ(0, chmod((base + "/closed").c_str(), 0000));
  {
    OrdinaryUser user;
    _mvLogger log;
    EXPECT_EQ("a/\na/file\nclosed/\nfailed\n", walk(base, log));
    EXPECT_NE(std::string::npos, log.text().find("path: " + base + "/closed\n")) << log.text();

    ClsTar tar;
    ASSERT_TRUE(tar.AddDirRoot(base));
    RecordingEvent event;
    LogNull quiet;
    ProgressMonitorPtr pm(&event, 100, 100, 0);
    EXPECT_EQ(4, tar.calcTotalProgressForWrite(tar.log(), pm.getPm())) << "what was counted before";
    EXPECT_EQ(0, countInLog(tar, "Failed to read directory.")) << "the counting pass says nothing";
    EXPECT_FALSE(tar.WriteTar(XString(dir / "a.tar"), &event));
    EXPECT_EQ(1, countInLog(tar, "path: " + base + "/closed\n")) << logOf(tar);
  }
  ASSERT_EQ(0, chmod((base + "/closed").c_str(), 0700));
}

// What happens to the tree between two steps of the walk.
TEST(DirTree, TreesThatChangeUnderTheWalk) {
  struct Change {
    const char* at;
    const char* shell;
    bool ok;
    const char* sees;
    const char* never;
  };
  const Change kChanges[] = {
      {"b", "rm -r b", false, "b\n", "b/inner"},
      {"b", "rm -r b; ln -s ../outside b", false, "b\n", "secret"},
      {"b", "rm -r b; touch b", false, "b\n", "b/inner"},
      {"a", "rm -r a; mkdir a; touch a/new", true, "a/new\n", "a/inner"},
      {"a/inner", "rm -r c", true, "c\n", "failed"},  // already read
      {"a/inner", "touch d", true, "c\n", "d\n"},
      {"a/inner", "mv a moved", true, "b/inner\n", "moved"},
  };
  for (const Change& change : kChanges) {
    SCOPED_TRACE(std::string(change.at) + ": " + change.shell);
    ScratchDir dir;
    const std::string base = dir / "base";
    for (const char* name : {"a/inner", "b/inner", "c"}) writeFile(base + "/" + name, "");
    writeFile(dir / "outside/secret", "");
    _mvLogger log;
    const std::unique_ptr<ClsDirTree> tree(ClsDirTree::createNewCls());
    tree->put_BaseDir(base);
    tree->put_Recurse(true);
    std::string found;
    bool ok = tree->beginIterate(log);
    for (; ok && !tree->get_DoneIterating(); ok = tree->advancePosition(log)) {
      XString path;
      tree->get_RelativePath(path);
      found += path.str() + "\n";
      if (!path.equalsUtf8(change.at)) continue;
      ASSERT_EQ(0, run({"sh", "-c", change.shell}, "", base).status);
    }
    EXPECT_EQ(change.ok, ok) << log.text();
    EXPECT_EQ(ok, log.text().find("path: " + base + "/" + change.at + "\n") == std::string::npos);
    EXPECT_NE(std::string::npos, found.find(change.sees)) << found;
    EXPECT_EQ(std::string::npos, found.find(change.never)) << found;
  }
}

// Directories far above are closed and opened again from below, but only if they are still above.
TEST(DirTree, ABranchMovedElsewhereEndsTheWalk) {
  ScratchDir dir;
  std::string path = dir / "base";
  for (int i = 0; i < 100; ++i) path += "/d";
  writeFile(path + "/leaf", "");
  writeFile(dir / "elsewhere/secret", "");
  writeFile(dir / "base/d/z", "");
  _mvLogger log;
  const std::unique_ptr<ClsDirTree> tree(ClsDirTree::createNewCls());
  tree->put_BaseDir(dir / "base");
  tree->put_Recurse(true);
  std::string last;
  bool ok = tree->beginIterate(log);
  for (; ok && !tree->get_DoneIterating(); ok = tree->advancePosition(log)) {
    XString relative;
    tree->get_RelativePath(relative);
    last = relative.str();
    EXPECT_EQ(std::string::npos, last.find("secret"));
    if (last.find("leaf") != std::string::npos) {
      ASSERT_EQ(0, rename((dir / "base/d/d").c_str(), (dir / "elsewhere/moved").c_str()));
    }
  }
  EXPECT_FALSE(ok);
  EXPECT_NE(std::string::npos, last.find("leaf")) << "nothing is found in the wrong place";
  EXPECT_NE(std::string::npos, log.text().find("path: " + dir.path() + "/base/d")) << log.text();
}

TEST(DirAutoCreate, MakesWhatIsMissing) {
  ScratchDir dir;
  writeFile(dir / "file", "");
  makeDir(dir / "dir");
  makeLink("dir", dir / "link");
  makeLink("nowhere", dir / "dangling");
  const struct {
    const char* path;
    bool ok;
  } kCases[] = {{"dir", true},       {"dir/", true},        {"dir/.", true},      {"x/y/z", true},
                {"x//y///w/", true}, {"link", true},        {"link/below", true}, {"u/../v", true},
                {"file", false},     {"file/below", false}, {"dangling", false},  {"dangling/below", false}};
  for (const auto& each : kCases) {
    for (int again = 0; again < 2; ++again) {
      _mvLogger log;
      const std::string path = dir / each.path;
      EXPECT_EQ(each.ok, DirAutoCreate::ensureDirUtf8(path.c_str(), log)) << path;
      const bool named = log.text().find("path: " + path + "\n") != std::string::npos;
      EXPECT_EQ(each.ok, !named) << log.text();
    }
  }
  EXPECT_EQ((std::map<std::string, std::string>{{"file", "file "},
                                                {"dir", "dir"},
                                                {"link", "link dir"},
                                                {"dangling", "link nowhere"},
                                                {"dir/below", "dir"},
                                                {"x", "dir"},
                                                {"x/y", "dir"},
                                                {"x/y/z", "dir"},
                                                {"x/y/w", "dir"},
                                                {"u", "dir"},
                                                {"v", "dir"}}),
            treeOf(dir.path()));
  LogNull log;
  EXPECT_FALSE(DirAutoCreate::ensureDirUtf8("", log));
  EXPECT_TRUE(DirAutoCreate::ensureDirUtf8("/", log));
  const mode_t mask = umask(0027);
  EXPECT_TRUE(DirAutoCreate::ensureDirUtf8((dir / "m1/m2").c_str(), log));
  EXPECT_EQ(0027u, umask(mask)) << "the umask is the process's";
  struct stat status;
  for (const char* made : {"m1", "m1/m2"}) {
    ASSERT_EQ(0, stat((dir / made).c_str(), &status));
    EXPECT_EQ(0750u, status.st_mode & 07777);
  }
  const char* const kParents[][2] = {{"name", ""}, {"/name", "/"}, {"", ""}};
  for (const auto& [path, expected] : kParents) {
    StringBuffer parent("old");
    EXPECT_TRUE(DirAutoCreate::ensureFileUtf8(path, parent, log));
    EXPECT_STREQ(expected, parent.getString());
  }
}

TEST(FilePath, JoinsAndCuts) {
  const char* const kJoined[][3] = {{"dir", "f", "dir/f"}, {"dir/", "f", "dir/f"},      {"", "f", "f"},
                                    {"/", "f", "/f"},      {"dir", "/f", "/f"},         {"dir", "", "dir/"},
                                    {".", "a/b", "./a/b"}, {"a/b", "../c", "a/b/../c"}, {"", "", ""},
                                    {"dir", "//f", "//f"}};
  for (const auto& [dir, relative, joined] : kJoined) {
    XString out("old");
    _mvFilePath::CombineDirAndFilepath(dir, relative, out);
    EXPECT_STREQ(joined, out.getUtf8());
  }
  const char* const kFinal[][2] = {{"a/b/c", "c"}, {"c", "c"}, {"a/", ""},
                                   {"/", ""},      {"", ""},   {"a\\b", "a\\b"}};
  for (const auto& [path, last] : kFinal) {
    XString out("old");
    _mvFilePath::GetFinalFilenamePart(path, out);
    EXPECT_STREQ(last, out.getUtf8());
    _mvFilePath::buildLongPath(path, out);
    EXPECT_STREQ(path, out.getUtf8());
  }
  StringBuffer user;
  Psdk::getUsername(user);
  EXPECT_EQ(run({"id", "-un"}).out, user.str() + "\n");
  EXPECT_GT(Psdk::getCurrentUnixTime(), 1700000000);
}

}  // namespace
}  // namespace morvane::testing
