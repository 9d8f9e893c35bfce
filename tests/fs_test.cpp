// Files, directories, paths and times: what is found out about them, made and walked, however long the path.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

#include "TestSupport.h"
#include "runtime/fs/ClsDirTree.h"
#include "runtime/fs/DirAutoCreate.h"
#include "runtime/fs/FileSys.h"
#include "runtime/fs/Psdk.h"
#include "runtime/fs/_mvFilePath.h"

namespace morvane::testing {
namespace {

bool blames(const _mvLogger& log, const std::string& path) { return has(log.text(), "path: " + path + "\n"); }

// What a walk finds: "/" behind a directory, "failed" at the end of one that did.
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
      found += path.str() + (tree->get_IsDirectory() ? "/" : "") + "\n";
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

TEST(FileTime, RoundsDownAndClamps) {
  const struct {
    long long seconds;
    unsigned unix32;
    const char* gmt;
  } kCases[] = {{-1, 0, "Wed, 31 Dec 1969 23:59:59 GMT"},
                {951782400, 951782400, "Tue, 29 Feb 2000 00:00:00 GMT"},
                {4107542400, 4107542400u, "Mon, 01 Mar 2100 00:00:00 GMT"},
                {4294967295, 4294967295u, "Sun, 07 Feb 2106 06:28:15 GMT"},
                {4294967296, 4294967295u, "Sun, 07 Feb 2106 06:28:16 GMT"},
                {253402300800, 4294967295u, "Sat, 01 Jan 10000 00:00:00 GMT"},
                // A year that an int does not hold.
                {67768036191676799, 4294967295u, "Thu, 01 Jan 1970 00:00:00 GMT"}};
  for (const auto& each : kCases) {
    const MorvaneFileTime time = MorvaneFileTime::fromUnixTime64(each.seconds, 999'999'999);
    EXPECT_EQ(each.unix32, time.toUnixTime32()) << each.seconds;
    StringBuffer text;
    _mvDateParser::FileTimeToStringGmt(time, text);
    EXPECT_STREQ(each.gmt, text.getString());
  }
}

TEST(DirTree, OrderOfTheBytesDepthFirst) {
  ScratchDir dir;
  const std::string base = dir / "base";
  for (const char* name :
       {"a/x", "a/b/y", "a.b", "a-b", "Z", "\xC3\xA4", "\xFF\xFE/in", " blank", "aa", "new\nline"}) {
    writeFile(base + "/" + name, "");
  }
  must(dir,
       "cd base; mkdir empty; ln -s a link-to-dir; ln -s .. a/up; ln -s nowhere dangling; ln -s base "
       "../base-link");
  const std::string expected =
      " blank\nZ\na/\na/b/\na/b/y\na/up\na/x\na-b\na.b\naa\ndangling\nempty/\nlink-to-dir\nnew\nline\n"
      "\xC3\xA4\n\xFF\xFE/\n\xFF\xFE/in\n";
  const Walk whole(base);
  EXPECT_EQ(expected, whole.found);
  EXPECT_EQ(0u, whole.full.find(base + "/ blank\n" + base + "/Z\n" + base + "/a\n" + base + "/a/b\n"));
  EXPECT_EQ("", whole.log.text());
  EXPECT_EQ(expected, Walk(dir / "base-link").found) << "the base may be a link";
  EXPECT_EQ(whole.full, Walk(base + "///").full) << "one slash";
  EXPECT_EQ("b/\nup\nx\n", Walk(base + "/a", false).found);
  EXPECT_EQ(base + "/a/../a/b/y\n", Walk(base + "/a/../a/b").full) << "as given";
  for (const std::string& bad : {dir / "missing", base + "/Z", base + "/dangling", std::string()}) {
    const Walk walk(bad);
    EXPECT_TRUE(walk.found == "failed\n" && blames(walk.log, bad)) << walk.log.text();
  }
}

// 4,000 levels, and every service on the paths at their end, with few files to open.
TEST(LongPaths, EveryServiceTakesThem) {
  ScratchDir dir;
  std::string file, expected;
  for (int i = 0; i < 4000; ++i) expected += (file += i ? "/deep" : "deep") + "/\n";
  expected += file + "/file\n";
  const std::string path = dir / file;
  file = path + "/file";
  _mvLogger log;
  mvFileInfo info;
  EXPECT_TRUE(DirAutoCreate::ensureDirUtf8(path.c_str(), log));
  const std::unique_ptr<OutputFile> out(OutputFile::createFileUtf8(file.c_str(), log));
  ASSERT_TRUE(out) << log.text();
  EXPECT_TRUE(out->writeBytesPM("data", 4, nullptr, log) &&
              out->setFileTimeUtc(MorvaneFileTime::fromUnixTime32(1000000000), &log));
  EXPECT_TRUE(info.loadFileInfoUtf8(file.c_str(), log) && info.m_lastModified.seconds() == 1000000000);
  EXPECT_EQ("", log.text());
  rlimit before;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
  const rlimit few = {100, before.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
  const Walk walk(dir.path());
  EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
  EXPECT_TRUE(expected == walk.found) << walk.log.text();
  EXPECT_TRUE(osRemoveFile(file.c_str()) == 0 && !info.loadFileInfoUtf8(file.c_str(), log));
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
  const std::string base = dir / "base", made = "mkdir -p base/a base/closed; printf data >base/a/file; ";
  must(dir, made + "touch base/z; chmod 0 base/closed; chmod 777 .");
  const bool wasRoot = geteuid() == 0 && seteuid(65534) == 0;  // root may read everything
  EXPECT_EQ("a/\na/file\nclosed/\nfailed\n", Walk(base).found);
  ClsTar tar;
  EXPECT_TRUE(tar.AddDirRoot(base));
  EXPECT_EQ(4, tar.calcTotalProgressForWrite(tar.log(), nullptr)) << "what was counted before";
  EXPECT_FALSE(logHas(tar, "Failed to read directory.")) << "the counting pass says nothing";
  EXPECT_FALSE(tar.WriteTar(XString(dir / "a.tar")));
  EXPECT_TRUE(!wasRoot || seteuid(0) == 0);
  EXPECT_EQ(1, countInLog(tar, "path: " + base + "/closed\n")) << logOf(tar);
}

// What happens to the tree between two steps of the walk.
TEST(DirTree, TreesThatChangeUnderTheWalk) {
  const char* const kChanges[][3] = {{"b", "rm -r b", "a/\na/inner\nb/\nfailed\n"},
                                     {"b", "rm -r b; ln -s ../outside b", "a/\na/inner\nb/\nfailed\n"},
                                     {"a", "rm a/*; touch a/new", "a/\na/new\nb/\nb/inner\nc\n"},
                                     {"a/inner", "mv a moved", "a/\na/inner\nb/\nb/inner\nc\n"}};
  for (const auto& [at, commands, found] : kChanges) {
    ScratchDir dir;
    must(dir, "mkdir -p base/a base/b outside && touch base/a/inner base/b/inner base/c outside/secret");
    const Walk walk(dir / "base", true, [&, at = at, commands = commands](const std::string& path) {
      if (path == at) must(dir, std::string("cd base; ") + commands);
    });
    EXPECT_EQ(found, walk.found) << commands;
    EXPECT_EQ(has(found, "failed"), blames(walk.log, dir / "base/" + at));
  }
  // Directories far above are closed and opened again from below, but only if they are still above.
  ScratchDir dir;
  std::string expected, leaf;
  for (int i = 0; i < 100; ++i) expected += (leaf += i ? "/d" : "d") + "/\n";
  leaf += "/leaf";
  must(dir, "mkdir -p other base/$(dirname " + leaf + ") && touch base/d/z other/secret base/" + leaf);
  const Walk walk(dir / "base", true, [&](const std::string& path) {
    if (path == leaf) must(dir, "mv base/d/d other/moved");
  });
  EXPECT_EQ(expected + leaf + "\nfailed\n", walk.found);
  EXPECT_TRUE(blames(walk.log, dir / "base/d")) << walk.log.text();
}

TEST(DirAutoCreate, MakesWhatIsMissing) {
  ScratchDir dir;
  must(dir, "touch file; mkdir dir; ln -s dir link; ln -s nowhere dangling");
  _mvLogger log;
  const mode_t mask = umask(0027);
  for (const char* path : {"dir/", "dir/.", "x/y/z", "x//y///w/", "link", "link/below", "u/../v", "/"}) {
    EXPECT_TRUE(DirAutoCreate::ensureDirUtf8((dir / path).c_str(), log)) << path;
    EXPECT_TRUE(DirAutoCreate::ensureDirUtf8((dir / path).c_str(), log) && log.text().empty()) << path;
  }
  EXPECT_EQ(0027u, umask(mask)) << "the umask is the process's";
  EXPECT_EQ("750\n750\n", run({"stat", "-c", "%a", dir / "x", dir / "x/y"}).out);
  for (const std::string& path : {dir / "file", dir / "file/below", dir / "dangling/below", std::string()}) {
    EXPECT_FALSE(DirAutoCreate::ensureDirUtf8(path.c_str(), log));
    EXPECT_TRUE(blames(log, path)) << log.text();
  }
  std::string made;
  for (const auto& [path, what] : treeOf(dir.path())) made += path + " ";
  EXPECT_EQ("dangling dir dir/below file link u v x x/y x/y/w x/y/z ", made);
  StringBuffer parent("old");
  EXPECT_TRUE(DirAutoCreate::ensureFileUtf8("/name", parent, log) && parent.equals("/"));
  EXPECT_TRUE(DirAutoCreate::ensureFileUtf8("name", parent, log) && parent.equals(""));
}

TEST(FilePath, JoinsAndCuts) {
  const char* const kCases[][4] = {// joined, and the last part of that
                                   {"dir", "f", "dir/f", "f"}, {"dir/", "f", "dir/f", "f"},
                                   {"", "f", "f", "f"},        {"/", "f", "/f", "f"},
                                   {"dir", "/f", "/f", "f"},   {"dir", "", "dir/", ""},
                                   {"", "", "", ""},           {"a/b", "../c\\d", "a/b/../c\\d", "c\\d"}};
  for (const auto& [dir, relative, joined, last] : kCases) {
    XString out("old"), part("old"), same;
    _mvFilePath::CombineDirAndFilepath(dir, relative, out);
    _mvFilePath::GetFinalFilenamePart(out, part);
    _mvFilePath::buildLongPath(out, same);
    EXPECT_STREQ(joined, out.getUtf8());
    EXPECT_TRUE(part.equalsUtf8(last) && same.equalsUtf8(joined)) << joined;
  }
  StringBuffer user;
  Psdk::getUsername(user);
  EXPECT_EQ(run({"id", "-un"}).out, user.str() + "\n");
}

}  // namespace
}  // namespace morvane::testing
