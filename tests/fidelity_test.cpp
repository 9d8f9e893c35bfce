// Members that come back as what they were: written by each and restored by each, the kinds that are hostile,
// and what cannot be kept.
#ifdef MVTAR
#include <sys/stat.h>
#include <unistd.h>

#include "MvtarSupport.h"
#include "TreeSupport.h"

namespace morvane::testing {
namespace {

// What can be seen of a tree: kind, mode, owner, time, link text, names of one file, contents.
std::string described(const ScratchDir& dir, const std::string& where, bool wholeSeconds) {
  std::string script = "cd " + where + R"( && find t \( -type d -printf '%p %y %m %U %G %T@\n' \) -o -printf
    '%p %y %m %U %G %T@ %s %l %n\n' | sort && find t -type f -links +1 -printf '%i %p\n' | sort |
    awk '{a[$1]=a[$1]" "$2} END {for (i in a) print a[i]}' | sort && find t -type f -exec cksum {} + | sort -k3)";
  for (size_t at; (at = script.find("-printf\n")) != std::string::npos;) script.replace(at, 8, "-printf ");
  if (wholeSeconds) script = "{ " + script + R"(; } | sed -E 's/ ([0-9]+)\.[0-9]{10}/ \1/')";
  const CommandResult result = shell(dir, script);
  EXPECT_EQ(0, result.status) << result.err;
  return result.out;
}

long long diskUse(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, lstat(path.c_str(), &status)) << path;
  return status.st_blocks * 512;
}

TEST(Fidelity, WhatOneWritesTheOtherRestores) {
  ScratchDir dir;
  makeTree(dir);
  if (!isRoot()) must(dir, "chmod 400 t/empty");
  const struct {
    std::string write;
    bool wholeSeconds;
  } kWriters[] = {{"mvtar -cf a.tar t", true},
                  {"mvtar --format=pax -cf a.tar t", false},
                  {"tar --format=gnu -S -cf a.tar t", true},
                  {"tar --format=pax -S -cf a.tar t", false},
                  {"tar --format=pax --sparse-version=0.0 -S -cf a.tar t", false},
                  {"tar --format=pax --sparse-version=0.1 -S -cf a.tar t", false},
                  {"bsdtar --format=pax -cf a.tar t", false},
                  {"bsdtar -cf a.tar t", true}};
  for (const auto& writer : kWriters) {
    SCOPED_TRACE(writer.write);
    must(dir, writer.write);
    const std::string expected = described(dir, ".", writer.wholeSeconds);
    makeForms(dir);
    std::vector<std::string> readers;
    for (const Form& form : kForms) readers.push_back("mvtar -xpf a." + form.name + " -C out");
    const bool isOurs = writer.write[0] == 'm';
    if (isOurs) readers.insert(readers.end(), {"tar -xpSf a.tar -C out", "bsdtar -xpf a.tar -C out"});
    for (const std::string& reader : readers) {
      SCOPED_TRACE(reader);
      must(dir, "chmod -R u+rwx out 2>/dev/null; rm -rf out; mkdir out; " + reader);
      EXPECT_EQ(expected, described(dir, "out", writer.wholeSeconds));
      EXPECT_GT(1000000, diskUse(dir / "out/t/hole") + diskUse(dir / "out/t/nothing"));
    }
    // Listings show what things are and where they lead.
    const std::string listing = mvtar(dir, "-tvf a.tar").out;
    for (const std::string line : {"3145731 ", "d/link -> ../key", "prw-r-----"})
      EXPECT_TRUE(has(listing, line)) << listing;
  }
}

TEST(Fidelity, ModesAreLessTheUmaskOrExact) {
  ScratchDir dir;
  must(
      dir,
      R"(mkdir t && for m in 000 111 444 600 644 666 755 777; do echo $m > t/f$m; mkdir t/d$m; chmod $m t/?$m; done
    chmod 4755 t/f755; chmod 2755 t/d755; chmod 1777 t/d777; mvtar -cf a.tar t || true; chmod 777 .; cp )" MVTAR
      " ./m");
  const std::string kUser = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
  struct Way {
    std::string as, options;
    bool isExact;
  };
  std::vector<Way> ways = {{isRoot() ? kUser : "", "-x", false}, {isRoot() ? kUser : "", "-xp", true}};
  if (isRoot()) ways.insert(ways.end(), {{"", "--no-same-permissions -x", false}, {"", "-x", true}});
  for (const char* const mask : {"000", "022", "077"}) {
    for (const Way& way : ways) {
      SCOPED_TRACE(way.as + way.options + " umask " + mask);
      must(dir, "rm -rf out; mkdir -m 777 out; umask "s + mask + "; " + way.as + "./m " + way.options +
                    " -f a.tar -C out");
      for (const std::string name :
           {"f000", "f111", "f444", "f600", "f644", "f666", "f777", "d111", "d755", "d777"}) {
        struct stat was {
        }, is{};
        lstat((dir / ("t/" + name)).c_str(), &was);
        // What its owner may not read is not in the archive of a user.
        if (!isRoot() && (was.st_mode & S_IRUSR) == 0) continue;
        ASSERT_EQ(0, lstat((dir / ("out/t/" + name)).c_str(), &is)) << name;
        // Set-id bits come back only where the owner does.
        const unsigned kept = way.isExact ? (is.st_uid == was.st_uid ? 07777 : 01777)
                                          : 0777u & ~static_cast<unsigned>(std::stoul(mask, nullptr, 8));
        EXPECT_EQ(was.st_mode & kept, is.st_mode & 07777u) << name;
      }
    }
  }
}

// New files get the directory's group there, and their own mode all the same, once they have their owner.
TEST(Fidelity, ADirectoryThatHandsOnItsGroup) {
  if (!isRoot()) GTEST_SKIP() << "of another group is the superuser's to make";
  ScratchDir dir;
  must(dir,
       "mkdir t out && echo a > t/a && chmod 640 t/a && mvtar -cf a.tar t && mkdir -m 2755 out/t && "
       "chgrp 1234 out/t && mvtar --no-same-permissions -xf a.tar -C out && stat -c '%a %g' out/t/a > is");
  EXPECT_EQ("640 0\n", readFile(dir / "is"));
}

// ---- Links that mean no good

std::string membersOf(const std::vector<ArchiveBuilder::Member>& members) {
  ArchiveBuilder archive;
  for (const auto& member : members) archive.add(member);
  return archive.bytes(20);
}

TEST(Fidelity, LinksThatLeadNowhereAreNamed) {
  ScratchDir dir;
  const std::string beyond(5000, 'x'), bad = "\nmvtar: not everything";
  const struct {
    std::string options;
    std::vector<ArchiveBuilder::Member> members;
    std::string facts, tree;
  } kCases[] = {
      {"", {{"l", "", '1', "f"}, {"f", "data"}}, "", "f=file data l=file data"},  // it comes later
      {"",
       {{"l", "", '1', "none"}, {"z", "data"}},
       "l: The target of a hard link is not there.",
       "z=file data"},
      {"", {{"l", "", '1', "l"}, {"z", "data"}}, "l: A hard link leads to itself.", "z=file data"},
      {"",
       {{"d/", "", '5'}, {"l", "", '1', "d"}},
       "l: refused: what it links to may not have another name",
       "d=dir"},
      {"", {{"l", "", '1', "../out/victim"}}, "l: refused: its path leaves the target", ""},
      {"",
       {{"s", "", '2', "../../out"}, {"l", "", '1', "s/victim"}},
       "l: refused: a link or file on its way may not be passed",
       "s=link ../../out"},
      {"",
       {{"s", "", '2', "../../out"}, {"s/f", "data"}},
       "s/f: refused: its path leaves the target",
       "s=link ../../out"},
      {"", {{"s", "", '2', ""}, {"z", "data"}}, "s: The symbolic link has no usable text.", "z=file data"},
      {"--exclude=f ",
       {{"f", "data"}, {"l", "", '1', "f"}},
       "l: The target of a hard link was not extracted.",
       ""},
      {"--exclude=f ", {{"f", "data"}, {"l", "own", '1', "f"}}, "", "l=file own"},  // it brings its data
      {"--options=LinkTargets=inside ",
       {{"d/a", "", '2', "../b"}, {"d/c", "", '2', "../../b"}, {"e", "", '2', "/x"}},
       "d/c: The symbolic link leads out of the target.\ne: The symbolic link leads out of the target.",
       "d=dir d/a=link ../b"},
      // An earlier run's file is not what is linked to, though it has the name.
      {"@old ", {{"l", "", '1', "f"}, {"f", "new"}}, "", "f=file new l=file new"},
      // Each means what its target was just then; a target that could not be made is none, whatever was
      // there.
      {"",
       {{"f", "one"}, {"l", "", '1', "f"}, {"f", "two"}, {"m", "", '1', "f"}},
       "",
       "f=file two l=file one m=file two"},
      {"@old ",
       {{"f", "one"}, {"l", "", '1', "f"}, {"f", "two"}, {"m", "", '1', "f"}},
       "",
       "f=file two l=file one m=file two"},
      {"",
       {{"f", "one"}, {"s", "", '2', "."}, {"../f", "two"}, {"l", "", '1', "f"}, {"s/l", "", '1', "none"}},
       "../f: refused: its path leaves the target\ns/l: The target of a hard link is not there.",
       "f=file one l=file one s=link ."},
      // Names of the archive and those that come of them are two things, in either order.
      {"--strip-components=1 ",
       {{"f", "top"}, {"d/f", "data"}, {"d/l", "", '1', "f"}, {"d/m", "", '1', "d/f"}},
       "l: The target of a hard link was not extracted.",
       "f=file data m=file data"},
      {"--strip-components=1 ",
       {{"d/f", "data"}, {"f", "top"}, {"d/m", "", '1', "d/f"}, {"d/l", "", '1', "f"}},
       "l: The target of a hard link was not extracted.",
       "f=file data m=file data"},
      {"--strip-components=1 ",
       {{"d/f", "data"}, {"d/l", "", '1', "f"}, {"f", "top"}},
       "l: The target of a hard link was not extracted.",
       "f=file data"},
      {"--exclude=a --transform=s/^b$/a/H ",
       {{"a", "x"}, {"b", "data"}, {"l", "", '1', "a"}},
       "",
       "a=file data l=file data"},
      {"--exclude=a --transform=s/^b$/a/H ",
       {{"l", "", '1', "a"}, {"a", "x"}, {"b", "data"}},
       "",
       "a=file data l=file data"},
      {"@old ",
       {{"g", "", '1', "l"}, {"l", "", '1', "f"}, {"f", "new"}},
       "",
       "f=file new g=file new l=file new"},
      {"@old ",
       {{"l", "", '1', "f"}, {"g", "", '1', "l"}, {"f", "new"}},
       "",
       "f=file new g=file new l=file new"},
      {"@old --exclude=f ",
       {{"l", "", '1', "f"}, {"f", "new"}},
       "l: The target of a hard link was not extracted.",
       "f=file old l=file old"},
      {"@old ", {{"l", "", '1', "f"}}, "", "f=file old l=file old"},  // the archive has no other
      {"@old ",
       {{"l", "", '1', "f"}, {"f", "", '1', "l"}},
       "f: The target of a hard link was not extracted.\nl: The target of a hard link was not extracted.",
       "f=file old l=file old"},
      {"", {{"f", "old"}, {"f", "", '2', "x"}}, "", "f=link x"},  // the later one wins
      {"", {{"h", "", '1', "late"}, {"h", "own"}, {"late", "z"}}, "", "h=file own late=file z"},
      {"", {{"a", "", '1', "b"}, {"b", "", '1', "c"}, {"c", "z"}}, "", "a=file z b=file z c=file z"},
      {"--exclude=a ",
       {{"./a", "new"}, {"h", "", '1', "a"}},
       "h: The target of a hard link was not extracted.",
       ""},
      // Two links, of which the one passes the other.
      {"--options=LinkTargets=inside ",
       {{"a/l", "", '2', ".."}, {"x", "", '2', "a/l/../etc"}},
       "x: The symbolic link leads out of the target.",
       "a=dir a/l=link .."},
      {"", {{"f", "", '2', "../../out/victim"}, {"f", "new"}}, "", "f=file new"},
      {"", {{"d/", "", '5'}, {"d", "file"}}, "", "d=file file"},
      {"", {{"p", "", '6'}, {"p", "file"}}, "", "p=file file"},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.options + each.facts + each.tree);
    must(dir, "rm -rf t; mkdir -p t/in t/out; echo outside > t/out/victim; chmod 640 t/out/victim");
    writeFile(dir / "a.tar", membersOf(each.members));
    makeForms(dir);
    for (const std::string form : {"tar", "gz"}) {
      must(dir, "rm -rf t/in; mkdir t/in");
      const bool overOld = has(each.options, "@old ");
      if (overOld) must(dir, "printf old > t/in/f; printf old > t/in/l");

      expectMvtar(dir, each.options.substr(overOld ? 5 : 0) + "-xf a." + form + " -C t/in",
                  each.facts.empty() ? 0 : 2, "", each.facts);
      std::string tree;
      for (const auto& [path, what] : treeOf(dir / "t/in"))
        tree += (tree.empty() ? "" : " ") + path + "=" + what;
      EXPECT_EQ(each.tree, tree) << form;
    }
    EXPECT_EQ("outside\n640 1\n", shell(dir, "cat t/out/victim; stat -c '%a %h' t/out/victim").out);
  }
}

// Every kind of member against everything that may stand in its way: what is beside the target stays.
TEST(Fidelity, NothingBesideTheTargetChanges) {
  ScratchDir dir;
  const char* const kWays[] = {"true",
                               "mkdir x",
                               "mkdir x; touch x/f",
                               "ln -s in x",
                               "ln -s ../out x",
                               "ln -s ../out/victim x",
                               "ln ../out/victim x",
                               "mkfifo x",
                               "ln -s ../new x"};
  const ArchiveBuilder::Member kKinds[] = {
      {"x", "evil"},          {"x/", "", '5'},          {"x", "", '2', "../out/victim"},
      {"x", "", '6'},         {"x/y", "evil"},          {"x/y/", "", '5'},
      {"x", "", '1', "good"}, {"x/y", "", '1', "good"}, {"x/y", "", '2', "z"}};
  for (const char* words : {"Profile=usual", "Profile=untrusted"}) {
    for (const char* way : kWays) {
      for (const auto& kind : kKinds) {
        SCOPED_TRACE(std::string(words) + " " + way + " " + kind.typeFlag + kind.name);
        must(dir,
             std::string("rm -rf t; mkdir -p t/in t/out; echo outside > t/out/victim; touch -d @1000000000 "
                         "t/out/victim t/out; cd t/in; mkdir in; ") +
                 way);
        const std::string look =
            "find t -path t/in -prune -o -path t -o -printf '%p %y %m %U %T@ %s\\n' | sort; cat t/out/*";
        const std::string before = shell(dir, look).out;
        writeFile(dir / "a.tar", membersOf({{"good", "fine"}, kind, {"last", "done"}}));
        ClsTar tar;
        tar.put_UncommonOptions(words);
        tar.put_UntarFromDir(dir / "t/in");
        tar.Untar(dir / "a.tar");
        EXPECT_EQ(before, shell(dir, look).out);
        EXPECT_EQ("done", readFile(dir / "t/in/last"));
        EXPECT_EQ("fine", readFile(dir / "t/in/good"));
      }
    }
  }
}

// A directory that is reached through a link gets its mode like any other, and one whose name is longer than
// that of what is in it comes later all the same.
TEST(Fidelity, DirectoriesAreSettledHoweverTheyAreReached) {
  ScratchDir dir;
  const std::string user =
      isRoot() ? "chmod 777 . && setpriv --reuid=65534 --regid=65534 --clear-groups " : "";
  writeFile(dir / "a.tar", membersOf({{"real/", "", '5'},
                                      {"link", "", '2', "real"},
                                      {"link/sub/", "", '5'},
                                      {"link/sub/f", "data"},
                                      {"././././deep/", "", '5'},
                                      {"deep/er/", "", '5'}}));
  must(dir, "cp " MVTAR " m; " + user +
                "./m -xf a.tar -C out && { find out -type d -perm 700 || true; } | wc -l > n");
  EXPECT_EQ("0\n", readFile(dir / "n"));
}

// The end of a sparse member is a hole as well, where it goes into an output, and its limit is its real size.
TEST(Fidelity, SparseMembersIntoAnOutput) {
  ScratchDir dir;
  must(
      dir,
      "echo hello > hole && truncate -s 3000000 hole && truncate -s 50000 all && mvtar -cf a.tar hole all && "
      "gzip -k a.tar");
  for (const char* archive : {"a.tar", "a.tar.gz"}) {
    for (const std::string name : {"hole", "all"}) {
      must(dir, std::string("mvtar -xOf ") + archive + " " + name + " | cmp - " + name);
      EXPECT_EQ(
          2,
          mvtar(dir, std::string("-xOf ") + archive + " " + name + " --options=MaxTotalBytes=9999").status);
    }
  }
}

TEST(Fidelity, WhatAFormatCannotHoldIsNamed) {
  ScratchDir dir;
  must(dir,
       "mkdir t && ln -s $(printf 'y%.0s' $(seq 120)) t/long && echo z > t/z && touch -d '1960-01-01' t/z");
  expectMvtar(dir, "-cf a.tar --format=ustar t", 2, "",
              "t/long: The ustar format cannot hold a link of more than 100 bytes.\n"
              "t/z: The ustar format cannot hold the time of the member.");
  expectMvtar(dir, "-tf a.tar", 0, "t/\n");
  must(dir, "mvtar -cf a.tar t; mkdir out; mvtar -xf a.tar -C out");
  EXPECT_EQ(-315619200, mtimeOf(dir / "out/t/z"));
}

TEST(Fidelity, ReproducibleArchivesAreTheSame) {
  ScratchDir dir;
  must(
      dir,
      R"(mkdir -p a/t/sub b/t/sub && for x in a b; do echo one > $x/t/1; echo two > $x/t/sub/2; ln -s 1 $x/t/l;
    truncate -s 1M $x/t/h; chmod 711 $x/t/1; done; chmod 600 a/t/sub/2; chmod 700 a/t; umask 077; touch b/t/1;
    cp --sparse=never b/t/h b/t/x; mv b/t/x b/t/h; cd a; mvtar -czf ../a.tgz --reproducible=1000000000 t; cd ../b;
    SOURCE_DATE_EPOCH=1000000000 mvtar -czf ../b.tgz --reproducible --threads=4 t; cd ../a;
    mvtar -czf ../c.tgz --reproducible=1000000000 --threads=1 t)");
  for (const char* other : {"b.tgz", "c.tgz"}) EXPECT_EQ(readFile(dir / "a.tgz"), readFile(dir / other));
  const std::string listing = mvtar(dir, "-tvf a.tgz").out;
  EXPECT_TRUE(has(listing, "-rwxr-xr-x 0/0 ") && has(listing, " 4 2001-09-09 01:46 t/1")) << listing;
}

TEST(Fidelity, FollowedLinksAreWhatTheyPointAt) {
  ScratchDir dir;
  must(dir,
       "mkdir -p t/a/b t/x && echo one > t/x/f && ln -s ../x t/a/dir && ln -s .. t/a/b/loop && ln -s x/f "
       "t/file && "
       "ln -s none t/dangling");
  expectMvtar(dir, "-chf a.tar t", 2, "",
              "t/a/b/loop: Too many levels of symbolic links\nt/dangling: No such file or directory");
  expectMvtar(dir, "-tf a.tar", 0, "t/\nt/a/\nt/a/b/\nt/a/dir/\nt/a/dir/f\nt/file\nt/x/\nt/x/f\n");
}

TEST(Fidelity, AttributesAndAccessLists) {
  ScratchDir dir;
  must(dir, "mkdir -p t/d && echo data > t/f && echo more > t/d/g && mkdir out");
  // A value that a reader which ends records at newlines would take for another path.
  const std::string set = R"(
import os, struct
os.setxattr('t/f', 'user.evil', b'a\n11 path=x\n\0=')
os.setxattr('t/d', 'user.big', b'v' * 3000)
acl = struct.pack('<I', 2) + b''.join(struct.pack('<HHI', *e) for e in
  [(1, 7, 0xffffffff), (2, 4, 1234), (4, 5, 0xffffffff), (16, 5, 0xffffffff), (32, 0, 0xffffffff)])
os.setxattr('t/f', 'system.posix_acl_access', acl)
os.setxattr('t/d', 'system.posix_acl_default', acl)
)";
  if (run({"python3", "-c", set}, "", dir.path()).status != 0) GTEST_SKIP() << "not on this file system";
  const std::string show =
      "import os\nfor f in 'f', 'd', 'd/g':\n print({n: os.getxattr('t/' + f, n) for n in "
      "sorted(os.listxattr('t/' + f))}, oct(os.stat('t/' + f).st_mode))";
  const std::string expected = run({"python3", "-c", show}, "", dir.path()).out;
  ASSERT_TRUE(has(expected, "posix_acl_default") && has(expected, "user.evil")) << expected;
  for (const char* writer : {"mvtar --xattrs -cf a.tar t", "bsdtar --acls --xattrs -cf a.tar t",
                             "tar --acls --xattrs --format=pax -cf a.tar t"}) {
    for (const char* reader :
         {"mvtar --xattrs -xf a.tar -C out", "gzip -kf a.tar; mvtar --xattrs -xf a.tar.gz -C out",
          "bsdtar --acls --xattrs -xpf a.tar -C out", "tar --acls --xattrs -xpf a.tar -C out"}) {
      must(dir, std::string("rm -rf out; mkdir out; ") + writer + "; " + reader);
      EXPECT_EQ(expected, run({"python3", "-c", show}, "", dir / "out").out) << writer << " " << reader;
    }
  }
  expectMvtar(dir, "--xattrs --format=gnu -cf a.tar t", 2, "",
              "t/d: attributes can be stored in the pax format alone\na.tar: 2 members without attributes");
}

}  // namespace
}  // namespace morvane::testing
#endif
