// What others write is restored by us, and what we write by others: each writer, form and compression against
// each reader, with all that can be seen of the trees.
#ifdef MVTAR
#include <sys/stat.h>

#include "MvtarSupport.h"
#include "TreeSupport.h"

namespace morvane::testing {
namespace {

bool isMissing(const ScratchDir& dir, const std::string& program) {
  return shell(dir, "command -v " + program + " > found").status != 0;
}

// What a form or a writer does not hold of a tree, taken out of the facts.
enum Lost : unsigned {
  kNothing = 0,
  kNanoseconds = 1,
  kOwners = 2,
  kSpecial = 4,
  kLinkTimes = 8,
  kLongLinks = 16
};

Facts without(Facts facts, unsigned lost) {
  for (auto each = facts.begin(); each != facts.end();) {
    Fact& fact = each->second;
    const bool isLink = S_ISLNK(fact.mode);
    const bool isGone = (lost & kSpecial && (S_ISFIFO(fact.mode) || S_ISCHR(fact.mode))) ||
                        (lost & kLongLinks && isLink && fact.contents.size() > 100);
    if (lost & kNanoseconds) fact.nanoseconds = 0;
    if (lost & kOwners) fact.uid = fact.gid = 0;
    if (lost & kLinkTimes && isLink) fact.seconds = fact.nanoseconds = 0;
    each = isGone ? facts.erase(each) : std::next(each);
  }
  return facts;
}

void expectSame(const Facts& expected, const Facts& is, unsigned lost) {
  for (const std::string& path : differences(without(expected, lost), without(is, lost)))
    ADD_FAILURE() << path << " is not the same";
}

class Foreign : public ::testing::Test {
 protected:
  Foreign() {
    makeTree(m_dir);
    if (!isRoot()) must(m_dir, "chmod 400 t/empty");
    m_tree = factsOf(m_dir / "t");
  }
  ~Foreign() override { must(m_dir, "chmod -R u+rwx ."); }
  Facts restored(const std::string& reader) {
    must(m_dir, "chmod -R u+rwx out 2>/dev/null; rm -rf out; mkdir out; " + reader);
    return factsOf(m_dir / "out/t");
  }
  const ScratchDir m_dir;
  Facts m_tree;
};

// Python's three forms; it reads the holes of others and writes none itself.
TEST_F(Foreign, Python) {
  const std::string write =
      "import sys, tarfile\nt = tarfile.open('a.tar', 'w', format=getattr(tarfile, sys.argv[1]))\n"
      "t.add('t', filter=lambda m: None if len(m.linkname) > int(sys.argv[2]) else m)\nt.close()";
  const std::string read =
      "import tarfile\nt = tarfile.open('a.tar')\n"
      "t.extractall('out', **({'filter': 'fully_trusted'} if hasattr(tarfile, 'data_filter') else {}))";
  writeFile(m_dir / "write.py", write);
  writeFile(m_dir / "read.py", read);
  const struct {
    const char *format, *ours;
    unsigned lost;
  } kForms[] = {{"GNU_FORMAT", "gnu", kNanoseconds},
                {"PAX_FORMAT", "pax", kNothing},
                {"USTAR_FORMAT", "ustar", kNanoseconds | kLongLinks}};
  for (const auto& form : kForms) {
    SCOPED_TRACE(form.format);
    const bool isUstar = (form.lost & kLongLinks) != 0;
    must(m_dir, "python3 write.py "s + form.format + (isUstar ? " 100" : " 9999"));
    // A float of Python's holds no nanoseconds.
    expectSame(m_tree, restored("mvtar -xpf a.tar -C out"), form.lost | kNanoseconds);
    EXPECT_EQ(isUstar ? 2 : 0, mvtar(m_dir, "-cf a.tar --format="s + form.ours + " t").status);
    // It sets no times of links.
    expectSame(m_tree, restored("python3 read.py"), form.lost | kNanoseconds | kLinkTimes);
  }
}

// By us in each form and compression, restored by us and by others.
TEST_F(Foreign, OurFormsAndCompressions) {
  const struct {
    std::string format;
    unsigned lost;
  } kFormats[] = {{"gnu", kNanoseconds}, {"pax", kNothing}, {"ustar", kNanoseconds | kLongLinks}};
  for (const auto& format : kFormats) {
    for (const std::string suffix : {"tar", "tar.gz", "tar.bz2", "tar.xz", "tar.zst"}) {
      SCOPED_TRACE(format.format + " " + suffix);
      const std::string name = "a." + suffix;
      const CommandResult made = mvtar(m_dir, "-caf " + name + " --format=" + format.format + " t");
      if (has(made.err, "This build has no ")) continue;
      EXPECT_EQ(format.lost & kLongLinks ? 2 : 0, made.status) << made.err;
      expectSame(m_tree, restored("mvtar -xpf " + name + " -C out"), format.lost);
      expectSame(m_tree, restored("tar -xpf " + name + " -C out"), format.lost);
    }
  }
}

// A commit's files, executables and links; all of one owner and time.
TEST_F(Foreign, GitArchive) {
  if (isMissing(m_dir, "git")) GTEST_SKIP() << "no git here";
  must(m_dir,
       "mkdir r && cd r && git init -q . && mkdir d && echo a > a && echo '#!/bin/sh' > d/run && chmod 755 "
       "d/run && "
       "ln -s ../a d/l && git add -A && git -c user.name=n -c user.email=e@e commit -qm m && "
       "git archive --prefix=t/ -o ../a.tar HEAD && git archive --prefix=t/ -o ../a.tar.gz HEAD");
  for (const std::string name : {"a.tar", "a.tar.gz"}) {
    const Facts is = restored("umask 022; mvtar -xf " + name + " -C out");
    ASSERT_EQ(5u, is.size());
    EXPECT_TRUE(is.at("a").contents == "a\n" && (is.at("a").mode & 0777) == (isRoot() ? 0664u : 0644u));
    EXPECT_TRUE(is.at("d/run").contents == "#!/bin/sh\n" && (is.at("d/run").mode & 0111) == 0111);
    EXPECT_EQ("../a", is.at("d/l").contents);
    EXPECT_TRUE(is.at("a").seconds == is.at("d").seconds && is.at("a").seconds == is.at("d/l").seconds);
  }
}

// A package's data are what it was made of; links stand at its end, behind the directories that they are in.
TEST_F(Foreign, DpkgDeb) {
  if (isMissing(m_dir, "dpkg-deb")) GTEST_SKIP() << "no dpkg-deb here";
  must(m_dir,
       "rm -f t/pipe t/null; mkdir -p t/DEBIAN && printf 'Package: p\\nVersion: 1\\nArchitecture: all\\n"
       "Maintainer: m\\nDescription: d\\n' > t/DEBIAN/control && chmod 755 t t/DEBIAN");
  Facts expected = factsOf(m_dir / "t");
  for (const char* other : {".", "DEBIAN", "DEBIAN/control"}) expected.erase(other);
  for (const std::string method : {"none", "gzip", "xz", "zstd"}) {
    SCOPED_TRACE(method);
    if (shell(m_dir, "dpkg-deb -Z" + method + " -b t a.deb").status != 0) continue;  // older ones lack zstd
    must(m_dir, "rm -rf m; mkdir m; cd m && ar x ../a.deb");
    if (has(shell(m_dir, "mvtar -tf m/data.tar*").err, "This build has no ")) continue;
    Facts is = restored("mkdir out/t; mvtar -xpf m/data.tar* -C out/t");
    is.erase(".");
    expectSame(expected, is, kNanoseconds);
  }
}

// ---- Real trees

// Git sees every change of a mode, a link or a byte.
TEST_F(Foreign, AGitRepositoryStaysClean) {
  if (isMissing(m_dir, "git")) GTEST_SKIP() << "no git here";
  must(m_dir,
       "mkdir r && cd r && git init -q . && mkdir -p a/b && seq 2000 > a/n && echo '#!/bin/sh' > a/b/run && "
       "chmod 755 a/b/run && ln -s ../n a/b/l && ln -s /nowhere a/abs && ln -s a/b dir && git add -A && "
       "git -c user.name=n -c user.email=e@e commit -qm 1 && seq 3000 > a/n && "
       "git -c user.name=n -c user.email=e@e commit -qam 2 && git gc -q");
  for (const std::string format : {"gnu", "pax"}) {
    for (const std::string suffix : {"tar", "tgz"}) {
      must(m_dir, "mvtar -caf r." + suffix + " --format=" + format +
                      " r; rm -rf out; mkdir out; mvtar -xf r." + suffix + " -C out");
      EXPECT_EQ("", shell(m_dir,
                          "cd out/r && git -c safe.directory='*' status --porcelain && git -c "
                          "safe.directory='*' fsck --strict 2>/dev/null")
                        .out);
    }
  }
}

// A part of this machine, of bounded size.
TEST_F(Foreign, ATreeOfThisMachine) {
  must(
      m_dir,
      "mkdir m && cd m && for d in /usr/share/doc /usr/share/zoneinfo /usr/lib/python3 /etc/alternatives; do "
      "[ -d $d ] && { find $d -size -64k -print0 2>/dev/null | head -zn 700 | "
      "tar -cf - --no-recursion --null -T - --ignore-failed-read 2>/dev/null | tar -xpf - 2>/dev/null; } "
      "done; true");
  const Facts expected = factsOf(m_dir / "m");
  if (expected.size() < 50) GTEST_SKIP() << "there is nothing to take";
  for (const std::string suffix : {"tar", "tar.gz"}) {
    must(m_dir, "mvtar -caf m." + suffix + " --format=pax m; rm -rf out; mkdir out; mvtar -xpf m." + suffix +
                    " -C out");
    expectSame(expected, factsOf(m_dir / "out/m"), kNothing);
  }
}

}  // namespace
}  // namespace morvane::testing
#endif
