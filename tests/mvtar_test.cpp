// The command mvtar: how it is called, what it stores, selects, prints and says, and the status it ends with.
#ifdef MVTAR
#include <set>

#include "MvtarSupport.h"

namespace morvane::testing {
namespace {

// ---- The command line

TEST(Mvtar, WrongUsageSaysWhatIsWrongAndDoesNothing) {
  const std::string noMode = "one of -c, -x, -t, --verify, --deb is needed",
                    noArchive = "no archive: option '-f' is needed";
  std::vector<std::pair<std::string, std::string>> cases = {
      {"", noMode},
      {"-f a.tar", noMode},
      {"-c dir", noArchive},
      {"-x", noArchive},
      {"-t -f ", noArchive},
      {"--verify", noArchive},
      {"--deb a b", noArchive},
      {"-cf", "option '-f' needs a value"},
      {"cf", "option '-f' needs a value"},
      {"-cf a.tar dir -C", "option '-C' needs a value"},
      {"-cf a.tar dir --exclude", "option '--exclude' needs a value"},
      {"-cf a.tar -C  dir", "option '-C' needs a directory"},
      {"-cf a.tar", "nothing to put into the archive"},
      {"-cf a.tar --", "nothing to put into the archive"},
      {"-czjf a.tar dir", "only one of -z and -j"},
      {"-cZf a.tar dir", "compress format can be read but not written"},
      {"-cqf a.tar dir", "unknown option '-q'"},
      {"cqf a.tar dir", "unknown option '-q'"},
      {"-cf a.tar --bogus=1 dir", "unknown option '--bogus'"},
      {"-cf a.tar --b\x1B dir", "unknown option '--b\\033'"},
      {"-cf a.tar --totals=3 dir", "unknown option '--totals'"},
      {"-cf a.tar --format=v7 dir", "unknown format 'v7'"},
      {"-cf a.tar --progress=now dir", "unknown value 'now' for --progress"},
      {"-cf a.tar --charset=none-such dir", "unknown character set 'none-such'"},
      {"-cf a.tar --options=PaxExact,Nonsense dir", "unknown word 'Nonsense' in --options"},
      {"-xf a.tar --options=Confine=inside", "unknown word 'Confine=inside' in --options"},
      {"--deb -f a.tar dir", "--deb takes a control and a data tarball"},
      {"--deb -f a.tar a b c", "--deb takes a control and a data tarball"},
      {"--verify -f a.tar dir", "--verify checks the whole archive"},
      {"--verify -f a.tar --max-count=1", "--verify checks the whole archive"},
      {"-tOf a.tar", "-O goes with -x"},
      {"-xf a.tar --xml", "--xml goes with -t"},
      {"-tf a.tar --xml dir", "--xml lists the whole archive"},
      {"-tf a.tar --xml --max-count=2", "--xml lists the whole archive"},
      {"-tf a.tar --xml --totals", "--totals does not go with --xml"},
      {"-xf a.tar --prefix=p", "--prefix goes with -c"},
      {"-cf a.tar --strip-paths dir", "--strip-paths goes with -x"},
  };
  const Words modes = {"-c", "-x", "-t", "--verify", "--deb"};
  for (const std::string& one : modes) {
    for (const std::string& two : modes) {
      if (one != two)
        cases.emplace_back(one + " " + two + " -f a.tar dir", "only one of -c, -x, -t, --verify, --deb");
    }
  }
  for (const std::string count : {"", "x", "1x", "-1", "1.5", "99999999999999999999"}) {
    cases.emplace_back("-cf a.tar --max-count=" + count + " dir", "'" + count + "' is no number of members");
  }
  ScratchDir dir;
  must(dir, "mkdir dir");
  for (const auto& [line, complaint] : cases) expectMvtar(dir, line, 64, "", complaint);
  EXPECT_EQ((std::map<std::string, std::string>{{"dir", "dir"}}), treeOf(dir.path()));
}

TEST(Mvtar, HelpNamesEveryOptionAndVersionIsOneLine) {
  ScratchDir dir;
  const CommandResult help = mvtar(dir, "--help");
  for (const std::string& word :
       split("-c -x -t --verify --deb -f -C -z -j --format --match --exclude --prefix -O -P -v "
             "--strip-paths --max-count --xml --charset --totals --progress --log --options",
             ' ')) {
    EXPECT_TRUE(has(help.out, " " + word)) << word;
  }
  EXPECT_EQ(0, help.status);
  expectMvtar(dir, "--version", 0, "mvtar 1.0.0\n");
  EXPECT_EQ(2, shell(dir, "mvtar --help > /dev/full").status);
}

TEST(Mvtar, SpellingsMeanTheSame) {
  ScratchDir dir;
  must(dir, "mkdir d && touch d/f ./-dash");
  for (const char* line : {"-cf a.tar d", "cf a.tar d", "-c -f a.tar d", "-c -fa.tar -- d",
                           "--create --file=a.tar d", "--create d --file a.tar", "c d -f a.tar"}) {
    expectMvtar(dir, line, 0);
    expectMvtar(dir, "tf a.tar", 0, "d/\nd/f\n");
    must(dir, "rm a.tar");
  }
  expectMvtar(dir, "cfC a.tar d/.. -- -dash", 0);
  for (const char* line : {"-tf a.tar", "-tzf a.tar", "tjf a.tar", "-Ztf a.tar", "--list -fa.tar"}) {
    expectMvtar(dir, line, 0, "-dash\n");
  }
  expectMvtar(dir, "xvfC a.tar out/deep -- -dash", 0, "-dash\n");
  EXPECT_TRUE(exists(dir / "out/deep/-dash"));
}

// ---- Names

TEST(Mvtar, NamesAreThoseThatAnotherTarWouldStore) {
  ScratchDir dir;
  must(dir, "mkdir -p dir/sub empty other && touch file dir/f dir/sub/g dir/.h other/o && ln -s dir link");
  const std::string here = dir.path().substr(1), base = here.substr(here.rfind('/') + 1),
                    left = " is left off";
  const std::string link = "link: a symbolic link is not kept as one";
  struct {
    std::string words, listing, facts;
    int status = 0;
  } const cases[] = {
      {"dir file", "dir/ file dir/.h dir/f dir/sub/ dir/sub/g", ""},
      {"dir/sub/// empty/", "dir/sub/ empty/ dir/sub/g", ""},
      {"./dir/sub ././file", "dir/sub/ file dir/sub/g", ""},
      {"dir/sub dir/sub", "dir/sub/ dir/sub/ dir/sub/g dir/sub/g", ""},
      {". --exclude=d*", "empty/ file link/ other/ other/o", "./" + link, 2},
      {"../" + base + "/other", base + "/other/ " + base + "/other/o",
       "../" + base + "/other: leading '../'" + left},
      {"dir/../file", "file", "dir/../file: leading 'dir/../'" + left},
      {"other/.. --match=o", "other/o", "other/..: leading 'other/..'" + left},
      {"/" + here + "/file", here + "/file", "/" + here + "/file: leading '/'" + left},
      {"-P /" + here + "/file dir/../other", "/" + here + "/file dir/../other/ dir/../other/o", ""},
      {"-C dir .", ".h f sub/ sub/g", ""},
      {"file -C dir sub -C ../other o", "file sub/ o sub/g", ""},
      {"-C dir -C /" + here + "/other o -C .. file", "o file", ""},
      {"--prefix=p/q dir/sub file", "p/q/dir/sub/ p/q/file p/q/dir/sub/g", ""},
      {"--prefix=p/ -C dir/sub .", "p/ p/g", ""},
      {"--prefix=/p file", "p/file", "/p: leading '/'" + left},
      {"--prefix=../p file", "p/file", "../p: leading '../'" + left},
      {"-P --prefix=/p file", "/p/file", ""},
      {"link", "link/", link, 2},
      {"link/", "link/ link/.h link/f link/sub/ link/sub/g", ""},
      {"none -C dir no\ne f -C gone x", "f",
       "none: No such file or directory\ndir/no\\ne: No such file or directory\ndir/gone/x: No such file or "
       "directory",
       2},
      {"file ", "file", ": an empty path", 2},
  };
  for (const auto& test : cases) {
    std::string listing = test.listing + "\n";
    std::replace(listing.begin(), listing.end(), ' ', '\n');
    expectMvtar(dir, "-cvf a.tar " + test.words, test.status, listing, test.facts);
    expectMvtar(dir, "-tf a.tar", 0, listing);
    EXPECT_EQ(listing, shell(dir, "tar -tPf a.tar").out);
  }
}

TEST(Mvtar, ControlCharactersAndBackSlashes) {
  ScratchDir dir;
  must(dir, R"(mkdir d && touch d/$'a\nb\t\001\177' d/$'c\\d' d/$'\303\244\377' d/$'e\033')");
  const std::string before = "d/\nd/a\\nb\\t\\001\\177\nd/c", behind = "d\nd/e\\033\nd/\xC3\xA4\xFF\n";
  expectMvtar(dir, "-cvf a.tar d", 2, before + "\\\\" + behind,
              "d/c\\\\d: a back slash cannot be stored; it becomes a slash");
  expectMvtar(dir, "-tf a.tar", 0, before + "/" + behind);
  must(dir, "tar -xf a.tar --one-top-level=out && rm d/c* && diff -r d out/d -x c && test -f out/d/c/d");
  // The component's list of single sources ends its entries with this character.
  expectMvtar(dir, "-cf a.tar d/e\033", 2, "",
              "d/e\\033: a name with an escape character cannot be archived");
}

// ---- Formats and compressions

TEST(Mvtar, FormatAndCompression) {
  const std::string plain = "d/", gzip = "\x1F\x8B", bzip2 = "BZh9";
  const std::pair<std::string, std::string> cases[] = {{"a.tar", plain},
                                                       {"a.tar.gz", gzip},
                                                       {"a.tgz", gzip},
                                                       {"a.tar.bz2", bzip2},
                                                       {"a.tbz", bzip2},
                                                       {"a.tbz2", bzip2},
                                                       {"a.gz", plain},
                                                       {"tgz", plain},
                                                       {"a.tar -z", gzip},
                                                       {"a.tar -j", bzip2},
                                                       {"a.tgz -j", bzip2},
                                                       {"a.tar.bz2 -z", gzip},
                                                       {"a --gzip", gzip},
                                                       {"a --format=pax -j", bzip2},
                                                       {"a --format=ustar", plain}};
  ScratchDir dir;
  must(dir, "mkdir d && echo text > d/f");
  for (const auto& [words, start] : cases) {
    expectMvtar(dir, "-c d -f " + words, 0);
    // Told by the content, never by the name.
    must(dir, "mv " + split(words, ' ')[0] + " x.Z");
    EXPECT_EQ(start, readFile(dir / "x.Z").substr(0, start.size())) << words;
    expectMvtar(dir, "-tf x.Z", 0, "d/\nd/f\n");
    EXPECT_EQ("d/\nd/f\n", run({"bsdtar", "-tf", dir / "x.Z"}).out);
  }
  const std::string posix(
      "ustar\0"
      "00",
      8);
  EXPECT_EQ("ustar  ", mvtar(dir, "-cf - d").out.substr(257, 7));
  for (const char* format : {"ustar", "pax"}) {
    EXPECT_EQ(posix, mvtar(dir, std::string("-cf - d --format=") + format).out.substr(257, 8));
  }
}

TEST(Mvtar, LongNamesInEachFormat) {
  ScratchDir dir;
  const std::string n90(90, 'n'), m120(120, 'm'), deep = m120 + "/" + m120;
  must(dir, "mkdir -p d/" + n90 + " d/" + deep + " && cd d && touch " + n90 + "/f last " + m120 + "/f " +
                deep + "/" + n90);
  const std::string all = shell(dir, "tar -cf - --sort=name d | tar -tf -").out;
  for (const char* format : {"gnu", "pax"}) {
    expectMvtar(dir, std::string("-cf a.tar d --format=") + format, 0);
    expectMvtar(dir, "-tf a.tar", 0, all);
    for (const char* reader : {"tar -tf a.tar", "bsdtar -tf a.tar"})
      EXPECT_EQ(all, shell(dir, reader).out) << format;
  }
  // What has no place in a ustar header is named; the rest is archived, and the archive is whole.
  const std::string reason = ": its name is too long for the ustar format";
  const std::string rest =
      "d/\nd/last\nd/" + m120 + "/f\nd/" + deep + "/" + n90 + "\nd/" + n90 + "/\nd/" + n90 + "/f\n";
  expectMvtar(dir, "-cvf a.tar --format=ustar d", 2, rest, "d/" + m120 + reason + "\nd/" + deep + reason);
  EXPECT_EQ(rest, shell(dir, "tar -tf a.tar").out);
  expectMvtar(dir, "--verify -f a.tar", 0, "a.tar: whole, 6 members\n");
}

// ---- Which members

struct SelectionCase {
  std::string words, listing, unfound = "";
};

const SelectionCase kSelections[] = {
    {"t/bb", "t/bb"},
    {"t/b", "t/b/ t/b/c.txt t/b/d/ t/b/d/e"},
    {"./t/b/d/", "t/b/d/ t/b/d/e"},
    {"t/x.o t/b/d", "t/b/d/ t/b/d/e t/x.o"},
    {"t/*.txt", "t/A.txt t/b/c.txt"},
    {"*e", "t/b/d/e"},  // * stands for slashes too
    {"t/x", "", "t/x"},
    {"bb", "", "bb"},
    {"t/bb no\\ne t/*.c", "t/bb", "no\\\\ne t/*.c"},
    {".", "t/ t/A.txt t/b/ t/b/c.txt t/b/d/ t/b/d/e t/bb t/x.o"},
    {"--match=*.txt", "t/A.txt t/b/c.txt"},
    {"--match=d", "t/b/d/ t/b/d/e"},
    {"--match=t/b", "t/b/ t/b/c.txt t/b/d/ t/b/d/e"},
    {"--match=b/d --match=d/ --match=./bb", ""},  // with a slash only the whole path counts
    {"--match=a.txt", ""},
    {"--match=bb --match=e", "t/b/d/e t/bb"},
    {"--exclude=b", "t/ t/A.txt t/bb t/x.o"},
    {"--exclude=*.txt --exclude=t/b/d", "t/ t/b/ t/bb t/x.o"},
    {"--exclude=t", ""},
    {"--match=b --exclude=c.*", "t/b/ t/b/d/ t/b/d/e"},
    {"t/b t/x.o --match=*.* --exclude=*.o", "t/b/c.txt"},
    {"--max-count=3", "t/ t/A.txt t/b/"},
    {"--match=*.* --max-count=2", "t/A.txt t/b/c.txt"},
    {"t/A.txt t/x.o --max-count=1", "t/A.txt"},  // the search ends there
    {"--match=bb --max-count=0", "t/bb"},
};

TEST(Mvtar, SelectionMeansTheSameInEveryFormAndDirection) {
  ScratchDir dir;
  must(dir,
       "mkdir -p t/b/d && for f in A.txt b/c.txt b/d/e bb x.o; do echo $f > t/$f; done && tar -cf a.tar "
       "--sort=name t");
  makeForms(dir);
  for (const SelectionCase& test : kSelections) {
    std::string listing, facts;
    std::map<std::string, std::string> files, flat;
    for (const std::string& name : split(test.listing, ' ')) {
      if (name.empty()) continue;
      listing += name + "\n";
      if (name.back() != '/')
        files[name] = flat[name.substr(name.rfind('/') + 1)] = "file " + name.substr(2) + "\n";
    }
    for (const std::string& name : split(test.unfound, ' ')) {
      if (!name.empty()) facts += name + ": not found in the archive\n";
    }
    const int status = facts.empty() ? 0 : 2;
    for (const Form& form : kForms) {
      const std::string words = " a." + form.name + " " + test.words;
      expectMvtar(dir, "-tf" + words, status, listing, facts);
      expectMvtar(dir, "-tf - " + test.words, status, listing, facts, readFile(dir / ("a." + form.name)));
      expectMvtar(dir, "-xvf" + words + " -C out", status, listing, facts);
      auto extracted = treeOf(dir / "out");
      for (auto it = extracted.begin(); it != extracted.end();)
        it->second == "dir" ? it = extracted.erase(it) : ++it;
      EXPECT_EQ(files, extracted) << words;
      if (test.words != "--max-count=3") {  // directories do not count where none are made
        EXPECT_EQ(status, mvtar(dir, "-xf" + words + " --strip-paths -C flat").status);
        EXPECT_EQ(flat, treeOf(dir / "flat")) << words;
      }
      must(dir, "rm -rf out flat");
    }
    if (test.words[0] != '-') continue;
    expectMvtar(dir, "-cf new.tar t " + test.words, 0);
    expectMvtar(dir, "-tf new.tar", 0, listing);
  }
}

TEST(Mvtar, ExtractionTargetAndStripPaths) {
  ScratchDir dir;
  must(dir,
       "mkdir d e && echo 1 > d/f && echo 2 > e/f && tar -cf dot.tar -C d . && tar -cf none.tar -T /dev/null "
       "&& "
       "tar -cf a.tar d/f e/f && tar -rf a.tar e/f");
  for (const char* words : {"", " .", " ./", " --match=*", " --exclude=x"}) {
    expectMvtar(dir, std::string("-tf dot.tar") + words, 0, "./\n./f\n");
  }
  for (const char* words : {"a.tar", "none.tar", "a.tar -P", "dot.tar f", "a.tar --exclude=f"}) {
    expectMvtar(dir, std::string("-x -C new/deep/ -f ") + words, 0);
    must(dir, "test -d new/deep && rm -r new");
  }
  for (const std::string target : {"d/f", "d/f/sub"}) {
    expectMvtar(dir, "-xf none.tar -C " + target, 2, "", target + ": Not a directory");
  }
  makeForms(dir);
  for (const Form& form : kForms) {
    expectMvtar(dir, "-xf a." + form.name + " --strip-paths -C out", 2, "",
                "e/f: it replaces another member of the same last name");
    EXPECT_EQ((std::map<std::string, std::string>{{"f", "file 2\n"}}), treeOf(dir / "out"));
  }
}

// ---- Listings and output

TEST(Mvtar, VerboseListingLooksLikeThatOfOtherTars) {
  ScratchDir dir;
  must(dir,
       R"(mkdir d && cd d && head -c 123456 /dev/zero > data && touch -d @1234567890 data && chmod 640 data &&
               touch s t u && chmod 4755 s && chmod 2641 t && chmod 1777 u && ln -s data sym && ln data hard &&
               mkfifo fifo && mkdir sub && chmod 1700 sub && touch -d @99999999999 late $'n\nl' && cd .. &&
               tar -cf a.tar --sort=name --owner=someone:7 --group=a-rather-long-group:8 d &&
               tar -rf a.tar --transform=s,d/,n/, --numeric-owner --owner=12345 --group=6789 d/s &&
               tar --format=pax -cf p.tar --sort=name d && gzip -nk p.tar)");
  const std::string theirs = shell(dir, "tar -tvf a.tar").out;
  EXPECT_TRUE(has(theirs, "-rw-r----- someone/a-rather-long-group 123456 2009-02-13 23:31 d/data\n"))
      << theirs;
  expectMvtar(dir, "-tvf a.tar", 0, theirs);
  for (const char* archive : {"p.tar", "p.tar.gz"}) {
    expectMvtar(dir, std::string("-tvf ") + archive, 0, shell(dir, "tar -tvf p.tar").out);
  }
}

TEST(Mvtar, XmlListingIsWellFormedInEveryForm) {
  ScratchDir dir;
  must(
      dir,
      R"(mkdir d && touch d/plain d/$'\001]]>&<"\377\n' d/$(printf 'l%.0s' {1..200}) && tar -cf a.tar --sort=name d)");
  makeForms(dir);
  for (const Form& form : kForms) {
    for (const std::string& name : {"a." + form.name, std::string("-")}) {
      const CommandResult result = mvtar(dir, "-t --xml -f " + name, readFile(dir / ("a." + form.name)));
      expect(result, 0, result.out, "");
      EXPECT_TRUE(has(result.out, "<path>d/plain</path>\r\n")) << result.out;
      EXPECT_EQ(0, run({"xmllint", "--noout", "-"}, result.out).status) << result.out;
    }
  }
  const CommandResult cut = mvtar(dir, "-t --xml -f -", readFile(dir / "a.tar").substr(0, 900));
  EXPECT_EQ(2, cut.status);
  EXPECT_EQ(0, run({"xmllint", "--noout", "-"}, cut.out).status);
}

TEST(Mvtar, OneFileToStandardOutput) {
  ScratchDir dir;
  must(dir,
       "mkdir -p d/sub && echo one > d/1 && echo two > d/sub/2 && seq 9999 > d/big && ln -s 1 d/sym && tar "
       "-cf a.tar --sort=name d");
  makeForms(dir);
  for (const Form& form : kForms) {
    const std::string archive = "a." + form.name, start = "-xOf " + archive;
    expectMvtar(dir, start, 0, "one\n");
    expectMvtar(dir, start + " --exclude=1 --match=*/2", 0, "two\n");
    expectMvtar(dir, start + " d/sub/", 0, "two\n");
    expectMvtar(dir, start + " d/none *x", 2, "",
                "d/none: not found in the archive\n*x: not found in the archive");
    expectMvtar(dir, start + " --match=sub --exclude=2", 2, "", archive + ": No such member.");
    expectMvtar(dir, start + " d/sym", 2, "", "d/sym: a symbolic link is kept as an ordinary file");
    expectMvtar(dir, "-xOf - d/big --totals", 0, readFile(dir / "d/big"), "1 members, 48888 bytes",
                readFile(dir / archive));
    EXPECT_EQ("d/sub/2\n", mvtar(dir, start + " -v d/sub").err);
  }
  EXPECT_FALSE(exists(dir / "1"));
}

TEST(Mvtar, NamesTotalsAndLogGoWhereTheyBelong) {
  ScratchDir dir;
  must(dir, "mkdir d && echo text > d/f && echo more > d/g");
  const std::string names = "d/\nd/f\nd/g\n", totals = "3 members, 10 bytes";
  expectMvtar(dir, "-cvf a.tar --totals d", 0, names, totals);
  for (const std::string compression : {"-z", "-j", "-v"}) {
    const CommandResult created = mvtar(dir, "-cvf - --totals d " + compression);
    EXPECT_EQ(names + said(totals, 0), created.err);
    expectMvtar(dir, "-xvf - -C out --totals", 0, names, totals, created.out);
    expectMvtar(dir, "-tf - --totals", 0, names, totals, created.out);
    expectMvtar(dir, "--verify -f - --totals", 0, "-: whole, 3 members\n", totals, created.out);
  }
  for (const auto& [words, line] :
       std::map<std::string, std::string>{{"-cf b.tar d", "WriteTar:\n"},
                                          {"-xf a.tar -C out", "Untar:\n"},
                                          {"--verify -f a.tar", "VerifyTar:\n"}}) {
    const CommandResult result = mvtar(dir, words + " --log");
    EXPECT_EQ(mvtar(dir, words).out, result.out);
    EXPECT_TRUE(result.err.rfind(line, 0) == 0 && has(result.err, "Success.\n")) << result.err;
  }
}

TEST(Mvtar, OptionsAndCharset) {
  ScratchDir dir;
  must(
      dir,
      R"(mkdir d link && touch d/$'\344' link/f && tar -cf a.tar d && tar -cf l.tar link/f && mkdir -p t/in && ln -s in t/link)");
  expectMvtar(dir, "-xf a.tar --charset=ISO-8859-1 -C out", 0);
  EXPECT_TRUE(exists(dir / "out/d/\xC3\xA4"));
  expectMvtar(dir, "-tf a.tar --charset=ISO-8859-1 d/\xE4", 0, "d/\xE4\n");
  // The command's own words hold, and the last of a word wins.
  expectMvtar(dir, "-xf l.tar -C t --options=NoTotal", 0);
  EXPECT_TRUE(exists(dir / "t/in/f"));
  expectMvtar(dir, "-xf l.tar -C t --options=NoTotal --options=confine=NoLinks", 2, "",
              "link/f: refused: its path leaves the target");
}

TEST(Mvtar, DebianPackage) {
  ScratchDir dir;
  must(dir, R"(mkdir -p in c d/usr && echo hi > d/usr/hi &&
      printf 'Package: p\nVersion: 1\nArchitecture: all\nMaintainer: m <m@example.org>\nDescription: d\n' > c/control &&
      mvtar -czf in/control.tar.gz -C c . && mvtar -czf in/data.tar.gz -C d . && tar -cJf in/data.tar.xz -C d .)");
  for (const std::string data : {"data.tar.gz", "data.tar.xz"}) {
    expectMvtar(dir, "--deb -f p.deb -C in control.tar.gz " + data, 0);
    must(dir, "mvtar --deb -f - in/control.tar.gz in/" + data + " > q.deb");
    for (const char* package : {"p.deb", "q.deb"}) {
      const std::string p = package;
      must(dir, "dpkg-deb --info " + p + " | grep 'Package: p' && dpkg-deb --contents " + p +
                    " | grep usr/hi && rm -rf x && dpkg-deb -x " + p + " x && diff -r d x");
    }
  }
  expectMvtar(dir, "--deb -f p.deb in/none in/data.tar.gz", 2, "", "in/none: No such file or directory");
  const std::string full = "No space left on device";
  expectMvtar(dir, "--deb -f /dev/full in/control.tar.gz in/data.tar.gz", 2, "", "/dev/full: " + full);
  expect(shell(dir, "mvtar --deb -f - in/control.tar.gz in/data.tar.gz > /dev/full"), 2, "",
         "standard output: " + full);
}

// ---- At a terminal

TEST(Mvtar, ArchivesAreNeitherWrittenToATerminalNorReadFromIt) {
  ScratchDir dir;
  must(dir, "mkdir d && touch d/f && mvtar -czf a.tgz d");
  for (const char* line : {"-cf - d", "-czvf - d", "-cf /dev/tty d", "--deb -f - a.tgz a.tgz",
                           "--deb -f /dev/tty a.tgz a.tgz"}) {
    Running command(dir, line, Running::Streams::Terminal);
    EXPECT_EQ(2, command.end());
    const std::string where = has(line, "/dev/tty") ? "/dev/tty" : "standard output";
    EXPECT_EQ("mvtar: " + where + ": an archive is not written to a terminal\r", split(command.err, '\n')[0]);
    EXPECT_EQ(3u, split(command.err, '\n').size()) << command.err;
  }
  Running command(dir, "-tf -", Running::Streams::Terminal);
  EXPECT_EQ(2, command.end());
  EXPECT_EQ("mvtar: standard input: an archive is not read from a terminal\r", split(command.err, '\n')[0]);
}

TEST(Mvtar, ProgressBar) {
  ScratchDir dir;
  must(dir, "truncate -s 64G huge && mkdir d && head -c 200K /dev/urandom > d/f && mvtar -cf a.tar d");
  const auto atTerminal = [&](const std::string& line) {
    Running command(dir, line, Running::Streams::TerminalForErrors);
    EXPECT_EQ(0, command.end());
    return command.err;
  };
  // Short jobs end before it would be shown.
  for (const char* line :
       {"-cf b.tar d", "-xf a.tar -C out --progress=auto", "-tf a.tar --progress=never", "-cf - d"}) {
    EXPECT_EQ("", atTerminal(line) + mvtar(dir, line).err) << line;
  }
  for (const char* line : {"-cvf b.tar d --progress", "-xf a.tar -C out --progress=always"}) {
    for (const std::string& err : {atTerminal(line), mvtar(dir, line).err}) {
      EXPECT_TRUE(has(err, "\r[####") && has(err, "] 100%")) << err;
      EXPECT_EQ("\r\033[K", err.substr(err.rfind('\r'))) << "gone at the end";
    }
  }
  // A long one shows it by and by; a message takes its place.
  Running command(dir, "-cf /dev/null huge", Running::Streams::TerminalForErrors);
  EXPECT_TRUE(command.says("\r["));
  command.kill(SIGINT);
  EXPECT_EQ(130, command.end());
  EXPECT_TRUE(has(command.err, "\r\033[Kmvtar: /dev/null: interrupted; the archive is incomplete\r\n"))
      << command.err;
}

}  // namespace
}  // namespace morvane::testing
#endif
