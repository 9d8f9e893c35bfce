// The command mvtar when something is wrong: sources and disks that fail, damaged and hostile archives, links
// in the way, pipes that end, interrupts. Nothing is lost without a word, nothing outside the target is
// touched, and nothing hangs.
#ifdef MVTAR
#include <atomic>
#include <thread>

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
       "mkdir -p d/closed d/shut d/z ro out && touch d/a d/closed/x d/secret d/shut/x d/z/f single && "
       "chmod 711 d/closed && chmod 0 d/shut d/secret single && chmod 777 out");
  if (asOrdinaryUser(dir, "--version").status != 0) GTEST_SKIP() << "no other user here";
  const std::string denied = ": Permission denied";
  for (const char* words : {"", " -z", " -j", " --format=pax"}) {
    const CommandResult result =
        asOrdinaryUser(dir, std::string("-cvf out/a d single d/shut --totals") + words);
    expect(result, 2, "d/\nd/a\nd/z/\nd/z/f\n",
           "single" + denied + "\nd/shut" + denied + "\nd/closed" + denied + "\nd/secret" + denied +
               "\n4 members, 0 bytes");
    expectMvtar(dir, "-tf out/a", 0, result.out);
  }
  EXPECT_EQ(2, asOrdinaryUser(dir, "-cf out/a d single d/shut --progress=always").status);
  // What is excluded need not be readable.
  expect(asOrdinaryUser(dir, "-cf out/a d d/shut --exclude=closed --exclude=shut --exclude=secret"), 0, "",
         "");
  expectMvtar(dir, "-tf out/a", 0, "d/\nd/a\nd/z/\nd/z/f\n");
  for (const char* target : {"ro", "ro/new"}) {  // nor where nothing may be written
    const CommandResult result = asOrdinaryUser(dir, std::string("-xf out/a -C ") + target);
    EXPECT_EQ(2, result.status);
    EXPECT_TRUE(has(result.err, denied)) << result.err;
  }
}

TEST(MvtarSources, LinksAndSpecialFilesAreNamed) {
  ScratchDir dir;
  must(dir,
       "mkdir d && echo data > d/f && ln d/f d/hard && ln -s f d/link && ln -s . d/linkdir && mkfifo d/pipe "
       "&& "
       "python3 -c 'import socket; socket.socket(socket.AF_UNIX).bind(\"d/sock\")'");
  expectMvtar(dir, "-cf a.tar d /dev/null", 2, "",
              "/dev/null: leading '/' is left off\n/dev/null: a device is kept as an empty file\n"
              "d/link: a symbolic link is not kept as one\nd/linkdir: a symbolic link is not kept as one\n"
              "d/pipe: a FIFO is kept as an empty file\nd/sock: a socket is kept as an empty file");
  expectMvtar(dir, "-tf a.tar", 0, "d/\ndev/null\nd/f\nd/hard\nd/link\nd/linkdir/\nd/pipe\nd/sock\n");
}

TEST(MvtarSources, AnArchiveIsNotPutIntoItself) {
  ScratchDir dir;
  must(dir, "mkdir d && head -c 100000 /dev/urandom > d/f && touch d/z && ln -s d/a link");
  for (const char* script : {"mvtar -cf d/a d", "mvtar -czf d/a d", "mvtar -cf - d > d/a", "mvtar -cf link d",
                             "cd d; mvtar -cf a . --prefix=d", "mvtar -cf d/a d d/a"}) {
    expect(shell(dir, script), 0, "", "");
    expectMvtar(dir, "-tf d/a", 0, "d/\nd/f\nd/z\n");
  }
}

TEST(MvtarSources, SizesThatChangeAndFilesThatVanish) {
  ScratchDir dir;
  const std::string contents = noise(3000000, 1);
  struct {
    const char *change, *words, *names, *facts;
  } const cases[] = {
      {"true", "", "d/\nd/f\nd/last\n", ""},
      {"truncate -s 1000000 d/f", "", "d/\nd/f\nd/last\n", "d/f: its size changed while it was archived"},
      {"echo more >> d/f", "", "d/\nd/f\nd/last\n", "d/f: its size changed while it was archived"},
      {"truncate -s 0 d/f", " -z", "d/\nd/f\nd/last\n", "d/f: its size changed while it was archived"},
      {"rm d/last", "", "d/\nd/f\n", "d/last: No such file or directory"}};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.change);
    must(dir, "mkdir -p d && touch d/last");
    writeFile(dir / "d/f", contents);
    Running command(dir, std::string("-cf - d") + test.words);
    ASSERT_TRUE(command.waitsForReader());
    must(dir, test.change);
    const int status = command.end();
    EXPECT_EQ(*test.facts ? 2 : 0, status);
    EXPECT_EQ(said(test.facts, status), command.err);
    writeFile(dir / "a", command.out);
    expectMvtar(dir, "-xvf a -C out", 0, test.names);
    EXPECT_EQ(contents.size(), readFile(dir / "out/d/f").size());
  }
  // One that states more than it holds.
  const std::string odd = "/sys/kernel/mm/transparent_hugepage/enabled";
  EXPECT_EQ(exists(odd) ? "a: whole, 1 members\n" : "",
            shell(dir, "mvtar -cf a " + odd + "; [ $? = 2 ] && mvtar --verify -f a").out);
}

// ---- Disks and pipes that take no more

TEST(MvtarOutput, FullDevicesAndPipesThatEnd) {
  ScratchDir dir;
  must(dir,
       "mkdir d && head -c 300000 /dev/urandom > d/f && touch d/g && mvtar -czf a.tgz d && mvtar -cf a.tar d "
       "&& ln -s /dev/full full.tgz");
  for (const std::string script :
       {"-cf /dev/full d", "-cf /dev/full d/g", "-czf /dev/full d/g", "-cjf /dev/full d", "-cf full.tgz d/g",
        "-cf - d >", "-czf - d/g >", "-tf a.tar >", "-tf a.tgz >", "-t --xml -f a.tar >",
        "--verify -f a.tgz >", "-cvf b.tar d >", "-xvf a.tar -C out >", "-xOf a.tar d/f >",
        "-xOf a.tgz d/f >"}) {
    SCOPED_TRACE(script);
    const std::string path = script.back() == '>' ? "standard output"
                             : has(script, "tgz") ? "full.tgz"
                                                  : "/dev/full";
    expect(shell(dir, "mvtar " + script + (script.back() == '>' ? " /dev/full" : "")), 2, "",
           path + ": No space left on device");
  }
  for (const char* line : {"-cf - d", "-xOf a.tar d/f", "-xOf a.tgz d/f"}) {
    expect(shell(dir, std::string("mvtar ") + line + " | head -c 100 > some"), 2, "",
           "standard output: Broken pipe");
  }
}

TEST(MvtarOutput, FullDisk) {
  ScratchDir dir;
  must(dir, "mkdir d small && head -c 90000 /dev/urandom > d/f && tar -cf a.tar d");
  makeForms(dir);
  if (shell(dir, "mount -t tmpfs -o size=64k none small").status != 0)
    GTEST_SKIP() << "mounting is not permitted";
  for (const std::string line : {"-cf", "-czf", "-cjf"})
    expectMvtar(dir, line + " small/x d", 2, "", "small/x: No space left on device");
  must(dir, "rm small/x");
  for (const Form& form : kForms) {
    const CommandResult result = mvtar(dir, "-xvf a." + form.name + " -C small");
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("d/\n", result.out);  // what is not complete is not shown as done
    EXPECT_TRUE(has(result.err, "small/d/f: No space left on device\n")) << result.err;
    EXPECT_EQ(2, shell(dir, "rm -r small/*; mvtar -xOf a." + form.name + " > small/o").status);
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
    expectMvtar(dir, "-tf a", 0, "d/\nd/f\n");  // nothing went into the archive
  }
  EXPECT_EQ(2, shell(dir, "mvtar -tf - <&-").status);
  EXPECT_EQ(2, shell(dir, "mvtar -cf - d >&-").status);
}

TEST(MvtarPipes, ToAndFromOtherTars) {
  ScratchDir dir;
  must(dir,
       "mkdir -p d/sub out && seq 50000 > d/f && echo text > d/sub/g && touch -d @1234567890 d/f d/sub/g");
  const auto tree = treeOf(dir / "d");
  Words scripts = {"mvtar -cf - d | tar -x -C out", "mvtar -czf - d | tar -xz -C out",
                   "mvtar -cjf - d | bsdtar -x -C out",
                   "mvtar -cf - --format=pax d | python3 -c 'import sys, tarfile; "
                   "tarfile.open(fileobj=sys.stdin.buffer, mode=\"r|\").extractall(\"out\")'"};
  for (const Form& form : kForms) {
    for (const std::string theirs :
         {"tar -cf - d", "tar -b1 --format=pax -cf - d", "bsdtar -cf - d", "mvtar -cf - d"}) {
      // A reader that left before the end would end the writer; a trickle must do as well.
      scripts.push_back(theirs + " | " + form.filter + " | mvtar -x -f - -C out");
      scripts.push_back(theirs + " | " + form.filter + " | dd obs=700 status=none | mvtar -x -f - -C out");
    }
  }
  for (const std::string& script : scripts) {
    SCOPED_TRACE(script);
    expect(shell(dir, script), 0, "", "");
    EXPECT_EQ(tree, treeOf(dir / "out/d"));
    EXPECT_EQ(1234567890, mtimeOf(dir / "out/d/sub/g"));
    must(dir, "rm -r out/d");
  }
}

// ---- Archives that are none, damaged, or end too early

TEST(MvtarDamage, WhatIsNoArchive) {
  ScratchDir dir;
  must(dir,
       "mkdir dir && : > empty && echo 'some text' > text && seq 2000 > long && gzip -nk text && head -c 20 "
       "/dev/zero > zeros && "
       "printf BZh > bz && printf '\\037\\213' > gz && printf '\\037\\235' > Z");
  for (const std::string name :
       {"empty", "text", "long", "text.gz", "zeros", "bz", "gz", "Z", "none", "dir", "text/x"}) {
    for (const std::string& reading : kReading) {
      const CommandResult result = mvtar(dir, reading + name);
      EXPECT_EQ(2, result.status) << name;
      const Words lines = split(result.err, '\n');
      EXPECT_TRUE(lines.size() == 3 && lines[0].rfind("mvtar: " + name + ": ", 0) == 0) << result.err;
    }
  }
  expectMvtar(dir, "-tf dir", 2, "", "dir: Is a directory");
}

TEST(MvtarDamage, CutAnywhereOrChanged) {
  ScratchDir dir;
  must(dir, "mkdir x && echo text > x/f && echo more > x/g && tar -cf a.tar --sort=name -b1 x");
  makeForms(dir);
  for (const Form& form : kForms) {
    const std::string whole = readFile(dir / ("a." + form.name));
    const bool plain = form.name == "tar", lzw = form.name == "Z";
    // One end block is the mark; the second may be missing, and where nothing else tells, the codes for it.
    const size_t end = whole.size() - (plain ? 512 : lzw ? 20 : 0);
    for (size_t n = 0; n < end; n += plain ? 53 : 1) {
      const CommandResult result = mvtar(dir, kReading[n % 4] + "-", whole.substr(0, n));
      EXPECT_EQ(2, result.status) << form.name << n;
      EXPECT_TRUE(result.err.rfind("mvtar: ", 0) == 0 && has(result.err, said("", 2))) << n << result.err;
    }
    expectMvtar(dir, "--verify -f -", 0, "-: whole, 3 members\n", "", whole);
    if (plain || lzw) continue;
    // Checksums: no byte changes unnoticed, but for those of a gzip header that mean nothing here.
    for (size_t at = form.name == "gz" ? 10 : 0; at < whole.size(); ++at) {
      std::string bad = whole;
      bad[at] = static_cast<char>(~bad[at]);
      EXPECT_EQ(2, mvtar(dir, "--verify -f -", bad).status) << form.name << at;
    }
  }
}

TEST(MvtarDamage, WhatCameBeforeIsDone) {
  ScratchDir dir;
  must(dir,
       "mkdir x && echo text > x/f && head -c 5000 /dev/urandom > x/g && tar -cf - --sort=name x | head -c "
       "4000 > a.tar");
  makeForms(dir);
  for (const Form& form : kForms) {
    const CommandResult result = mvtar(dir, "-xv -C out --totals -f a." + form.name);
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("x/\nx/f\n", result.out);
    EXPECT_TRUE(has(result.err, "mvtar: 2 members, 5 bytes\n")) << result.err;
    EXPECT_EQ("text\n", readFile(dir / "out/x/f"));
    must(dir, "rm -r out");
  }
}

// ---- What cannot be extracted as it is

TEST(MvtarExtract, LinksSpecialFilesAndBackSlashesAreNamed) {
  ScratchDir dir;
  must(
      dir,
      R"(mkdir d && echo data > d/1 && ln d/1 d/2hard && ln -s 1 d/3link && mkfifo d/4pipe && truncate -s 1M d/5sparse &&
               echo x >> d/5sparse && touch d/$'6b\\s' && tar -S -cf a.tar --sort=name d && tar --format=pax -S -cf p.tar d/5sparse &&
               if mknod d/7dev c 1 3; then tar -rf a.tar d/7dev; fi)");
  makeForms(dir);
  const std::string facts =
      "d/2hard: a hard link is kept as an ordinary file\nd/3link: a symbolic link is kept as an ordinary "
      "file\n"
      "d/4pipe: a FIFO is kept as an ordinary file\nd/5sparse: a sparse file is kept as its stored pieces\n"
      "d/6b\\\\s: a back slash cannot be kept; it becomes a slash";
  for (const Form& form : kForms) {
    expectMvtar(dir, "-xf a." + form.name + " -C out", 2, "",
                facts + (exists(dir / "d/7dev") ? "\nd/7dev: a device is kept as an ordinary file" : ""));
    expectMvtar(dir, "-xf a." + form.name + " -C out d/1", 0);
    auto tree = treeOf(dir / "out");
    EXPECT_TRUE(tree["d/6b/s"] == "file " && tree["d/3link"] == "file " && tree["d/2hard"] == "file ");
    EXPECT_EQ(0, mvtar(dir, "-tf a." + form.name).status);
    must(dir, "rm -r out");
  }
  EXPECT_EQ(2, mvtar(dir, "-xf p.tar -C out").status);
}

TEST(MvtarExtract, WhatCannotBeCreatedIsNamedAndLeftOut) {
  ScratchDir dir;
  const std::string tooLong(256, 'x');
  must(dir, "mkdir d " + tooLong.substr(1) +
                " && touch d/1 d/2 && tar -cf a.tar --transform=s/^xx/xxx/ d/1 x* d/2");
  makeForms(dir);
  for (const Form& form : kForms) {
    expectMvtar(dir, "-xvf a." + form.name + " -C out", 2, "d/1\nd/2\n", tooLong + "/: File name too long");
  }
}

TEST(MvtarExtract, RecordsThatOnlyDescribeAreNoMembers) {
  ScratchDir dir;
  must(dir,
       "git init -q r && cd r && echo text > f && git add f && git -c user.name=n -c user.email=e commit -qm "
       "m && git archive HEAD > ../a.tar");
  expectMvtar(dir, "-tf a.tar", 0, "f\n");
  expectMvtar(dir, "-xvf a.tar -C out", 0, "f\n");
  EXPECT_EQ((std::map<std::string, std::string>{{"f", "file text\n"}}), treeOf(dir / "out"));
}

// ---- Escapes. The target is t/in; beside it everything must stay as it is.

void prepareTarget(const ScratchDir& dir, const std::string& before) {
  must(dir,
       "mkdir -p t/in t/out && echo outside > t/out/victim && echo beside > t/beside && touch -d @1000000000 "
       "t/out/* t/out t/b* && cd t/in && " +
           before);
}

std::string outside(const ScratchDir& dir) {
  return shell(dir,
               "find t -path t/in -prune -o -path t -o -printf '%p %y %m %U %G %T@ %l\\n' | sort; cat "
               "t/out/* t/b*")
      .out;
}

// Names with a slash at the end are directories; all files hold "evil".
std::string hostile(const std::string& names) {
  ArchiveBuilder archive;
  for (const std::string& name : split(names, ' ')) {
    if (name.empty()) continue;
    archive.add(name.back() == '/' ? ArchiveBuilder::Member{name, "", '5'}
                                   : ArchiveBuilder::Member{name, "evil"});
  }
  return archive.bytes(20);
}

const char kRefused[] = ": refused: its path leaves the target";

TEST(MvtarTarget, NothingOutsideIsTouched) {
  const std::string all = "*";
  struct {
    std::string before, members, refused;
    std::map<std::string, std::string> inside;
    std::string notice = "";
  } const cases[] = {
      {"true", "../evil ../out/victim ../ ../new/ a/.. b/../ ..", all, {}},
      {"mkdir a", "a/../../evil a/../b ./../x/", all, {{"a", "dir"}}},
      {"true", "a/..x ..y", "", {{"a/..x", "file evil"}, {"..y", "file evil"}}},
      {"true",
       "/etc/evil //x//y /",
       "",
       {{"etc/evil", "file evil"}, {"x/y", "file evil"}},
       "/etc/evil: leading slashes are left off\n"},
      {"true", "/../evil", "../evil", {}, "/../evil: leading slashes are left off\n"},
      {"ln -s ../out/victim l; ln -s ../new m; ln -s ../out n",
       "l m n",
       "",
       {{"l", "file evil"}, {"m", "file evil"}, {"n", "file evil"}}},
      {"ln -s ../out l", "l/ l/victim", "", {{"l", "dir"}, {"l/victim", "file evil"}}},
      {"ln -s ../out l; ln -s $PWD/../out m; ln -s / n",
       "l/victim m/new n/tmp/x l/d/",
       all,
       {{"l", "link ../out"}}},
      {"mkdir a; ln -s ../../out a/l", "a/l/b/c/f a/l/victim", all, {}},
      {"ln -s b a; ln -s c b; ln -s ../out c", "a/f b/victim", all, {}},
      {"ln -s b a; ln -s a b; ln -s ../nowhere c", "a/f c/f", all, {}},
      {"mkdir d; ln -s d a", "a/ a/f", "", {{"d/f", "file evil"}, {"a", "link d"}}},
      {"ln ../out/victim h", "h", "", {{"h", "file evil"}}},
      {"mkfifo p; touch q; mkdir -p d/x e",
       "p q/f d e",
       "q/f d",
       {{"p", "file evil"}, {"d/x", "dir"}, {"e", "file evil"}}},
      {"touch d; mkfifo e", "d/ e/", "", {{"d", "dir"}, {"e", "dir"}}},
  };
  for (const auto& test : cases) {
    for (const Form& form : kForms) {
      SCOPED_TRACE(test.members + " " + form.name);
      ScratchDir dir;
      prepareTarget(dir, test.before);
      const std::string before = outside(dir);
      writeFile(dir / "a.tar", hostile(test.members + " ok"));
      must(dir, form.filter + " < a.tar > a; true");
      std::string facts = test.notice;
      for (const std::string& name : split(test.refused == all ? test.members : test.refused, ' ')) {
        if (!name.empty()) facts += name + kRefused + "\n";
      }
      expectMvtar(dir, "-xf a -C t/in", test.refused.empty() ? 0 : 2, "", facts);
      EXPECT_EQ(before, outside(dir));
      auto inside = treeOf(dir / "t/in");
      EXPECT_EQ("file evil", inside["ok"]);  // the rest went on
      for (const auto& [path, what] : test.inside) EXPECT_EQ(what, inside[path]) << path;
    }
  }
}

TEST(MvtarTarget, MayBeLeftWithP) {
  ScratchDir dir;
  prepareTarget(dir, "true");
  writeFile(dir / "a.tar", hostile("../out/new " + (dir / "t/abs") + " ../in/x"));
  makeForms(dir);
  for (const Form& form : kForms) {
    expectMvtar(dir, "-xP -C t/in -f a." + form.name, 0);
    for (const char* made : {"t/out/new", "t/abs", "t/in/x"}) EXPECT_EQ("evil", readFile(dir / made));
    must(dir, "rm t/out/new t/abs t/in/x");
  }
  // Without it nothing is judged by the joined path: a target beside or above is no escape.
  expect(shell(dir, "cd t/in; mvtar -xf ../../a.tar ../in/x -C ../../new"), 2, "",
         std::string("../in/x") + kRefused);
  writeFile(dir / "b.tar", hostile("f"));
  expect(shell(dir, "cd t/in; mvtar -xf ../../b.tar -C ../../new/../other"), 0, "", "");
  EXPECT_EQ("evil", readFile(dir / "other/f"));
}

TEST(MvtarTarget, TheArchiveItselfIsNotReplaced) {
  ScratchDir dir;
  writeFile(dir / "plain", hostile("a f"));
  for (const Form& form : kForms) {
    must(dir, form.filter + " < plain > a; true");
    const std::string archive = readFile(dir / "a");
    expectMvtar(dir, "-xf a", 2, "", std::string("a") + kRefused);
    EXPECT_EQ(archive, readFile(dir / "a"));
    EXPECT_EQ("evil", readFile(dir / "f"));
  }
}

TEST(MvtarTarget, LinksPlantedBetweenTwoMembers) {
  ScratchDir dir;
  prepareTarget(dir, "true");
  const std::string before = outside(dir), bytes = hostile("d/one d/two d/victim e/x last");
  Running command(dir, "-xf - -C t/in");
  command.feed(bytes.substr(0, 1024));
  ASSERT_TRUE(command.waitsForInput());
  must(dir, "cd t/in && mv d was && ln -s ../out d && ln -s ../out e && ln -s ../out/victim last");
  command.feed(bytes.substr(1024));
  command.closeInput();
  EXPECT_EQ(2, command.end());
  EXPECT_TRUE(has(command.err, std::string("mvtar: e/x") + kRefused + "\n")) << command.err;
  EXPECT_EQ(before, outside(dir));
  EXPECT_EQ("file evil", treeOf(dir / "t/in")["last"]);
}

TEST(MvtarTarget, LinksSwappedByAnotherProcess) {
  ScratchDir dir;
  prepareTarget(dir, "mkdir d d/sub && ln -s ../out l");
  const std::string before = outside(dir), d = dir / "t/in/d", l = dir / "t/in/l";
  std::string names;
  // Another parent each time, so that each is looked up anew.
  for (int i = 0; i < 500; ++i)
    names += "d/sub/" + std::to_string(i) + " d/victim d/new/ d/" + std::to_string(i) + " ";
  writeFile(dir / "a.tar", hostile(names));
  std::atomic<bool> done{false};
  std::thread swapper([&] {
    while (!done) renameat2(AT_FDCWD, d.c_str(), AT_FDCWD, l.c_str(), RENAME_EXCHANGE);
  });
  const int status = mvtar(dir, "-xf a.tar -C t/in").status;
  done = true;
  swapper.join();
  EXPECT_TRUE(status == 0 || status == 2) << status;
  EXPECT_EQ(before, outside(dir));
}

// ---- Interrupts

// Interrupts a run that waits, by one signal and the other in turn.
void expectInterrupted(Running& command, const std::string& fact) {
  static int turn = 0;
  const int signal = ++turn % 2 ? SIGINT : SIGTERM;
  command.kill(signal);
  EXPECT_EQ(128 + signal, command.end());
  EXPECT_FALSE(command.endedBySignal());
  EXPECT_EQ(said(fact, 0), command.err.substr(std::min(command.err.find("mvtar:"), command.err.size())));
}

const char kReadInPart[] = ": interrupted; the archive was not read to its end";
const char kIncomplete[] = ": interrupted; the archive is incomplete";

TEST(MvtarInterrupt, WhileWaitingForInput) {
  ScratchDir dir;
  must(dir,
       "mkdir x && head -c 3000 /dev/urandom > x/f && touch x/g && tar -cf a.tar --sort=name x && mkfifo "
       "fifo");
  makeForms(dir);
  for (const Form& form : kForms) {
    const std::string bytes = readFile(dir / ("a." + form.name));
    for (const size_t n : {0u, 1u, 5u, 300u, 512u, 700u, 1024u, 1025u, 4500u, 5120u}) {
      for (const std::string& reading : kReading) {
        if (n >= bytes.size() || (n > 4000 && has(reading, "-xO"))) continue;  // has ended by then
        SCOPED_TRACE(reading + form.name + " " + std::to_string(n));
        Running command(dir, reading + "-");
        command.feed(bytes.substr(0, n));
        ASSERT_TRUE(command.waitsForInput());
        expectInterrupted(command, std::string("-") + kReadInPart);
      }
    }
  }
  for (const std::string& reading : kReading) {
    Running command(dir, reading + "fifo");  // nobody opens its other end
    ASSERT_TRUE(command.waitsForInput());
    expectInterrupted(command, std::string("fifo") + kReadInPart);
  }
  Running package(dir, "--deb -f p.deb fifo a.gz");
  ASSERT_TRUE(package.waitsForInput());
  expectInterrupted(package, "p.deb: interrupted; the package is incomplete");
}

TEST(MvtarInterrupt, WhileWritingOrNotAtAll) {
  ScratchDir dir;
  must(dir,
       "mkdir x && head -c 20M /dev/urandom > x/f && truncate -s 100G huge && mvtar -cf a.tar x && gzip -1 < "
       "a.tar > a.tgz");
  for (const char* line : {"-c -f - x", "-cz -f - x", "-cj -f - x", "-xO -f a.tar", "-xO -f a.tgz"}) {
    Running command(dir, line);
    ASSERT_TRUE(command.waitsForReader()) << line;
    expectInterrupted(command, split(line, ' ')[2] + (line[1] == 'c' ? kIncomplete : kReadInPart));
  }
  for (const std::string archive : {"/dev/null", "b.tar.gz", "b.tbz"}) {
    Running command(dir, "-cf " + archive + " huge --progress=always");
    ASSERT_TRUE(command.says("\r[")) << archive;
    expectInterrupted(command, archive + kIncomplete);
  }
  // Ignored by whoever started it in the background, it stays ignored.
  Running command(dir, "-tf -", Running::Streams::Pipes, "env --ignore-signal=INT ");
  ASSERT_TRUE(command.waitsForInput());
  command.kill(SIGINT);
  command.feed(readFile(dir / "a.tar").substr(0, 512) + std::string(1024, '\0'));
  command.closeInput();
  EXPECT_EQ(0, command.end());
  EXPECT_EQ("x/\n", command.out);
}

}  // namespace
}  // namespace morvane::testing
#endif
