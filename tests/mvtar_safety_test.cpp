// The command mvtar when something is wrong: sources and disks that fail, damaged and hostile archives, links
// in the way, pipes that end, interrupts. Nothing is lost without a word, nothing outside the target is
// touched, and nothing hangs.
#ifdef MVTAR
#include <sys/stat.h>

#include <atomic>
#include <thread>

#include "MvtarSupport.h"

namespace morvane::testing {
namespace {

const Words kReadModes[] = {
    {"-tf"}, {"-xf", "-C", "out"}, {"--verify", "-f"}, {"--xml", "-tf"}, {"-xO", "x/*", "-f"}};

// The words of a mode with the archive behind its "f".
Words reading(const Words& mode, const std::string& archive) {
  Words words = mode;
  words.insert(
      std::find_if(words.begin(), words.end(), [](const std::string& w) { return w.back() == 'f'; }) + 1,
      archive);
  return words;
}

// ---- Sources that cannot be archived as they are

// A command run by a user who is refused what has no permissions. The copy of mvtar lies where that user may
// go.
CommandResult asOrdinaryUser(const ScratchDir& dir, const std::string& arguments) {
  must(dir, "chmod 711 . && cp '" + kMvtar + "' mv && chmod 755 mv");
  return shell(dir, (geteuid() == 0 ? "setpriv --reuid=65534 --regid=65534 --clear-groups ./mv " : "./mv ") +
                        arguments);
}

TEST(MvtarSources, UnreadableOnesAreNamedAndLeftOut) {
  ScratchDir dir;
  must(dir,
       "mkdir -p d/closed d/shut d/z && touch d/a d/closed/x d/secret d/shut/x d/z/f single && "
       "chmod 711 d/closed && chmod 0 d/shut d/secret single && mkdir out && chmod 777 out");
  const std::string denied = ": Permission denied";
  for (const char* extra :
       {"", " -z", " -j", " --format=pax", " --progress=never --log 2>&1 >&- | grep ^mvtar >&2; false"}) {
    const CommandResult result =
        asOrdinaryUser(dir, std::string("-cvf out/a d single d/shut --totals") + extra);
    if (has(result.err, "setpriv")) GTEST_SKIP() << "no other user here: " << result.err;
    if (*extra && has(extra, "log")) continue;
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("d/\nd/a\nd/z/\nd/z/f\n", result.out);
    Words facts = linesOf(result.err);
    std::sort(facts.begin(), facts.end());
    Words expected = {"mvtar: 4 members, 0 bytes", kClosing.substr(0, kClosing.size() - 1)};
    for (const char* path : {"single", "d/shut", "d/secret", "d/closed"})
      expected.push_back("mvtar: " + std::string(path) + denied);
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, facts);
    expectRun(mvtar(dir, {"-tf", "out/a"}), 0, result.out, "");
  }
  // What is excluded need not be readable.
  expectRun(asOrdinaryUser(dir, "-cf out/a d d/shut --exclude=closed --exclude=shut --exclude=secret"), 0, "",
            "");
  // And where nothing may be written, that is said.
  must(dir, "mkdir ro");
  const CommandResult readOnly = asOrdinaryUser(dir, "-xf out/a -C ro");
  EXPECT_EQ(2, readOnly.status);
  EXPECT_TRUE(has(readOnly.err, denied)) << readOnly.err;
}

TEST(MvtarSources, LinksAndSpecialFilesAreNamed) {
  ScratchDir dir;
  must(dir,
       "mkdir d && echo data > d/f && ln d/f d/hard && ln -s f d/link && ln -s . d/linkdir && mkfifo d/pipe "
       "&& "
       "python3 -c 'import socket; socket.socket(socket.AF_UNIX).bind(\"d/sock\")'");
  Words facts = {"d/link: a symbolic link is not kept as one",
                 "d/linkdir: a symbolic link is not kept as one", "d/pipe: a FIFO is kept as an empty file",
                 "d/sock: a socket is kept as an empty file"};
  Words words = {"-cf", "a.tar", "d", "/dev/null"};
  facts.insert(facts.begin(),
               {"/dev/null: leading '/' is left off", "/dev/null: a device is kept as an empty file"});
  expectRun(mvtar(dir, words), 2, "", said(facts));
  EXPECT_EQ("d/\ndev/null\nd/f\nd/hard\nd/link\nd/linkdir/\nd/pipe\nd/sock\n",
            mvtar(dir, {"-tf", "a.tar"}).out);
}

TEST(MvtarSources, ArchivesInTheirOwnSourceTree) {
  ScratchDir dir;
  must(dir, "mkdir d && head -c 100000 /dev/urandom > d/f && touch d/z");
  for (const char* script :
       {"mvtar -cf d/a d", "mvtar -czf d/a d", "mvtar -cf - d > d/a", "cd d; mvtar -cf a . --prefix=d",
        "ln -s d/a link; mvtar -cf link d", "mvtar -cf d/a d d/a"}) {
    expectRun(shell(dir, script), 0, "", "");
    expectRun(mvtar(dir, {"-tf", "d/a"}), 0, "d/\nd/f\nd/z\n", "");
    must(dir, "rm -f link d/a && touch d/a");
  }
}

TEST(MvtarSources, SizesThatChangeWhileTheyAreRead) {
  ScratchDir dir;
  const std::string contents = noise(3000000, 1);
  struct {
    const char* change;
    Words words;
    std::string facts;
  } const cases[] = {{"truncate -s 1000000 d/f", {}, "d/f"},
                     {"echo more >> d/f", {}, "d/f"},
                     {"truncate -s 0 d/f", {"-z"}, "d/f"},
                     {"true", {}, ""}};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.change);
    must(dir, "mkdir -p d && touch d/last");
    writeFile(dir / "d/f", contents);
    Words words{"-cf", "-", "d"};
    words.insert(words.end(), test.words.begin(), test.words.end());
    Running command(dir, words);
    ASSERT_TRUE(command.waitsForReader());
    must(dir, test.change);
    const int status = command.end();
    EXPECT_EQ(test.facts.empty() ? 0 : 2, status);
    EXPECT_EQ(test.facts.empty() ? "" : said({"d/f: its size changed while it was archived"}), command.err);
    writeFile(dir / "a", command.out);
    expectRun(mvtar(dir, {"-tf", "a"}), 0, "d/\nd/f\nd/last\n", "");
    expectRun(mvtar(dir, {"-xf", "a", "-C", "out"}), 0, "", "");
    EXPECT_EQ(contents.size(), readFile(dir / "out/d/f").size());
  }
  // One that vanishes after it was seen.
  must(dir, "mkdir v && touch v/z");
  writeFile(dir / "v/a", contents);
  Running command(dir, {"-cvf", "-", "v"});
  ASSERT_TRUE(command.waitsForReader());
  must(dir, "rm v/z");
  EXPECT_EQ(2, command.end());
  EXPECT_EQ("v/\nv/a\n" + said({"v/z: No such file or directory"}), command.err);
  // A file that states more than it holds.
  const std::string odd = "/sys/kernel/mm/transparent_hugepage/enabled";
  if (!exists(odd)) return;
  EXPECT_EQ(2, mvtar(dir, {"-cf", "a", odd}).status);
  EXPECT_EQ(0, mvtar(dir, {"--verify", "-f", "a"}).status);
}

// ---- Disks and pipes that take no more

TEST(MvtarOutput, FullDevices) {
  ScratchDir dir;
  must(dir,
       "mkdir d && head -c 300000 /dev/urandom > d/f && touch d/g && mvtar -czf a.tgz d && mvtar -cf a.tar d "
       "&& ln -s /dev/full full.tar.gz");
  const std::string full = ": No space left on device";
  struct {
    const char* script;
    std::string path;
  } const cases[] = {{"mvtar -cf /dev/full d", "/dev/full"},
                     {"mvtar -cf /dev/full d/g", "/dev/full"},
                     {"mvtar -czf /dev/full d/g", "/dev/full"},
                     {"mvtar -cjf /dev/full d", "/dev/full"},
                     {"mvtar -cf full.tar.gz d/g", "full.tar.gz"},
                     {"mvtar -cf - d > /dev/full", "standard output"},
                     {"mvtar -czf - d/g > /dev/full", "standard output"},
                     {"mvtar -tf a.tar > /dev/full", "standard output"},
                     {"mvtar -tf a.tgz > /dev/full", "standard output"},
                     {"mvtar -tf a.tar --xml > /dev/full", "standard output"},
                     {"mvtar --verify -f a.tgz > /dev/full", "standard output"},
                     {"mvtar -cvf b.tar d > /dev/full", "standard output"},
                     {"mvtar -xvf a.tar -C out > /dev/full", "standard output"},
                     {"mvtar -xOf a.tar d/f > /dev/full", "standard output"},
                     {"mvtar -xOf a.tgz d/f > /dev/full", "standard output"}};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.script);
    expectRun(shell(dir, test.script), 2, "", said({test.path + full}));
  }
  for (const char* script : {"mvtar -cf - d", "mvtar -xOf a.tar d/f", "mvtar -xOf a.tgz d/f"}) {
    const CommandResult broken = shell(dir, std::string(script) + " | head -c 100 > some");
    EXPECT_EQ(2, broken.status);
    EXPECT_EQ(said({"standard output: Broken pipe"}), broken.err);
  }
}

TEST(MvtarOutput, FullDisk) {
  ScratchDir dir;
  must(dir, "mkdir d small && head -c 90000 /dev/urandom > d/f && tar -cf a.tar d");
  if (shell(dir, "mount -t tmpfs -o size=64k none small").status != 0)
    GTEST_SKIP() << "mounting is not permitted";
  makeForms(dir);
  for (const char* words : {"-cf small/x d", "-czf small/x d", "-cjf small/x d"}) {
    expectRun(shell(dir, std::string("mvtar ") + words), 2, "", said({"small/x: No space left on device"}));
  }
  must(dir, "rm small/x");
  for (const Form& form : kForms) {
    CommandResult result = mvtar(dir, {"-xvf", std::string("a.") + form.name, "-C", "small"});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("d/\n", result.out);  // what is not complete is not shown as done
    EXPECT_EQ(said({"d/f: No space left on device"}),
              result.err.replace(0, result.err.find("d/f"), "mvtar: "));
    EXPECT_EQ(2, shell(dir, std::string("mvtar -xOf a.") + form.name + " > small/o").status);
    must(dir, "rm -r small/*");
  }
  must(dir, "umount small");
}

TEST(MvtarOutput, ClosedStandardStreams) {
  ScratchDir dir;
  must(dir, "mkdir d && touch d/f");
  for (const char* script :
       {"mvtar -cvf a d >&-", "mvtar -cvf a d none 2>&-", "mvtar -cvf a d none >&- 2>&- <&-"}) {
    EXPECT_EQ(2, shell(dir, script).status);
    expectRun(mvtar(dir, {"-tf", "a"}), 0, "d/\nd/f\n", "");  // nothing went into the archive
  }
  EXPECT_EQ(2, shell(dir, "mvtar -tf - <&-").status);
  EXPECT_EQ(2, shell(dir, "mvtar -cf - d >&-").status);
}

TEST(MvtarPipes, ToAndFromOtherTars) {
  ScratchDir dir;
  must(dir,
       "mkdir -p d/sub && seq 100000 > d/f && echo text > d/sub/g && touch -d @1234567890 "
       "d/f d/sub/g && mkdir out");
  const auto tree = treeOf(dir / "d");
  for (const Form& form : kForms) {
    for (const char* theirs : {"tar -cf - d", "tar -b1 -cf - d", "tar -b2048 --format=pax -cf - d",
                               "bsdtar -cf - d", "mvtar -cf - d"}) {
      // A reader that left early would end the writer; a trickle must do as well.
      for (const char* by : {"cat", "dd obs=700 status=none"}) {
        const std::string script =
            std::string(theirs) + " | " + form.filter + " | " + by + " | mvtar -x -f - -C out";
        if (form.name == std::string("tar") && has(theirs, "2048")) continue;
        expectRun(shell(dir, script), 0, "", "");
        EXPECT_EQ(tree, treeOf(dir / "out/d")) << script;
        EXPECT_EQ(1234567890, mtimeOf(dir / "out/d/sub/g"));
        must(dir, "rm -r out/d");
      }
    }
  }
  for (const char* script : {"mvtar -cf - d | tar -x -C out", "mvtar -czf - d | tar -xz -C out",
                             "mvtar -cjf - d | bsdtar -x -C out",
                             "mvtar -cf - --format=pax d | python3 -c 'import sys,tarfile; "
                             "tarfile.open(fileobj=sys.stdin.buffer,mode=\"r|\").extractall(\"out\")'"}) {
    expectRun(shell(dir, script), 0, "", "");
    EXPECT_EQ(tree, treeOf(dir / "out/d")) << script;
    must(dir, "rm -r out/d");
  }
}

// ---- Archives that are none, damaged, or end too early

TEST(MvtarDamage, WhatIsNoArchive) {
  ScratchDir dir;
  must(dir,
       "mkdir dir && : > empty && echo 'some text' > text && head -c 5000 /dev/zero | tr '\\0' x > long && "
       "gzip -nc text > text.gz && "
       "head -c 20 /dev/zero > zeros && printf 'BZh' > bz && printf '\\037\\213' > gz && printf '\\037\\235' "
       "> Z");
  for (const char* name :
       {"empty", "text", "long", "text.gz", "zeros", "bz", "gz", "Z", "none", "dir", "text/x"}) {
    for (const Words& mode : kReadModes) {
      const CommandResult result = mvtar(dir, reading(mode, name));
      EXPECT_EQ(2, result.status) << name;
      EXPECT_EQ(0u, result.err.find("mvtar: " + std::string(name) + ": ")) << result.err;
      EXPECT_EQ(2u, linesOf(result.err).size()) << result.err;
    }
  }
  expectRun(mvtar(dir, {"-tf", "dir"}), 2, "", said({"dir: Is a directory"}));
  expectRun(mvtar(dir, {"-tf", "none"}), 2, "", said({"none: No such file or directory"}));
}

TEST(MvtarDamage, CutAnywhere) {
  ScratchDir dir;
  must(dir, "mkdir x && echo text > x/f && echo more > x/g && tar -cf - --sort=name -b1 x > a.tar");
  makeForms(dir);
  for (const Form& form : kForms) {
    const std::string whole = readFile(dir / (std::string("a.") + form.name));
    const bool plain = whole.size() > 3000;
    // One end block is the mark; the other may be missing, and what pads it.
    const size_t end = plain ? whole.size() - 512 : whole.size();
    for (size_t n = 0; n < end; n += plain ? 53u : form.name == std::string("Z") ? 3u : 1u) {
      const Words& mode = kReadModes[n & 3];
      const CommandResult result = mvtar(dir, reading(mode, "-"), whole.substr(0, n));
      if (form.name == std::string("Z") && result.status == 0) {
        // The end mark may be complete before the last codes are; there is nothing else to tell.
        EXPECT_GT(n + 20, end);
        continue;
      }
      EXPECT_EQ(2, result.status) << form.name << n << mode[0];
      EXPECT_TRUE(has(result.err, kClosing) && result.err.rfind("mvtar: ", 0) == 0) << n << result.err;
    }
    expectRun(mvtar(dir, {"--verify", "-f", "-"}, whole), 0, "-: whole, 3 members\n", "");
    if (plain || form.name == std::string("Z")) continue;
    // Compressed with a checksum: no byte can be changed unnoticed, but for those of a gzip header that mean
    // nothing.
    for (size_t at = form.name == std::string("gz") ? 10 : 0; at < whole.size(); ++at) {
      std::string bad = whole;
      bad[at] = static_cast<char>(~bad[at]);
      EXPECT_EQ(2, mvtar(dir, {"--verify", "-f", "-"}, bad).status) << form.name << at;
    }
  }
}

TEST(MvtarDamage, WhatCameBeforeIsDone) {
  ScratchDir dir;
  must(dir,
       "mkdir x && echo text > x/f && head -c 5000 /dev/urandom > x/g && tar -cf a.tar --sort=name -b1 x");
  for (const Form& form : kForms) {
    must(dir, "rm -rf out && head -c 4000 a.tar | " + std::string(form.filter) + " > cut");
    const CommandResult result = mvtar(dir, {"-xvf", "cut", "-C", "out", "--totals"});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("x/\nx/f\n", result.out);
    EXPECT_TRUE(has(result.err, "mvtar: 2 members, 5 bytes\n")) << result.err;
    EXPECT_EQ("text\n", readFile(dir / "out/x/f"));
  }
}

// ---- What cannot be extracted as it is

TEST(MvtarExtract, LinksSpecialFilesAndBackSlashesAreNamed) {
  ScratchDir dir;
  must(
      dir,
      R"(mkdir d && echo data > d/1 && ln d/1 d/2hard && ln -s 1 d/3link && mkfifo d/4pipe && truncate -s 1M d/5sparse &&
               echo x >> d/5sparse && touch d/$'6b\\s' && tar -S -cf a.tar --sort=name d && (mknod d/7dev c 1 3 && tar -rf a.tar d/7dev ||
               true) && tar --format=pax -S -cf p.tar d/5sparse)");
  makeForms(dir);
  Words facts = {"d/2hard: a hard link is kept as an ordinary file",
                 "d/3link: a symbolic link is kept as an ordinary file",
                 "d/4pipe: a FIFO is kept as an ordinary file",
                 "d/5sparse: a sparse file is kept as its stored pieces",
                 "d/6b\\\\s: a back slash cannot be kept; it becomes a slash"};
  if (exists(dir / "d/7dev")) facts.push_back("d/7dev: a device is kept as an ordinary file");
  for (const Form& form : kForms) {
    const std::string archive = std::string("a.") + form.name, out = std::string("out") + form.name;
    expectRun(mvtar(dir, {"-xf", archive, "-C", out}), 2, "", said(facts));
    expectRun(mvtar(dir, {"-xf", archive, "-C", out, "d/1"}), 0, "", "");
    EXPECT_EQ("file ", treeOf(dir / out)["d/6b/s"]);
    EXPECT_EQ("file ", treeOf(dir / out)["d/3link"]);
    EXPECT_EQ(0, mvtar(dir, {"-tf", archive}).status);
  }
  EXPECT_EQ(2, mvtar(dir, {"-xf", "p.tar", "-C", "out"}).status);
}

TEST(MvtarExtract, RecordsThatOnlyDescribeAreNoMembers) {
  ScratchDir dir;
  must(dir,
       "git init -q r && cd r && echo text > f && git add f && git -c user.name=n -c user.email=e commit -qm "
       "m && git archive HEAD > ../a.tar");
  expectRun(mvtar(dir, {"-tf", "a.tar"}), 0, "f\n", "");
  expectRun(mvtar(dir, {"-xvf", "a.tar", "-C", "out"}), 0, "f\n", "");
  EXPECT_EQ((std::map<std::string, std::string>{{"f", "file text\n"}}), treeOf(dir / "out"));
}

// ---- Escapes. The target is t/in; beside it everything must stay as it is.

std::string snapshot(const ScratchDir& dir) {
  return shell(dir,
               "find t -path t/in -prune -o -printf '%p %y %m %U %G %T@ %l\\n' | grep -v '^t d' | sort; "
               "cat t/out/* t/*.txt")
      .out;
}

void prepareOutside(const ScratchDir& dir) {
  must(dir,
       "mkdir -p t/in t/out && echo outside > t/out/victim && echo beside > t/beside.txt && touch -d "
       "@1000000000 t/out/* t/out t/*.txt");
}

std::string hostile(const Words& names) {
  ArchiveBuilder archive;
  for (const std::string& name : names) {
    archive.add({name, name.back() == '/' ? "" : "evil", name.back() == '/' ? '5' : '0'});
  }
  return archive.bytes(20);
}

struct EscapeCase {
  const char* name;
  const char* before;  // what lies in the target
  Words members;       // an "ok" is added at the end
  Words refused;
  std::map<std::string, std::string> inside;
  Words notices = {};
};

class MvtarEscape : public ::testing::TestWithParam<EscapeCase> {};

TEST_P(MvtarEscape, NothingOutsideIsTouched) {
  const EscapeCase& test = GetParam();
  for (const Form& form : kForms) {
    ScratchDir dir;
    prepareOutside(dir);
    must(dir, std::string("cd t/in && ") + test.before);
    const std::string before = snapshot(dir);
    Words members = test.members;
    members.push_back("ok");
    writeFile(dir / "a.tar", hostile(members));
    makeForms(dir);
    std::string err;
    for (const std::string& fact : test.notices) err += "mvtar: " + fact + "\n";
    for (const std::string& name : test.refused)
      err += "mvtar: " + name + ": refused: its path leaves the target\n";
    const CommandResult result = mvtar(dir, {"-xf", std::string("a.") + form.name, "-C", "t/in"});
    expectRun(result, test.refused.empty() ? 0 : 2, "", err + (test.refused.empty() ? "" : kClosing));
    EXPECT_EQ(before, snapshot(dir)) << form.name;
    auto inside = treeOf(dir / "t/in");
    EXPECT_EQ("file evil", inside["ok"]);  // the rest went on
    for (const auto& [path, what] : test.inside) EXPECT_EQ(what, inside[path]) << path;
  }
}

const EscapeCase kEscapes[] = {
    {"UpAtTheFront",
     "true",
     {"../evil", "../out/victim", "../", "../new/"},
     {"../evil", "../out/victim", "../", "../new/"},
     {}},
    {"UpInTheMiddle",
     "mkdir a",
     {"a/../../evil", "a/../b", "./../x/"},
     {"a/../../evil", "a/../b", "./../x/"},
     {{"a", "dir"}}},
    {"UpAtTheEnd", "true", {"a/..", "b/../", ".."}, {"a/..", "b/../", ".."}, {}},
    {"UpByBackSlash", "true", {"a/..x", "..y"}, {}, {{"a/..x", "file evil"}, {"..y", "file evil"}}},
    {"Absolute",
     "true",
     {"/etc/evil", "//x//y", "/"},
     {},
     {{"etc/evil", "file evil"}, {"x/y", "file evil"}},
     {"/etc/evil: leading slashes are left off"}},
    {"AbsoluteUp", "true", {"/../evil"}, {"../evil"}, {}, {"/../evil: leading slashes are left off"}},
    {"LinkAsLeaf",
     "ln -s ../out/victim l && ln -s ../new m",
     {"l", "m"},
     {},
     {{"l", "file evil"}, {"m", "file evil"}}},
    {"LinkToDirectoryAsLeaf", "ln -s ../out l", {"l"}, {}, {{"l", "file evil"}}},
    {"LinkAsDirectory", "ln -s ../out l", {"l/", "l/victim"}, {}, {{"l", "dir"}, {"l/victim", "file evil"}}},
    {"LinkAsParent",
     "ln -s ../out l && ln -s $PWD/../out m && ln -s / n",
     {"l/victim", "m/new", "n/tmp/x", "l/d/"},
     {"l/victim", "m/new", "n/tmp/x", "l/d/"},
     {{"l", "link ../out"}}},
    {"LinkAsGrandparent", "mkdir a && ln -s ../../out a/l", {"a/l/b/c/f"}, {"a/l/b/c/f"}, {}},
    {"ChainOfLinks", "ln -s b a && ln -s c b && ln -s ../out c", {"a/f", "b/f"}, {"a/f", "b/f"}, {}},
    {"LoopOfLinks", "ln -s b a && ln -s a b", {"a/f"}, {"a/f"}, {}},
    {"DanglingParent", "ln -s ../nowhere a", {"a/f"}, {"a/f"}, {}},
    {"LinkThatStaysInside",
     "mkdir d && ln -s d a",
     {"a/", "a/f"},
     {},
     {{"d/f", "file evil"}, {"a", "link d"}}},
    {"OtherNameOfAFile", "ln ../out/victim h", {"h"}, {}, {{"h", "file evil"}}},
    {"FifoInTheWay", "mkfifo p && touch q", {"p", "q/f"}, {"q/f"}, {{"p", "file evil"}}},
    {"FullDirectoryInTheWay", "mkdir -p d/x e", {"d", "e"}, {"d"}, {{"d/x", "dir"}, {"e", "file evil"}}},
    {"FileWhereADirectoryGoes", "touch d", {"d/"}, {}, {{"d", "dir"}}},
};
INSTANTIATE_TEST_SUITE_P(, MvtarEscape, ::testing::ValuesIn(kEscapes),
                         [](const auto& row) { return row.param.name; });

TEST(MvtarTarget, AllowedWithP) {
  ScratchDir dir;
  prepareOutside(dir);
  writeFile(dir / "a.tar", hostile({"../out/new", dir / "t/abs", "../in/x"}));
  makeForms(dir);
  for (const Form& form : kForms) {
    expectRun(mvtar(dir, {"-xPf", std::string("a.") + form.name, "-C", "t/in"}), 0, "", "");
    for (const char* made : {"t/out/new", "t/abs", "t/in/x"}) EXPECT_EQ("evil", readFile(dir / made));
    must(dir, "rm t/out/new t/abs t/in/x");
  }
  // Nothing is judged by the joined path: a target beside or above is no escape.
  expectRun(shell(dir, "cd t/in && mvtar -xf ../../a.tar ../in/x -C ../../new"), 2, "",
            said({"../in/x: refused: its path leaves the target"}));
  writeFile(dir / "b.tar", hostile({"f"}));
  expectRun(shell(dir, "cd t/in && mvtar -xf ../../b.tar -C ../../new/../other"), 0, "", "");
  EXPECT_EQ("evil", readFile(dir / "other/f"));
}

TEST(MvtarTarget, TheArchiveItselfIsNotReplaced) {
  ScratchDir dir;
  must(dir, "mkdir t");
  const std::string bytes = hostile({"a", "f"});
  for (const Form& form : kForms) {
    writeFile(dir / "plain", bytes);
    must(dir, std::string(form.filter) + " < plain > t/a; true");
    const std::string archive = readFile(dir / "t/a");
    expectRun(mvtar(dir, {"-xf", "t/a", "-C", "t"}), 2, "", said({"a: refused: its path leaves the target"}));
    EXPECT_EQ(archive, readFile(dir / "t/a"));
    EXPECT_EQ("evil", readFile(dir / "t/f"));
  }
}

TEST(MvtarTarget, LinkPlantedBetweenTwoMembers) {
  ScratchDir dir;
  prepareOutside(dir);
  const std::string before = snapshot(dir);
  const std::string bytes = hostile({"d/one", "d/two", "d/victim", "e/x", "last"});
  Running command(dir, {"-xf", "-", "-C", "t/in"});
  command.feed(bytes.substr(0, 1024));
  ASSERT_TRUE(command.waitsForInput());
  must(dir,
       "mv t/in/d t/in/was && ln -s ../out t/in/d && ln -s ../out t/in/e && ln -s ../out/victim t/in/last");
  command.feed(bytes.substr(1024));
  command.closeInput();
  EXPECT_EQ(2, command.end());
  EXPECT_TRUE(has(command.err, "mvtar: e/x: refused: its path leaves the target\n")) << command.err;
  EXPECT_EQ(before, snapshot(dir));
  EXPECT_EQ("file evil", treeOf(dir / "t/in")["last"]);
}

TEST(MvtarTarget, LinksSwappedByAnotherProcess) {
  ScratchDir dir;
  prepareOutside(dir);
  must(dir, "mkdir t/in/d t/in/d/sub && ln -s ../out t/in/l");
  const std::string before = snapshot(dir);
  Words names;
  for (int i = 0; i < 500; ++i) {
    // Another parent each time, so that each is looked up anew.
    names.push_back((i % 2 ? "d/" : "d/sub/") + std::to_string(i));
    names.push_back(i % 2 ? "d/victim" : "d/new/");
  }
  writeFile(dir / "a.tar", hostile(names));
  std::atomic<bool> done{false};
  std::thread swapper([&] {
    const std::string d = dir / "t/in/d", l = dir / "t/in/l";
    while (!done) renameat2(AT_FDCWD, d.c_str(), AT_FDCWD, l.c_str(), RENAME_EXCHANGE);
  });
  const CommandResult result = mvtar(dir, {"-xf", "a.tar", "-C", "t/in"});
  done = true;
  swapper.join();
  EXPECT_TRUE(result.status == 0 || result.status == 2) << result.status;
  EXPECT_EQ(before, snapshot(dir));
  EXPECT_EQ((std::map<std::string, std::string>{{"victim", "file outside\n"}}), treeOf(dir / "t/out"));
}

// ---- Interrupts

TEST(MvtarInterrupt, WhileWaitingForInput) {
  ScratchDir dir;
  must(dir,
       "mkdir x && head -c 3000 /dev/urandom > x/f && touch x/g && tar -cf a.tar --sort=name x && mkfifo "
       "fifo");
  makeForms(dir);
  int turn = 0;
  for (const Form& form : kForms) {
    const std::string bytes = readFile(dir / (std::string("a.") + form.name));
    for (const size_t n : {0u, 1u, 5u, 300u, 512u, 700u, 1024u, 1025u, 4500u, 5120u}) {
      if (n > bytes.size()) break;
      for (const Words& mode : kReadModes) {
        if (mode[0] == "-xO" && n > 4000) continue;  // has ended by then
        const int signal = ++turn % 2 ? SIGINT : SIGTERM;
        Running command(dir, reading(mode, "-"));
        command.feed(bytes.substr(0, n));
        ASSERT_TRUE(command.waitsForInput());
        command.kill(signal);
        EXPECT_EQ(128 + signal, command.end()) << form.name << n << mode[0];
        EXPECT_FALSE(command.endedBySignal()) << form.name << n << mode[0];
        EXPECT_EQ("mvtar: -: interrupted; the archive was not read to its end\n", command.err);
      }
    }
  }
  for (const Words& mode : kReadModes) {
    Running command(dir, reading(mode, "fifo"));  // nobody opens its other end
    ASSERT_TRUE(command.waitsForInput());
    command.kill(SIGTERM);
    EXPECT_EQ(143, command.end());
    EXPECT_EQ("mvtar: fifo: interrupted; the archive was not read to its end\n", command.err);
  }
  Running package(dir, {"--deb", "-f", "p.deb", "fifo", "a.gz"});
  ASSERT_TRUE(package.waitsForInput());
  package.kill(SIGINT);
  EXPECT_EQ(130, package.end());
  EXPECT_EQ("mvtar: p.deb: interrupted; the package is incomplete\n", package.err);
}

TEST(MvtarInterrupt, WhileWriting) {
  ScratchDir dir;
  must(dir,
       "mkdir x && head -c 20M /dev/urandom > x/f && truncate -s 100G huge && tar -cf a.tar x && gzip -1 < "
       "a.tar > a.tgz");
  int turn = 0;
  for (const Words& words : std::vector<Words>{
           {"-cf", "-", "x"}, {"-czf", "-", "x"}, {"-cjf", "-", "x"}, {"-xOf", "a.tar"}, {"-xOf", "a.tgz"}}) {
    const int signal = ++turn % 2 ? SIGINT : SIGTERM;
    Running command(dir, words);
    ASSERT_TRUE(command.waitsForReader());
    command.kill(signal);
    EXPECT_EQ(128 + signal, command.end());
    EXPECT_FALSE(command.endedBySignal());
    const bool creates = words[0][1] == 'c';
    EXPECT_EQ("mvtar: " + words[1] + ": interrupted; " +
                  (creates ? "the archive is incomplete\n" : "the archive was not read to its end\n"),
              command.err);
  }
  for (const char* archive : {"/dev/null", "b.tar.gz", "b.tbz"}) {
    Running command(dir, {"-cvf", archive, "x/f", "huge", "--progress=always"});
    ASSERT_TRUE(command.says("\r[")) << archive;
    command.kill(SIGINT);
    EXPECT_EQ(130, command.end());
    EXPECT_TRUE(
        has(command.err, std::string("mvtar: ") + archive + ": interrupted; the archive is incomplete\n"));
  }
  // Ignored by whoever started it in the background, it stays ignored.
  Running ignoring(dir, {"-tf", "-"}, Running::Streams::Pipes, {"env", "--ignore-signal=INT"});
  ASSERT_TRUE(ignoring.waitsForInput());
  ignoring.kill(SIGINT);
  ignoring.feed(readFile(dir / "a.tar").substr(0, 512) + std::string(1024, '\0'));
  ignoring.closeInput();
  EXPECT_EQ(0, ignoring.end());
  EXPECT_EQ("x/\n", ignoring.out);
}

}  // namespace
}  // namespace morvane::testing
#endif
