// Options of mvtar that GNU tar cannot be asked about: what each form of a value means, what is said, and
// what happens when files, programs and lists are not what they should be.
#ifdef MVTAR

#include "MvtarSupport.h"
#include "cli/Dates.h"
#include "cli/ProgressBar.h"

namespace morvane::testing {
namespace {

// ---- Values

TEST(MvtarValues, Dates) {
  ScratchDir dir;
  setMtime((writeFile(dir / "file", ""), dir / "file"), 1234567890);
  const std::string file = dir / "file";
  const std::pair<std::string, timespec> dates[] = {{"@0", {0, 0}},
                                                    {"@-1", {-1, 0}},
                                                    {"@-1.5", {-2, 500000000}},
                                                    {"@-0.25", {-1, 750000000}},
                                                    {"@1.25", {1, 250000000}},
                                                    {"@1,1234567891", {1, 123456789}},
                                                    {"1970-01-02", {86400, 0}},
                                                    {"1970/01/02", {86400, 0}},
                                                    {"1970-01-02 03:04", {97440, 0}},
                                                    {"1970-01-02T03:04:05", {97445, 0}},
                                                    {"1970-01-02 03:04:05.5", {97445, 500000000}},
                                                    {"1970-01-02T03:04:05Z", {97445, 0}},
                                                    {"1970-01-02 03:04:05 UTC", {97445, 0}},
                                                    {"1970-01-02 03:04:05 +0100", {93845, 0}},
                                                    {"1970-01-02T03:04:05.5-01:30", {102845, 500000000}},
                                                    {"1970-01-02 03:04:05 +1400", {47045, 0}},
                                                    {"2 Jan 1970", {86400, 0}},
                                                    {"2 Jan 1970 03:04:05", {97445, 0}},
                                                    {"Fri, 02 Jan 1970 03:04:05 +0000", {97445, 0}},
                                                    {"Fri Jan  2 03:04:05 1970", {97445, 0}},
                                                    {"Fri Jan  2 03:04:05 UTC 1970", {97445, 0}},
                                                    {"2038-01-19T03:14:08Z", {2147483648, 0}},
                                                    {file, {1234567890, 0}}};
  ASSERT_EQ(0, setenv("TZ", "UTC", 1));
  tzset();
  for (const auto& [text, expected] : dates) {
    const auto time = mvtar::parseDateOrFile(text);
    ASSERT_TRUE(time) << text;
    EXPECT_EQ(std::pair(expected.tv_sec, expected.tv_nsec), std::pair(time->tv_sec, time->tv_nsec)) << text;
  }
  const std::pair<const char*, long long> relative[] = {{"now", 0},
                                                        {"today", 0},
                                                        {"yesterday", -86400},
                                                        {"tomorrow", 86400},
                                                        {"2 days ago", -172800},
                                                        {"1 hour", 3600},
                                                        {"90 min ago", -5400},
                                                        {"1 week ago", -604800},
                                                        {"10 seconds ago", -10}};
  for (const auto& [text, offset] : relative) {
    const auto then = mvtar::parseDateOrFile(text);
    ASSERT_TRUE(then) << text;
    EXPECT_LE(std::llabs(then->tv_sec - time(nullptr) - offset), 2) << text;
  }
  const char kNone[] =
      "| |@|@x|@1x|1970|1970-13-01|1970-01-02x|1970-01-02 +1|25:00|1970-01-02 03:04:05 CET|"
      "1970-01-02 +9999|1970-01-02 +0160|1970-01-02.5|1970-01-02 03:04.5|"
      "@-9223372036854775808.5|99999999999999999999 days ago|-99999999999999999999 days|"
      "3 fortnights|./none";
  for (const std::string& text : split(kNone, '|')) EXPECT_FALSE(mvtar::parseDateOrFile(text)) << text;
  unsetenv("TZ");
}

// Too narrow for all of it, the time goes first, then the rate, then the bar; never is it as wide as the
// screen.
TEST(MvtarValues, ProgressBarAtEveryWidth) {
  const auto line = [](int columns) {
    return mvtar::ProgressBar::lineOf(mvtar::ProgressBar::kScale / 2, 1500000, 3725, columns);
  };
  for (int columns = 20; columns <= 300; ++columns) {
    const std::string shown = line(columns);
    EXPECT_LT(static_cast<int>(shown.size()), columns);
    EXPECT_TRUE(has(shown,
                    "] "
                    " 50%"))
        << shown;
    EXPECT_FALSE(has(shown, "1:02:05") && !has(shown, "1.5 MB/s")) << shown;
    // What was there stays there on a wider screen.
    for (const char* part : {"1:02:05", "1.5 MB/s"})
      EXPECT_LE(has(shown, part), has(line(columns + 1), part));
  }
  EXPECT_EQ("[#####     ]  50%", line(18));
  EXPECT_EQ("[" + std::string(20, '#') + std::string(20, ' ') + "]  50%   1.5 MB/s  1:02:05", line(300));
  EXPECT_EQ(" 50%", line(5));
  EXPECT_EQ("[" + std::string(40, '#') + "] 100%", mvtar::ProgressBar::lineOf(1 << 30, -1, -1, 80));
}

TEST(MvtarValues, LongOptionsMayBeCutShort) {
  ScratchDir dir;
  must(dir, "mkdir -p d/e && echo f > d/e/f && touch d/.gitignore");
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"--exclude-v --cre --file=a.tar d", "--lis --file=a.tar", "d/\nd/e/\nd/e/f\n"},
      {"-cf a.tar d/e --trans=s/d/x/ --own=0 --num", "-tf a.tar --no-rec x/e", "x/e/\n"},
      {"-cf a.tar d --mti=@0 --cla", "-tf a.tar --exclude=.git*", "d/\nd/e/\nd/e/f\n"}};
  for (const auto& [create, list, listing] : cases) {
    expectMvtar(dir, create, 0);
    expectMvtar(dir, list, 0, listing);
  }
  expectMvtar(dir, "-tf a.tar --new=now", 64, "", "option '--new' is ambiguous: --newer, --newer-mtime");
  expectMvtar(
      dir, "-tf a.tar --no", 64, "",
      "option '--no' is ambiguous: --no-null, --no-recursion, --no-same-permissions, --no-same-owner, "
      "--no-xattrs, --no-acls");
}

// ---- Lists of names

TEST(MvtarLists, NamesAreTakenAsTheyStand) {
  ScratchDir dir;
  must(dir, R"(mkdir d && touch d/a ./-v 'd/b  ' d/'*' d/$'n\nl' && printf 'd/a\n\n-v\nd/b  \nd/*\n' > list &&
               printf 'd/n\nl\0\0-v' > nul && head -c 3000000 /dev/zero | tr '\0' x > long)");
  const std::string listed = "d/a\n-v\nd/b  \nd/*\n";
  expectMvtar(dir, "-cf a.tar -T list", 0);
  expectMvtar(dir, "-tf a.tar", 0, listed);
  expectMvtar(dir, "-cf a.tar -T -", 0, "", "", listed);
  expectMvtar(dir, "-tf a.tar --files-from=list", 0, listed);
  expectMvtar(dir, "-cf a.tar d/a --null -T nul -C d a", 0);
  expectMvtar(dir, "-tf a.tar", 0, "d/a\nd/n\\nl\n-v\na\n");
  expectMvtar(dir, "-tf a.tar -T long", 2, "", std::string(3000000, 'x') + ": not found in the archive");
  expectMvtar(dir, "-tf a.tar -T list -X none", 2, "", "none: No such file or directory");
  expectMvtar(dir, "-tf a.tar -X nul", 2, "", "nul: a pattern with a NUL byte");
  expectMvtar(dir, "-cf b.tar -T d", 2, "", "d: Is a directory");
  EXPECT_FALSE(exists(dir / "b.tar"));
  expectMvtar(dir, "-cf a.tar -T nul", 2, "",
              "d/n: No such file or directory\nl\\000\\000-v: a path with a NUL byte");
}

// ---- Programs that compress

TEST(MvtarFilter, AProgramThatFailsIsAFailure) {
  ScratchDir dir;
  must(dir,
       "mkdir d && seq 300000 > d/f && echo b > d/b && mvtar -I 'gzip -9' -cf a.gz d && gzip -t a.gz && head "
       "-c 90000 a.gz > cut");
  const std::tuple<std::string, int, std::string> cases[] = {
      {"-I gzip -tf a.gz", 0, ""},
      {"-I gzip --max-count=1 -tf a.gz", 0, ""},  // the program's reader may leave
      {"-I gzip -xOf - d/b < a.gz", 0, ""},
      {"-I 'sh -c \"gzip -dc; exit 4\"' -tf a.gz", 2, "sh -c \"gzip -dc; exit 4\": ended with status 4\n"},
      {"-I gzip -tf cut", 2, "gzip: ended with status 1\n"},
      {"-I none-such -tf a.gz", 2, "none-such: No such file or directory\n"},
      {"-I none-such -cf b d", 2, "none-such: No such file or directory\n"},
      {"-I '\"' -cf b d", 2, "\": No such file or directory\n"},
      {"-I false -cf b d", 2, "false: ended with status 1\nmvtar: false: Broken pipe\n"},
      {"-I 'sh -c \"cat >/dev/null; exit 3\"' -cf b d", 2,
       "sh -c \"cat >/dev/null; exit 3\": ended with status 3\n"},
      {"-I 'sh -c \"cat >/dev/null; kill $$\"' -cf b d", 2,
       "sh -c \"cat >/dev/null; kill $$\": ended by signal 15\n"},
      {"-I none-such -cf cut d; test $(stat -c %s cut) = 90000 && exit 2", 2,
       "none-such: No such file or directory\n"},
      {"-I ./d -cf cut d; test $(stat -c %s cut) = 90000 && exit 2", 2, "./d: Permission denied\n"},
      {"-I cat -cf /dev/full d/b", 2, "cat: ended with status 1\n"}};
  // Whoever calls may not care for his children.
  expect(shell(dir, "env --ignore-signal=CHLD mvtar -I gzip -tf a.gz"), 0, "d/\nd/b\nd/f\n", "");
  for (const auto& [line, status, fact] : cases) {
    const CommandResult result = shell(dir, "mvtar " + line);
    EXPECT_EQ(status, result.status) << line << result.err;
    EXPECT_TRUE(fact.empty() || has(result.err, "mvtar: " + fact)) << line << "\n" << result.err;
    EXPECT_EQ(fact.empty() && status == 0, result.err.empty()) << line;
  }
}

// ---- JSON

TEST(MvtarJson, HoldsWhateverAnArchiveDoes) {
  ScratchDir dir;
  must(
      dir,
      R"(mkdir d && cd d && echo text > f && ln f hard && ln -s $'\xff"\\' link && mkfifo p && truncate -s 1M s &&
               touch -d @-1.5 $'\x01\n\t"\x7f' $'\xed\xa0\x80\xf4\x90\x80\x80\xc3\xa4\xff' $'\xf0\x9f\x98\x80\xc2\x9b' && cd .. &&
               tar --format=pax -Scf a.tar --owner='o"\':7 d && tar -rf a.tar --format=gnu --absolute-names /dev/null)");
  writeFile(dir / "check.py", R"(import json, os, sys, tarfile
listed = [json.loads(line) for line in sys.stdin]
members = tarfile.open("a.tar", errors="surrogateescape").getmembers()
assert len(listed) == len(members), (len(listed), len(members))
kinds = {"0": "file", "1": "hardlink", "2": "symlink", "3": "chardev", "5": "directory", "6": "fifo"}
for one, member in zip(listed, members):
    expected = {"path": member.name, "type": kinds[member.type.decode()], "size": member.size, "mode": "%04o" % member.mode,
                "uid": member.uid, "gid": member.gid, "user": member.uname, "group": member.gname}
    if member.linkname: expected["link"] = member.linkname
    if member.type == b"3": expected["device"] = [member.devmajor, member.devminor]
    one["path"] = one["path"].rstrip("/")
    assert abs(one.pop("mtime") - member.mtime) < 1e-6
    assert one == expected, (one, expected)
)");
  const CommandResult checked = shell(dir, "mvtar --json -tf a.tar | PYTHONUTF8=1 python3 check.py");
  EXPECT_EQ(std::pair(0, std::string()), std::pair(checked.status, checked.err));
  EXPECT_TRUE(has(mvtar(dir, "--json -tf a.tar").out, "\\u009b"));
}

// ---- Comparing

TEST(MvtarCompare, EachKindOfDifference) {
  ScratchDir dir;
  must(
      dir,
      R"(mkdir -p d/sub && seq 100000 > d/f && echo a > d/a && ln d/a d/hard && ln -s a d/link && mkfifo d/p &&
               truncate -s 1M d/holes && echo x >> d/holes && touch -d @1234567890.5 d/*  &&
               tar --sort=name -cf a.tar d && tar --sort=name --format=pax -Sczf p.gz d)");
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"true", "", ""},
      {"rm d/f; rm -r d/sub", "d/f: missing\nd/sub/: missing\n", ""},
      {"rm d/p; mkdir d/p", "d/p: the kind differs\n", ""},
      {"echo b > d/a; touch -d @1234567890.5 d/a", "d/a: contents differ\n", ""},
      {"printf X | dd of=d/f bs=1 seek=588800 conv=notrunc status=none; touch -d @1234567890.5 d/f",
       "d/f: contents differ\n", ""},
      {"echo y >> d/holes; chmod 600 d/holes",
       "d/holes: the mode differs\nd/holes: the time differs\nd/holes: the size differs\n", ""},
      {"ln -sf b d/link", "d/link: the link differs\n", ""},
      {"cp -a d/a x; mv x d/hard", "d/hard: the link differs\n", ""},
      {"touch -d @1234567891 d/f", "d/f: the time differs\n", ""},
      {"touch -d @1234567890.25 d/f", "", "d/f: the time differs\n"},  // gnu has no fractions
      {"chmod 700 d/sub; touch d/sub d/new", "d/sub/: the mode differs\n", ""}};
  for (const auto& [change, differences, onlyPax] : cases) {
    must(dir, "cp -a d keep");
    must(dir, change);
    for (const std::string archive : {"a.tar", "p.gz"}) {
      const std::string all = std::string(differences) + (archive == "p.gz" ? onlyPax : "");
      SCOPED_TRACE(change);
      expectMvtar(dir, "-df " + archive, all.empty() ? 0 : 1, all);
    }
    must(dir, "rm -r d && mv keep d");
  }
  must(dir, "touch d/a");
  expectMvtar(dir, "-dvf a.tar d/a d/f d/sub", 1, "d/a\nd/a: the time differs\nd/f\nd/sub/\n");
  expectMvtar(dir, "-df a.tar --totals d/f d/sub", 0, "", "2 members, 588895 bytes");
  // Missing or of another kind, a member counts as any other.
  must(dir, "mkdir -p elsewhere/d/f");
  expectMvtar(dir, "-C elsewhere -df a.tar --totals d/f d/sub", 1, "d/f: the kind differs\nd/sub/: missing\n",
              "2 members, 588895 bytes");
  expectMvtar(dir, "-C none -df a.tar --max-count=1 d/f d/sub", 1, "d/f: missing\n");
  // What was restored is the same.
  expectMvtar(dir, "-xpf p.gz -C out --strip-components=1", 0);
  expectMvtar(dir, "-df p.gz -C out --strip-components=1 --exclude=none", 0);
  expectMvtar(dir, "-df a.tar d/none d/link", 2, "", "d/none: not found in the archive");
}

TEST(MvtarCompare, HostileArchives) {
  ScratchDir dir;
  must(dir, "mkdir t && echo out > out && touch -d @1700000000 out");
  ArchiveBuilder archive;
  archive.add({"../out", "out\n"})
      .add({"f", "", '0', "", "", false, 0, std::numeric_limits<long long>::max()});
  writeFile(dir / "a.tar", archive.bytes());
  const std::string facts =
      "../out: refused: its path leaves the target\na.tar: The archive ends without an end-of-archive mark.";
  // No option makes a good name of it.
  for (const char* option : {"--strip-components=1", "--transform=s,.*/,,"})
    expectMvtar(dir, "-C t "s + option + " -xf a.tar ../out", 2, "", facts);
  expectMvtar(dir, "-C t -df a.tar", 2, "f: missing\n", facts);
}

// ---- Other volumes

TEST(MvtarVolumes, TheRestOfAFileIsNamed) {
  ScratchDir dir;
  must(
      dir,
      R"(seq 4400 > big && echo a > a && printf 'n b\nn c\n' | tar -M -L 10 -cf 1 big a > log && gzip -k c)");
  const char kFact[] = "big: continued from another volume";
  for (const std::string archive : {"c", "c.gz"}) {
    expectMvtar(dir, "-tf " + archive, 2, "big\na\n", kFact);
    expectMvtar(dir, "--verify -f " + archive, 2, "", kFact);
    expectMvtar(dir, "-df " + archive, 2, "", kFact);
    expectMvtar(dir, "-xOf " + archive, 2, "a\n", kFact);
    expectMvtar(dir, "-xf " + archive + " -C out", 2, "", kFact);
    EXPECT_TRUE(exists(dir / "out/a") && !exists(dir / "out/big"));
    expectMvtar(dir, "-tf " + archive + " a", 0, "a\n");
  }
}

// ---- What is no archive

TEST(MvtarContent, IsCalledWhatItIs) {
  ScratchDir dir;
  const std::pair<std::string, const char*> kContents[] = {
      {"", "The archive is empty."},
      {"PK\3\4", "This is a ZIP archive, no tar."},
      {std::string("\1\2\0\3", 4), "This is no archive of a known kind."},
      {ArchiveBuilder().add({"f", "f"}).bytes().replace(0, 1, "g"), "The TAR header's checksum is wrong."}};
  for (const auto& [bytes, sentence] : kContents) {
    writeFile(dir / "x", bytes);
    for (const char* command : {"-tf x", "-xf x", "-df x", "-xOf x", "--verify -f x", "-rf x x", "-uf x x"}) {
      if (bytes.empty() && (command[1] == 'r' || command[1] == 'u')) continue;  // it becomes an archive
      expectMvtar(dir, command, 2, "", std::string("x: ") + sentence);
    }
  }
}

// ---- Sources that go

TEST(MvtarRemoveFiles, OnlyWhatIsInTheArchiveAsItIs) {
  ScratchDir dir;
  must(dir, "mkdir d && head -c 3000000 /dev/urandom > d/a && echo b > d/b && echo c > d/c && chmod 600 d/c");
  Running command(dir, "exec mvtar -cf - --remove-files d d/none");
  ASSERT_TRUE(command.waitsForReader());
  must(dir, "echo more >> d/a; touch d/late");
  EXPECT_EQ(2, command.end());
  EXPECT_EQ(said("d/none: No such file or directory\nd/a: its size changed while it was archived\n"
                 "d: not removed: Directory not empty",
                 2),
            command.err);
  EXPECT_EQ((std::map<std::string, std::string>{{"a", treeOf(dir / "d")["a"]}, {"late", "file "}}),
            treeOf(dir / "d"));
  // An archive that is not whole is no reason to remove anything.
  expectMvtar(dir, "-cf /dev/full --remove-files d", 2, "", "/dev/full: No space left on device");
  // What a program has not read it has not written, however well it ends.
  must(dir, "echo small > small");
  expect(shell(dir, "mvtar -I 'sleep 0.1' -cf a --remove-files small"), 2, "",
         "sleep 0.1: it has not read all of the archive");
  EXPECT_TRUE(exists(dir / "small"));
  EXPECT_TRUE(exists(dir / "d/a"));
  // Nor is one a reason whose program failed, whatever else was left out.
  must(dir, "ln -s nowhere d/dangling");
  expect(shell(dir, "mvtar -h -I 'sh -c \"cat >/dev/null; exit 3\"' -cf a --remove-files d"), 2, "",
         "d/dangling: No such file or directory\nsh -c \"cat >/dev/null; exit 3\": ended with status 3");
  EXPECT_TRUE(exists(dir / "d/a"));
  // What is stored under another name stays, a directory too.
  must(dir, R"(mkdir -p 'e\f')");
  expectMvtar(dir, R"(-cf a --remove-files e\f)", 2, "",
              R"(e\\f: a back slash cannot be stored; it becomes a slash)");
  EXPECT_TRUE(exists(dir / R"(e\f)"));
}

// Small files are read long before their turn, and what is written into them meanwhile is in no archive.
TEST(MvtarRemoveFiles, NothingGoesThatChangedBehindItsReading) {
  ScratchDir dir;
  must(dir,
       "mkdir d && for i in {1..300}; do head -c 3000 /dev/zero > d/$i; done && touch -d '1 hour ago' d/*");
  Running command(dir, "exec mvtar -cf - --remove-files d");
  ASSERT_TRUE(command.waitsForReader());
  // Half of them keep their size and their time.
  must(dir, R"(for i in {1..300}; do
                 if ((i % 2)); then echo more >> d/$i; else cp -p d/$i time && printf n | dd of=d/$i conv=notrunc \
                   status=none && touch -r time d/$i; fi
               done; cp -a d changed)");
  EXPECT_EQ(2, command.end());
  writeFile(dir / "a.tar", command.out);
  must(dir,
       "mkdir out && tar -xf a.tar -C out && [ $(ls d | wc -l) -gt 0 ] && "
       "for i in {1..300}; do [ -e d/$i ] || cmp out/d/$i changed/$i || exit; done");
}

}  // namespace
}  // namespace morvane::testing
#endif
