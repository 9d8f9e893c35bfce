// Files, directories, paths and times: what is found out about them, made and walked, however long the path.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <functional>
#include <memory>

#include "TestSupport.h"
#include "runtime/fs/ClsDirTree.h"
#include "runtime/fs/DirAutoCreate.h"
#include "runtime/fs/FileSys.h"
#include "runtime/fs/Psdk.h"
#include "runtime/fs/_mvFilePath.h"

namespace morvane::testing {
namespace {

void shell(const std::string& dir, const std::string& commands) {
  EXPECT_EQ(0, run({"sh", "-c", commands}, "", dir).status) << commands;
}

bool blames(const _mvLogger& log, const std::string& path) {
  return log.text().find("path: " + path + "\n") != std::string::npos;
}

// What a walk finds: "/" behind a directory, "@" behind a link to one, "failed" at the end of one that did.
// `visit` sees each relative path and may change the tree.
struct Walk {
  explicit Walk(const std::string& base, bool recurse = true,
                const std::function<void(const std::string&)>& visit = nullptr) {
    const std::unique_ptr<ClsDirTree> tree(ClsDirTree::createNewCls());
    tree->put_BaseDir(base);
    tree->put_Recurse(recurse);
    bool ok = tree->beginIterate(log);
    for (; ok && !tree->get_DoneIterating(); ok = tree->advancePosition(log)) {
      XString path;
      tree->get_RelativePath(path);
      found += path.str() + (tree->get_IsDirectory() ? (tree->isEnterable() ? "/" : "@") : "") + "\n";
      if (visit) visit(path.str());
      tree->get_FullUncPath(path);
      full += path.str() + "\n";
    }
    EXPECT_TRUE(tree->get_DoneIterating());
    if (!ok) found += "failed\n";
  }

  _mvLogger log;
  std::string found, full;
};

TEST(FileInfo, WhatThereIs) {
  ScratchDir dir;
  shell(dir.path(),
        "printf 12345 >file; mkdir dir; ln -s file to-file; ln -s dir to-dir; ln -s to-dir to-to-dir;"
        "ln -s nowhere dangling; ln -s loop loop; mkfifo fifo; ln file other; touch empty");
  // Directory, link, regular file.
  const char* const kCases[][2] = {
      {"file", "--r"},      {"empty", "--r"},    {"dir", "d--"},  {"to-file", "-l-"}, {"to-dir", "dl-"},
      {"to-to-dir", "dl-"}, {"dangling", "-l-"}, {"loop", "-l-"}, {"fifo", "---"},    {"to-dir/", "d--"}};
  _mvLogger log;
  const OsFile here(open(dir.path().c_str(), O_PATH));
  for (const auto& [name, kind] : kCases) {
    const std::string path = dir / name;
    bool ok = true;
    const long long size = FileSys::fileSizeX_64(path, nullptr, ok);
    EXPECT_TRUE(ok && size == (std::strcmp(name, "file") == 0 ? 5 : 0)) << path;
    for (const bool at : {false, true}) {
      mvFileInfo info;
      ASSERT_TRUE(at ? info.loadFileInfoAt(here.fd(), name, path.c_str(), log)
                     : info.loadFileInfoUtf8(path.c_str(), log));
      const char found[] = {info.m_isDirectory ? 'd' : '-', info.m_isSymbolicLink ? 'l' : '-',
                            info.m_isRegularFile ? 'r' : '-', '\0'};
      EXPECT_STREQ(kind, found) << path;
      EXPECT_EQ(size, info.m_size) << path;
    }
  }
  EXPECT_EQ("", log.text()) << "nothing here is an error, a dangling link neither";

  const timespec times[2] = {{-5, 1}, {4294967296LL, 999999999}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, (dir / "file").c_str(), times, 0));
  mvFileInfo one, other, empty;
  ASSERT_TRUE(one.loadFileInfoUtf8((dir / "file").c_str(), log) &&
              other.loadFileInfoUtf8((dir / "other").c_str(), log) &&
              empty.loadFileInfoUtf8((dir / "empty").c_str(), log));
  EXPECT_TRUE(one.isSameFile(other) && !one.isSameFile(empty) && one.m_linkCount == 2);
  EXPECT_TRUE(one.m_lastAccess.seconds() == -5 && one.m_lastAccess.nanoseconds() == 1);
  EXPECT_TRUE(one.m_lastModified.seconds() == 4294967296LL && one.m_lastModified.nanoseconds() == 999999999);

  for (const char* missing : {"missing", "file/below", "loop/below"}) {
    bool ok = true;
    log.ClearLog();
    EXPECT_EQ(0, FileSys::fileSizeUtf8_64((dir / missing).c_str(), &log, ok));
    EXPECT_TRUE(!ok && blames(log, dir / missing));
  }
}

TEST(FileTime, RoundsDownAndClamps) {
  const struct {
    long long seconds;
    unsigned unix32;
    const char* gmt;
  } kCases[] = {{LLONG_MIN, 0, nullptr},
                {-1, 0, "Wed, 31 Dec 1969 23:59:59 GMT"},
                {0, 0, "Thu, 01 Jan 1970 00:00:00 GMT"},
                {951782400, 951782400, "Tue, 29 Feb 2000 00:00:00 GMT"},
                {1234567890, 1234567890, "Fri, 13 Feb 2009 23:31:30 GMT"},
                {4107542400, 4107542400u, "Mon, 01 Mar 2100 00:00:00 GMT"},
                {4294967295, 4294967295u, "Sun, 07 Feb 2106 06:28:15 GMT"},
                {4294967296, 4294967295u, "Sun, 07 Feb 2106 06:28:16 GMT"},
                {253402300800, 4294967295u, "Sat, 01 Jan 10000 00:00:00 GMT"},
                {LLONG_MAX, 4294967295u, nullptr}};
  for (const auto& each : kCases) {
    for (const unsigned nanoseconds : {0u, 999'999'999u}) {
      const MorvaneFileTime time = MorvaneFileTime::fromUnixTime64(each.seconds, nanoseconds);
      EXPECT_EQ(each.unix32, time.toUnixTime32()) << each.seconds;
      EXPECT_TRUE(time.toTimespec().tv_sec == each.seconds && time.toTimespec().tv_nsec == nanoseconds);
      StringBuffer text;
      _mvDateParser::FileTimeToStringGmt(time, text);
      EXPECT_STREQ(each.gmt ? each.gmt : text.getString(), text.getString());
    }
  }
  const MorvaneFileTime most = MorvaneFileTime::fromUnixTime32(4294967295u, 7);
  EXPECT_TRUE(most.seconds() == 4294967295LL && most.nanoseconds() == 7);
}

TEST(DirTree, OrderOfTheBytesDepthFirst) {
  ScratchDir dir;
  const std::string base = dir / "base";
  for (const char* name :
       {"a/x", "a/b/y", "a.b", "a-b", "Z", "\xC3\xA4", "\xFF\xFE/in", " blank", "aa", "new\nline"}) {
    writeFile(base + "/" + name, "");
  }
  shell(base,
        "mkdir empty; ln -s a link-to-dir; ln -s .. a/up; ln -s nowhere dangling; ln -s base ../base-link");
  const std::string expected =
      " blank\nZ\na/\na/b/\na/b/y\na/up@\na/x\na-b\na.b\naa\ndangling\nempty/\nlink-to-dir@\nnew\nline\n"
      "\xC3\xA4\n\xFF\xFE/\n\xFF\xFE/in\n";
  const Walk whole(base);
  EXPECT_EQ(expected, whole.found);
  EXPECT_EQ(0u, whole.full.find(base + "/ blank\n" + base + "/Z\n" + base + "/a\n" + base + "/a/b\n"));
  EXPECT_EQ("", whole.log.text());
  EXPECT_EQ(expected, Walk(dir / "base-link").found) << "the base may be a link";
  EXPECT_EQ(whole.full, Walk(base + "///").full) << "one slash";
  EXPECT_EQ(" blank\nZ\na/\na-b\na.b\naa\ndangling\nempty/\nlink-to-dir@\nnew\nline\n\xC3\xA4\n\xFF\xFE/\n",
            Walk(base, false).found);
  EXPECT_EQ("", Walk(base + "/empty").found);
  XString before;
  FileSys::getCurrentDir(before);
  ASSERT_EQ(0, chdir(dir.path().c_str()));
  EXPECT_EQ("./base/a/../a/b/y\n", Walk("./base/a/../a/b").full) << "as given, never made absolute";
  ASSERT_EQ(0, chdir(before.getUtf8()));
  for (const std::string& bad : {dir / "missing", base + "/Z", base + "/dangling", std::string()}) {
    const Walk walk(bad);
    EXPECT_TRUE(walk.found == "failed\n" && blames(walk.log, bad)) << walk.log.text();
  }
}

TEST(DirTree, AHundredThousandNames) {
  ScratchDir dir;
  const OsFile here(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY));
  std::string expected;
  for (unsigned i = 0; i < 100'000; ++i) {
    const std::string name = std::to_string(100'000 + (i * 7919) % 100'000);  // made out of order
    ASSERT_EQ(0, mknodat(here.fd(), name.c_str(), S_IFREG | 0600, 0));
    expected += std::to_string(100'000 + i) + "\n";
  }
  EXPECT_TRUE(expected == Walk(dir.path()).found);
}

// 4,000 levels, and every service on the paths at their end, with few files to open.
TEST(LongPaths, EveryServiceTakesThem) {
  ScratchDir dir;
  std::string deepest = dir.path(), expected, relative;
  OsFile here(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY));
  for (int i = 0; i < 4000; ++i) {
    ASSERT_EQ(0, mkdirat(here.fd(), "deep", 0777));
    here.reset(openat(here.fd(), "deep", O_RDONLY | O_DIRECTORY));
    deepest += "/deep";
    expected += (relative += i ? "/deep" : "deep") + "/\n";
  }
  _mvLogger log;
  StringBuffer parent;
  mvFileInfo info;
  DataBuffer loaded;
  const std::string file = deepest + "/file";
  EXPECT_TRUE(DirAutoCreate::ensureDirUtf8((deepest + "/new/below").c_str(), log));
  EXPECT_TRUE(DirAutoCreate::ensureDirUtf8((deepest + "/new/below").c_str(), log));
  EXPECT_TRUE(DirAutoCreate::ensureFileUtf8((deepest + "/p/f").c_str(), parent, log));
  EXPECT_TRUE(parent.equals((deepest + "/p").c_str()));
  const std::unique_ptr<OutputFile> out(OutputFile::createFileUtf8(file.c_str(), log));
  ASSERT_TRUE(out) << log.text();
  EXPECT_TRUE(out->writeBytesPM("data", 4, nullptr, log) && out->closeHandle(&log));
  EXPECT_TRUE(out->setFileTimeUtc(MorvaneFileTime::fromUnixTime32(1000000000), &log));
  EXPECT_TRUE(info.loadFileInfoUtf8(file.c_str(), log) && info.m_lastModified.seconds() == 1000000000);
  EXPECT_TRUE(loaded.loadFileUtf8(file.c_str(), &log) && loaded.getSize() == 4);
  EXPECT_EQ("", log.text());
  for (const std::string& bad :
       {deepest + "/missing", dir / std::string(5000, 'n'), dir / "deep/no/" + deepest}) {
    EXPECT_FALSE(info.loadFileInfoUtf8(bad.c_str(), log));
  }
  expected += relative + "/file\n" + relative + "/new/\n" + relative + "/new/below/\n" + relative + "/p/\n";
  rlimit before;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
  const rlimit few = {100, before.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
  const Walk walk(dir.path());
  EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
  EXPECT_TRUE(expected == walk.found) << walk.log.text();

  XString started, current;
  FileSys::getCurrentDir(started);
  ASSERT_EQ(0, fchdir(here.fd()));
  FileSys::getCurrentDir(current);
  EXPECT_EQ(0, chdir(started.getUtf8()));
  EXPECT_TRUE(deepest == current.str()) << current.str().size();
}

// The limit falls on every place: in a directory's name, on the slashes behind it, in the file's name.
TEST(LongPaths, EveryLengthAroundTheLimit) {
  ScratchDir dir;
  std::string base = dir / "b";
  while (base.size() + 201 < PATH_MAX - 100) base += "/" + std::string(200, 'b');
  for (size_t dirLength = PATH_MAX - 8; dirLength <= PATH_MAX + 4; ++dirLength) {
    const std::string path = base + "/" + std::string(dirLength - base.size() - 1, 'd');
    _mvLogger log;
    ASSERT_TRUE(DirAutoCreate::ensureDirUtf8(path.c_str(), log)) << log.text();
    for (const char* name : {"/f", "//f", "/////g", "/long"}) {
      const std::unique_ptr<OutputFile> out(OutputFile::createFileUtf8((path + name).c_str(), log));
      mvFileInfo info;
      ASSERT_TRUE(out && info.loadFileInfoUtf8((path + name).c_str(), log) && info.m_isRegularFile)
          << log.text();
    }
  }
}

TEST(DirTree, WhatCannotBeReadEndsTheWalkWithItsName) {
  ScratchDir dir;
  const std::string base = dir / "base";
  shell(dir.path(),
        "mkdir -p base/a base/closed; printf data >base/a/file; touch base/z; chmod 0 base/closed; chmod 777 "
        ".");
  const bool wasRoot = geteuid() == 0 && seteuid(65534) == 0;  // root may read everything
  const Walk walk(base);
  ClsTar tar;
  EXPECT_TRUE(tar.AddDirRoot(base));
  RecordingEvent event;
  ProgressMonitor monitor(event, 100, 100, 0);
  EXPECT_EQ(4, tar.calcTotalProgressForWrite(tar.log(), &monitor)) << "what was counted before";
  EXPECT_FALSE(logHas(tar, "Failed to read directory.")) << "the counting pass says nothing";
  EXPECT_FALSE(tar.WriteTar(XString(dir / "a.tar"), &event));
  EXPECT_TRUE(!wasRoot || seteuid(0) == 0);
  EXPECT_EQ("a/\na/file\nclosed/\nfailed\n", walk.found);
  EXPECT_TRUE(blames(walk.log, base + "/closed")) << walk.log.text();
  EXPECT_EQ(1, countInLog(tar, "path: " + base + "/closed\n")) << logOf(tar);
}

// What happens to the tree between two steps of the walk.
TEST(DirTree, TreesThatChangeUnderTheWalk) {
  const char* const kChanges[][3] = {{"b", "rm -r b", "a/\na/inner\nb/\nfailed\n"},
                                     {"b", "rm -r b; ln -s ../outside b", "a/\na/inner\nb/\nfailed\n"},
                                     {"b", "rm -r b; touch b", "a/\na/inner\nb/\nfailed\n"},
                                     {"a", "rm a/*; touch a/new", "a/\na/new\nb/\nb/inner\nc\n"},
                                     {"a/inner", "rm c; touch d", "a/\na/inner\nb/\nb/inner\nc\n"},
                                     {"a/inner", "mv a moved", "a/\na/inner\nb/\nb/inner\nc\n"}};
  for (const auto& [at, commands, found] : kChanges) {
    ScratchDir dir;
    const std::string base = dir / "base";
    for (const char* name : {"base/a/inner", "base/b/inner", "base/c", "outside/secret"})
      writeFile(dir / name, "");
    const Walk walk(base, true, [&, at = at, commands = commands](const std::string& path) {
      if (path == at) shell(base, commands);
    });
    EXPECT_EQ(found, walk.found) << commands;
    EXPECT_EQ(std::strstr(found, "failed") != nullptr, blames(walk.log, base + "/" + at));
  }
  // Directories far above are closed and opened again from below, but only if they are still above.
  ScratchDir dir;
  std::string expected, leaf;
  for (int i = 0; i < 100; ++i) expected += (leaf += i ? "/d" : "d") + "/\n";
  leaf += "/leaf";
  for (const std::string& name : {"base/" + leaf, std::string("base/d/z"), std::string("other/secret")})
    writeFile(dir / name, "");
  const Walk walk(dir / "base", true, [&](const std::string& path) {
    if (path == leaf) shell(dir.path(), "mv base/d/d other/moved");
  });
  EXPECT_EQ(expected + leaf + "\nfailed\n", walk.found);
  EXPECT_TRUE(blames(walk.log, dir / "base/d/d")) << walk.log.text();
}

TEST(DirAutoCreate, MakesWhatIsMissing) {
  ScratchDir dir;
  shell(dir.path(), "touch file; mkdir dir; ln -s dir link; ln -s nowhere dangling");
  for (const char* path :
       {"dir", "dir/", "dir/.", "x/y/z", "x//y///w/", "link", "link/below", "u/../v", "/"}) {
    _mvLogger log;
    EXPECT_TRUE(DirAutoCreate::ensureDirUtf8((dir / path).c_str(), log)) << path;
    EXPECT_TRUE(DirAutoCreate::ensureDirUtf8((dir / path).c_str(), log) && log.text().empty()) << path;
  }
  for (const std::string& path :
       {dir / "file", dir / "file/below", dir / "dangling", dir / "dangling/below", std::string()}) {
    _mvLogger log;
    EXPECT_FALSE(DirAutoCreate::ensureDirUtf8(path.c_str(), log));
    EXPECT_TRUE(blames(log, path)) << log.text();
  }
  std::string made;
  for (const auto& [path, what] : treeOf(dir.path())) made += path + " " + what + "|";
  EXPECT_EQ(
      "dangling link nowhere|dir dir|dir/below dir|file file |link link dir|u dir|v dir|x dir|x/y dir|x/y/w "
      "dir|x/y/z dir|",
      made);
  LogNull log;
  const mode_t mask = umask(0027);
  EXPECT_TRUE(DirAutoCreate::ensureDirUtf8((dir / "m1/m2").c_str(), log));
  EXPECT_EQ(0027u, umask(mask)) << "the umask is the process's";
  EXPECT_EQ("750\n750\n", run({"stat", "-c", "%a", dir / "m1", dir / "m1/m2"}).out);
  for (const char* path : {"name", "/name", ""}) {
    StringBuffer parent("old");
    EXPECT_TRUE(DirAutoCreate::ensureFileUtf8(path, parent, log));
    EXPECT_STREQ(*path == '/' ? "/" : "", parent.getString());
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
    XString out("old"), same;
    _mvFilePath::GetFinalFilenamePart(path, out);
    _mvFilePath::buildLongPath(path, same);
    EXPECT_TRUE(out.equalsUtf8(last) && same.equalsUtf8(path)) << path;
  }
  StringBuffer user;
  Psdk::getUsername(user);
  EXPECT_EQ(run({"id", "-un"}).out, user.str() + "\n");
}

}  // namespace
}  // namespace morvane::testing
