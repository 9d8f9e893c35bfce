// The command mvtar when something is wrong: sources and disks that fail, damaged and hostile archives, links
// in the way, pipes that end, interrupts. Nothing is lost without a word, nothing outside the target is
// touched, and nothing hangs.
#ifdef MVTAR
#include "MvtarSupport.h"

namespace morvane::testing {
namespace {

// What reads an archive, for the archive's name to be added.
const Words kReading = {"-tf ", "-x -C out -f ", "--verify -f ", "-t --xml -f ", "-xO x/* -f "};

// ---- Sources that cannot be archived as they are

// Run by a user who is refused what has no permissions. The copy of mvtar lies where that user may go.
CommandResult asOrdinaryUser(const ScratchDir& dir, const std::string& words) {
  must(dir, "chmod 711 . && cp " MVTAR " mv && chmod 755 mv");
  const std::string user = geteuid() == 0 ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "";
  return shell(dir, user + "./mv " + words);
}

TEST(MvtarSources, UnreadableOnesAreNamedAndLeftOut) {
  ScratchDir dir;
  must(dir,
       "mkdir -p d/closed d/shut ro out && touch d/a d/closed/x d/secret d/shut/x d/z single && "
       "chmod 311 d/closed && chmod 0 d/shut d/secret single && chmod 777 out && chmod 555 ro");
  if (asOrdinaryUser(dir, "--version").status != 0) GTEST_SKIP() << "no other user here";
  const std::string denied = ": Permission denied", rest = "d/\nd/a\nd/z\n";
  expect(asOrdinaryUser(dir, "-cvf out/a d single d/shut --totals"), 2, rest,
         "single" + denied + "\nd/shut" + denied + "\nd/closed" + denied + "\nd/secret" + denied +
             "\n3 members, 0 bytes");
  expectMvtar(dir, "-tf out/a", 0, rest);
  // What is excluded need not be readable.
  expect(asOrdinaryUser(dir, "-cvf out/a d d/shut --exclude=closed --exclude=shut --exclude=secret"), 0, rest,
         "");
  expect(asOrdinaryUser(dir, "-xf out/a -C ro/new"), 2, "", "ro/new" + denied);
}

TEST(MvtarSources, SocketsAreNamedAndLeftOut) {
  ScratchDir dir;
  must(dir,
       "mkdir d && echo data > d/f && ln d/f d/hard && ln -s f d/link && ln -s . d/linkdir && mkfifo d/pipe "
       "&& "
       "python3 -c 'import socket; socket.socket(socket.AF_UNIX).bind(\"d/sock\")'");
  expectMvtar(dir, "-cf a.tar d /dev/null", 0, "",
              "/dev/null: leading '/' is left off\nd/sock: a socket is left out");
  expectMvtar(dir, "-tf a.tar", 0, "d/\ndev/null\nd/f\nd/hard\nd/link\nd/linkdir\nd/pipe\n");
}

TEST(MvtarSources, AnArchiveIsNotPutIntoItself) {
  ScratchDir dir;
  must(dir, "mkdir d && head -c 100000 /dev/urandom > d/f && touch d/z && ln -s d/a link");
  for (const char* script : {"mvtar -cf - d > d/a", "mvtar -czf d/a d d/a", "mvtar -cf link d"}) {
    expect(shell(dir, script), 0, "", "");
    expectMvtar(dir, "-tf d/a", 0, "d/\nd/f\nd/z\n");
  }
}

TEST(MvtarSources, SizesThatChangeAndFilesThatVanish) {
  ScratchDir dir;
  const std::string contents = noise(3000000, 1);
  for (const char* change : {"truncate -s 1000000 d/f", "echo more >> d/f"}) {
    SCOPED_TRACE(change);
    must(dir, "mkdir -p d && touch d/last");
    writeFile(dir / "d/f", contents);
    Running command(dir, "exec mvtar -cf - d");
    ASSERT_TRUE(command.waitsForReader());
    must(dir, change + std::string("; rm d/last"));
    EXPECT_EQ(2, command.end());
    EXPECT_EQ(said("d/f: its size changed while it was archived\nd/last: No such file or directory", 2),
              command.err);
    expectMvtar(dir, "-xvf - -C out", 0, "d/\nd/f\n", "", command.out);
    EXPECT_EQ(contents.size(), readFile(dir / "out/d/f").size());
  }
}

// ---- Disks and pipes that take no more

TEST(MvtarOutput, FullDevicesAndPipesThatEnd) {
  ScratchDir dir;
  must(
      dir,
      "mkdir d && head -c 300000 /dev/urandom > d/f && touch d/g && mvtar -czf a.tgz d && mvtar -cf a.tar d");
  const std::string full = ": No space left on device";
  // Large ones fail in their midst, small ones when they are closed.
  for (const char* words : {"-cf /dev/full d", "-cf /dev/full d/g", "-czf /dev/full d/g", "-cjf /dev/full d"})
    expectMvtar(dir, words, 2, "", "/dev/full" + full);
  for (const std::string words :
       {"-cf - d", "-czf - d/g", "-tf a.tar", "-t --xml -f a.tar", "--verify -f a.tgz", "--help",
        "-cvf b.tar d", "-xvf a.tar -C out", "-xOf a.tar d/f", "-xOf a.tgz d/f"}) {
    expect(shell(dir, "mvtar " + words + " > /dev/full"), 2, "", "standard output" + full);
  }
  for (const char* words : {"-cf - d", "-xOf a.tgz d/f"}) {
    expect(shell(dir, std::string("mvtar ") + words + " | head -c 100 > some"), 2, "",
           "standard output: Broken pipe");
  }
}

TEST(MvtarOutput, FullDisk) {
  ScratchDir dir;
  must(dir, "mkdir d small && head -c 90000 /dev/urandom > d/f && tar -cf a.tar d");
  makeForms(dir);
  if (shell(dir, "mount -t tmpfs -o size=64k none small").status != 0)
    GTEST_SKIP() << "mounting is not permitted";
  expectMvtar(dir, "-cf small/x d", 2, "", "small/x: No space left on device");
  for (const Form& form : kForms) {
    must(dir, "rm -r small/*");
    // What is not complete is not shown as done.
    expectMvtar(dir, "-xvf a." + form.name + " -C small", 2, "d/\n",
                "small/d/f: No space left on device\na." + form.name + ": the rest was not extracted");
  }
  must(dir, "umount small");
}

// One file that cannot be written, for a reason of its own, is no reason to leave out the next.
TEST(MvtarOutput, AFileThatFailsAlone) {
  ScratchDir dir;
  must(dir, "mkdir d && head -c 90000 /dev/urandom > d/f && echo g > d/g && tar -cf a.tar --sort=name d");
  makeForms(dir);
  for (const Form& form : kForms) {
    const CommandResult result = shell(dir, "ulimit -f 16; exec mvtar -xf a." + form.name + " -C out");
    EXPECT_EQ(said("d/f: File too large", 2), result.err);
    EXPECT_EQ(2, result.status);
    must(dir, "cmp d/g out/d/g; rm -r out");
  }
}

TEST(MvtarOutput, ClosedStandardStreams) {
  ScratchDir dir;
  must(dir, "mkdir d && touch d/f");
  for (const char* script : {"mvtar -cvf a d >&-", "mvtar -cvf a d none >&- 2>&- <&-"}) {
    EXPECT_EQ(2, shell(dir, script).status);
    expectMvtar(dir, "-tf a", 0, "d/\nd/f\n");  // nothing went into the archive
  }
  EXPECT_EQ(2, shell(dir, "mvtar -tf - <&-").status);
  EXPECT_EQ(2, shell(dir, "mvtar -cf - d >&-").status);
}

TEST(MvtarPipes, ToAndFromOtherTars) {
  ScratchDir dir;
  must(dir, "mkdir -p d/sub && seq 50000 > d/f && echo text > d/sub/g && touch -d @1234567890 d/sub/g");
  Words scripts = {"mvtar -cf - d | tar -x -C out", "mvtar -cjf - d | bsdtar -x -C out"};
  // The reader comes late.
  for (const char* how : {"-z", "-I gzip"})
    scripts.push_back(std::string("mkfifo p; (sleep .2; tar -xz -C out < p) & mvtar ") + how +
                      " -cf p d && wait; rm p");
  for (const Form& form : kForms) {
    // A reader that left before the end would end the writer; a trickle must do as well.
    scripts.push_back("tar -b1 -cf - d | " + form.filter + " | mvtar -x -f - -C out");
    scripts.push_back("tar -cf - d | " + form.filter + " | dd obs=700 status=none | mvtar -x -f - -C out");
  }
  for (const std::string& script : scripts) {
    SCOPED_TRACE(script);
    must(dir, "rm -rf out && mkdir out");
    expect(shell(dir, script), 0, "", "");
    EXPECT_EQ(treeOf(dir / "d"), treeOf(dir / "out/d"));
    EXPECT_EQ(1234567890, mtimeOf(dir / "out/d/sub/g"));
  }
}

// ---- Archives that are none, damaged, or end too early

TEST(MvtarDamage, WhatIsNoArchive) {
  ScratchDir dir;
  must(dir, R"(mkdir dir && : > empty && seq 2000 > text && gzip -nk text && printf BZh > bz &&
               printf '\37\235' > Z && xz -k text && printf 'PK\3\4' > zip &&
               printf '!<arch>\ndebian-binary   ' > deb)");
  const std::string longName(300, 'a');
  const std::pair<std::string, std::string> cases[] = {
      {"empty", ""},
      {"text.gz", ""},
      {"bz", ""},
      {"Z", ""},  // each reader has its own reason
      {"none", "No such file or directory"},
      {"dir", "Is a directory"},
      {"text/x", "Not a directory"},
      {longName, "File name too long"},
      {"text", "This is text, no archive."},
      {"text.xz", ""},
      {"zip", "This is a ZIP archive, no tar."},
      {"deb", "This is a Debian package, no tar; its tarballs are members of an ar archive."}};
  for (const auto& [name, reason] : cases) {
    for (const std::string& reading : kReading) {
      const CommandResult result = mvtar(dir, reading + name);
      EXPECT_EQ(2, result.status) << name;
      const std::string line = result.err.substr(0, result.err.find('\n')), start = "mvtar: " + name + ": ";
      EXPECT_TRUE(reason.empty() ? line.find(start) == 0 : line == start + reason) << result.err;
      EXPECT_EQ(line + "\n" + said("", 2), result.err);
    }
  }
}

// ---- What cannot be extracted as it is

TEST(MvtarExtract, WhatCannotBeKeptOrCreatedIsNamed) {
  ScratchDir dir;
  const std::string longest(255, 'x');
  must(dir, R"(mkdir d && echo data > d/1 && ln d/1 d/2hard && ln -s 1 d/3link && mkfifo d/4pipe &&
               truncate -s 1M d/5sparse && echo x >> d/5sparse && touch d/$'6b\\s' last && mkdir )" +
                longest + R"( && tar -S -cf a.tar --sort=name --transform=s/^xx/xxx/ d x* last &&
               tar --format=pax -S -cf p.tar d/5sparse && { ! mknod dev c 1 3 || tar -rf a.tar dev; })");
  makeForms(dir);
  const std::string tooLong = "x" + longest + "/: File name too long";
  const std::string facts = "d/6b\\\\s: a back slash cannot be kept; it becomes a slash\n" + tooLong;
  for (const Form& form : kForms) {
    expectMvtar(dir, "-xf a." + form.name + " -C out", 2, "", facts);
    EXPECT_EQ("file ", treeOf(dir / "out")["d/6b/s"]);
    expectMvtar(dir, "-xvf a." + form.name + " -C out d/1 x* last", 2, "d/1\nlast\n", tooLong);
    must(dir, "rm -r out");
  }
}

// ---- Escapes. The target is t/in; beside it everything must stay as it is.

// Names with a slash at the end are directories; all files hold "evil".
std::string hostile(const std::string& names) {
  ArchiveBuilder archive;
  for (const std::string& name : split(names, ' ')) {
    archive.add(name.back() == '/' ? ArchiveBuilder::Member{name, "", '5'}
                                   : ArchiveBuilder::Member{name, "evil"});
  }
  return archive.bytes(20);
}

// In the cases that follow.
std::string whyRefused(const std::string& name) {
  if (name == "loop/f" || name == "q/f") return "a link or file on its way may not be passed";
  return name == "d" ? "what is in its place may not be removed" : "its path leaves the target";
}

TEST(MvtarTarget, NothingOutsideIsTouched) {
  const struct {
    std::string before, members, refused, inside, notice = {};
  } cases[] = {
      {"mkdir a", "../evil ../out/victim ../new/ a/.. ..", "../evil ../out/victim ../new/ a/.. ..", ""},
      {"true", "/etc/evil //x/y /../evil", "../evil", "etc/evil x/y",
       "/etc/evil: leading slashes are left off\n"},
      {"ln -s ../out/victim l; ln -s ../new m; ln ../out/victim h", "l m h", "", "l m h"},
      {"ln -s ../out l; ln -s / n; ln -s loop loop", "l/victim l/d/ n/tmp/x loop/f",
       "l/victim l/d/ n/tmp/x loop/f", ""},
      {"mkfifo p; touch q; mkdir -p d/x e", "p q/f d e", "q/f d", "p e"}};
  const std::string surroundings =
      "find t -path t/in -prune -o -path t -o -printf '%p %y %m %T@ %l\\n' | sort; cat t/out/*";
  for (const auto& test : cases) {
    for (const Form& form : kForms) {
      SCOPED_TRACE(test.members + " " + form.name);
      ScratchDir dir;
      must(dir, "mkdir -p t/in t/out && echo outside > t/out/victim && cd t/in && " + test.before);
      const std::string before = shell(dir, surroundings).out;
      writeFile(dir / "a.tar", hostile(test.members + " ok"));
      must(dir, form.filter + " < a.tar > a; true");
      std::string facts = test.notice;
      for (const std::string& name : split(test.refused, ' '))
        facts += name.empty() ? "" : name + ": refused: " + whyRefused(name) + "\n";
      expectMvtar(dir, "-xf a -C t/in", test.refused.empty() ? 0 : 2, "", facts);
      EXPECT_EQ(before, shell(dir, surroundings).out);
      for (const std::string& name : split(test.inside + " ok", ' '))  // the rest went on
        EXPECT_EQ(name.empty() ? "" : "file evil", treeOf(dir / "t/in")[name]) << name;
    }
  }
}

TEST(MvtarTarget, MayBeLeftWithP) {
  ScratchDir dir;
  writeFile(dir / "a.tar", hostile("../new " + (dir / "abs") + " file/ file/f last"));
  makeForms(dir);
  for (const Form& form : kForms) {
    // What is in the way is removed there, too, rather than written through.
    must(dir, "chmod -Rf u+rwx in; rm -rf in new abs && mkdir in && touch in/file");
    expectMvtar(dir, "-xP -C in -f a." + form.name, 0);
    must(dir, "cat new abs in/last | grep -qx evilevilevil");
  }
  // Without it nothing is judged by the joined path: a target beside or above is no escape.
  writeFile(dir / "b.tar", hostile("f"));
  expect(shell(dir, "cd in; mvtar -xf ../b.tar -C ../new.d/../other"), 0, "", "");
  EXPECT_EQ("evil", readFile(dir / "other/f"));
}

TEST(MvtarTarget, LinksPlantedBetweenTwoMembers) {
  ScratchDir dir;
  must(dir, "mkdir -p t/in t/out && echo outside > t/out/victim");
  const std::string before = treeOf(dir / "t/out")["victim"],
                    bytes = hostile("d/one d/two d/victim e/x last");
  Running command(dir, "exec mvtar -xf - -C t/in");
  command.feed(bytes.substr(0, 1024));
  ASSERT_TRUE(command.waitsForInput());
  must(dir, "cd t/in && mv d was && ln -s ../out d && ln -s ../out e && ln -s ../out/victim last");
  command.feed(bytes.substr(1024));
  command.closeInput();
  EXPECT_EQ(2, command.end());
  EXPECT_TRUE(has(command.err, "mvtar: e/x: refused: its path leaves the target\n")) << command.err;
  EXPECT_EQ(before, treeOf(dir / "t/out")["victim"]);
  EXPECT_EQ(1u, treeOf(dir / "t/out").size());
  EXPECT_EQ("file evil", treeOf(dir / "t/in")["last"]);
}

// ---- Interrupts

// Interrupts a run that waits, by one signal and the other in turn. A file that is left half done is named.
void expectInterrupted(Running& command, const std::string& fact, const fs::path& part = {}) {
  static int turn = 0;
  const int signal = ++turn % 2 ? SIGINT : SIGTERM;
  command.kill(signal);
  EXPECT_EQ(128 + signal, command.end());
  // There may be a progress bar before.
  const std::string named = fs::exists(part) ? "mvtar: x/f: only a part of it is there\n" : "";
  EXPECT_EQ(named + said(fact, 0),
            command.err.substr(std::min(command.err.find("mvtar:"), command.err.size())));
}

const char kReadInPart[] = ": interrupted; the archive was not read to its end";
const char kIncomplete[] = ": interrupted; the archive is incomplete";

TEST(MvtarInterrupt, WhileWaitingForInput) {
  ScratchDir dir;
  must(dir,
       "mkdir x && head -c 3000 /dev/urandom > x/f && touch x/g && tar -cf a.tar --sort=name x && mkfifo "
       "fifo");
  makeForms(dir);
  for (const std::string& reading : kReading) {
    for (const Form& form : kForms) {
      for (const size_t n : {0u, 1u, 300u, 512u, 1025u}) {
        SCOPED_TRACE(reading + form.name + " " + std::to_string(n));
        fs::remove_all(dir / "out");
        Running command(dir, "exec mvtar " + reading + "-");
        command.feed(readFile(dir / ("a." + form.name)).substr(0, n));
        ASSERT_TRUE(command.waitsForInput());
        expectInterrupted(command, std::string("-") + kReadInPart, dir / "out/x/f");
      }
    }
  }
  // Nobody opens their other end.
  Running opening(dir, "exec mvtar -tf fifo"), package(dir, "exec mvtar --deb -f p.deb fifo a.gz");
  Running list(dir, "exec mvtar -cf l.tar -T fifo");
  ASSERT_TRUE(opening.waitsForInput() && package.waitsForInput() && list.waitsForInput());
  expectInterrupted(opening, std::string("fifo") + kReadInPart);
  expectInterrupted(package, "p.deb: interrupted; the package may be incomplete");
  expectInterrupted(list, "l.tar: interrupted; nothing was done");
  Running writing(dir, "exec mvtar -cf fifo x");
  ASSERT_TRUE(writing.waitsForInput());
  expectInterrupted(writing, "fifo: interrupted; nothing was archived");
}

TEST(MvtarInterrupt, WhileWriting) {
  ScratchDir dir;
  must(dir,
       "mkdir x && head -c 20M /dev/urandom > x/f && truncate -s 100G huge && mvtar -cf a.tar x && "
       "gzip -1 < a.tar > a.tgz && head -c 70000 x/f > s && mvtar -cf small.tar s && head -c 68000 small.tar "
       "> cut.tar");
  for (const char* line : {"-c -f - x", "-cz -f - x", "-cj -f - x", "-xO -f a.tar", "-xO -f a.tgz",
                           "-xO -f small.tar", "-xO -f cut.tar"}) {
    Running command(dir, std::string("exec mvtar ") + line);
    ASSERT_TRUE(command.waitsForReader()) << line;
    expectInterrupted(command, split(line, ' ')[2] + (line[1] == 'c' ? kIncomplete : kReadInPart));
  }
  for (const std::string archive : {"/dev/null", "b.tar.gz", "b.tbz"}) {
    Running command(dir, "exec mvtar -c huge --options=Store=off --progress=always -f " + archive);
    ASSERT_TRUE(command.says("\r[")) << archive;
    expectInterrupted(command, archive + kIncomplete);
  }
}

TEST(MvtarInterrupt, StaysIgnoredWhereItWas) {
  ScratchDir dir;
  Running command(dir, "trap '' INT; exec mvtar -tf -");
  ASSERT_TRUE(command.waitsForInput());
  command.kill(SIGINT);
  command.feed(hostile("f"));
  command.closeInput();
  EXPECT_EQ(0, command.end());
  EXPECT_EQ("f\n", command.out);
}

}  // namespace
}  // namespace morvane::testing
#endif
