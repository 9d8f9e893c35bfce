// The command mvtar: how it is called, what it stores, selects, prints and says, and the status it ends with.
#ifdef MVTAR

#include "MvtarSupport.h"

namespace morvane::testing {
namespace {

// ---- The command line

TEST(Mvtar, WrongUsageSaysWhatIsWrongAndDoesNothing) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "one of -c, -x, -t, -d, -r, -u, --verify, --deb is needed"},
      {"-c -x -f a.tar dir", "only one of -c, -x, -t, -d, -r, -u, --verify, --deb"},
      {"-r dir", "-r and -u need option '-f' and a file"},
      {"-rzf a.tar dir", "a compressed archive cannot be appended to"},
      {"-uf a.tgz dir", "'a.tgz' promises a compression; a compressed archive cannot be appended to"},
      {"-cf a.zip dir", "'a.zip' promises a compression that cannot be written"},
      {"-cf a.tar.Z dir", "'a.tar.Z' promises a compression that cannot be written"},
      {"-cf a.taZ dir", "'a.taZ' promises a compression that cannot be written"},
      {"-cf A.ZIP dir", "'A.ZIP' promises a compression that cannot be written"},
      {"-rf A.GZ dir", "'A.GZ' promises a compression; a compressed archive cannot be appended to"},
      {"-xf a.tar --overwrite",
       "--overwrite is not safe: it would write through links and into files that others have open"},
      {"-cf a.tar -k dir", "-k, --skip-old-files and --keep-newer-files go with -x"},
      {"-xf a.tar --remove-files", "--remove-files goes with -c"},
      {"-tf a.tar --exclude-",
       "option '--exclude-' is ambiguous: --exclude-from, --exclude-vcs, --exclude-caches"},
      {"-cf a.tar --newer=whenever dir", "'whenever' is neither a date nor a file"},
      {"-cf a.tar --mode=u+q dir", "'u+q' is no mode"},
      {"-cf a.tar --owner=no-such-user dir", "unknown owner 'no-such-user'"},
      {"-cf a.tar --transform=s/a/ dir", "--transform: a part is missing in 's/a/'"},
      {"-xf a.tar --strip-components=-1", "'-1' is no number of components"},
      {"cf", "option '-f' needs a value"},
      {"-cf a.tar dir --exclude", "option '--exclude' needs a value"},
      {"-cf a.tar -C  dir", "option '-C' needs a directory"},
      {"-cf a.tar --", "nothing to put into the archive"},
      {"-czjf a.tar dir", "only one of -z, -j, -J, --zstd, -I"},
      {"-xZJf a.tar", "only one of -z, -j, -J, -Z, --zstd, -I"},
      {"-I gzip -I zstd -cf a.tar dir", "only one of -z, -j, -J, --zstd, -I"},
      {"-tf a.tar --strip-paths", "--strip-paths goes with -x"},
      {"-cZf a.tar dir", "compress format can be read but not written"},
      {"-cqf a.tar dir", "unknown option '-q'"},
      {"-cof a.tar dir", "-o goes with -x; the old format that it means elsewhere with -c is not written"},
      {"-xf a.tar --xattrs --no-acls", "attributes and access lists are kept together or not at all"},
      {"-cJf a.tar --level=10 dir", "levels of xz are 1 to 9"},
      {"-cf a.tar --b\x1B=1 dir", "unknown option '--b\\033'"},
      {"-cf a.tar --format=v7 dir", "unknown format 'v7'"},
      {"-cf a.tar --progress=now dir", "unknown value 'now' for --progress"},
      {"-cf a.tar --charset=none-such dir", "unknown character set 'none-such'"},
      {"-cf a.tar --options=PaxExact,Nonsense dir", "unknown word 'Nonsense' in --options"},
      {"-cf a.tar --max-count=1x dir", "'1x' is no number of members"},
      {"-cf a.tar --max-count=99999999999999999999 dir", "'99999999999999999999' is no number of members"},
      {"--deb -f a.tar a b c", "--deb takes a control and a data tarball"},
      {"--deb a b", "--deb needs option '-f'"},
      {"--deb -f a.deb a b -T list", "--deb takes the tarballs whole"},
      {"--deb -f a.deb a b --exclude=x", "--deb takes the tarballs whole"},
      {"-cf a.tar --threads=65 dir", "'65' is no number of threads; --threads takes 0 to 64"},
      {"--verify -f a.tar dir", "--verify checks the whole archive"},
      {"-tOf a.tar", "-O goes with -x"},
      {"-xf a.tar --xml", "--xml goes with -t"},
      {"-xf a.tar --prefix=p", "--prefix goes with -c"}};
  ScratchDir dir;
  must(dir, "mkdir dir");
  for (const auto& [line, complaint] : cases) expectMvtar(dir, line, 64, "", complaint);
  EXPECT_EQ((std::map<std::string, std::string>{{"dir", "dir"}}), treeOf(dir.path()));
}

TEST(Mvtar, HelpIsOnOneScreenAndVersionIsOneLine) {
  ScratchDir dir;
  const CommandResult help = mvtar(dir, "--help"), all = mvtar(dir, "--help=all");
  expect(help, 0, help.out, "");
  expect(all, 0, all.out, "");
  const Words lines = split(help.out, '\n');
  EXPECT_LE(lines.size(), 25u);
  for (const std::string& line : lines) EXPECT_LE(line.size(), 80u) << line;
  // Each option of the table is told by all, and none is unknown.
  for (const std::string& row : split(mvtar(dir, "--help=options").out, '\n')) {
    const bool isTold = row.empty() || has(all.out, split(row, '\t')[1]);
    EXPECT_TRUE(isTold) << row;
  }
  for (const char* line : {"--version", "-x --version", "--version -c"})
    expectMvtar(dir, line, 0, "mvtar 1.0.0\n");
  expect(mvtar(dir, "-xz --help"), 0, help.out, "");
}

TEST(Mvtar, SpellingsMeanTheSame) {
  ScratchDir dir;
  must(dir, "mkdir d && touch d/f ./-dash");
  for (const char* line : {"cfC a.tar . d -- -dash", "-c -fa.tar -- d -dash",
                           "--create d --file=a.tar --directory . -- -dash", "c d -f a.tar -- -dash"}) {
    expectMvtar(dir, line, 0);
    for (const char* reading : {"tjf a.tar", "-Ztf a.tar", "--list --gzip -fa.tar"})
      expectMvtar(dir, reading, 0, "d/\n-dash\nd/f\n");
    must(dir, "rm a.tar");
  }
}

// ---- Names

TEST(Mvtar, NamesAreThoseThatAnotherTarWouldStore) {
  ScratchDir dir;
  must(dir, "mkdir -p dir/sub empty other && touch file dir/f dir/sub/g dir/.h other/o && ln -s dir link");
  const std::string here = dir.path().substr(1), left = " is left off", gone = ": No such file or directory";
  const struct {
    std::string words, listing, facts;
    int status = 0;
  } cases[] = {{"dir file", "dir/ file dir/.h dir/f dir/sub/ dir/sub/g", ""},
               {"./dir/sub/// ././file dir/sub", "dir/sub/ file dir/sub/ dir/sub/g dir/sub/g", ""},
               {". --exclude=d*", "empty/ file link other/ other/o", ""},
               {"dir/../file", "file", "dir/../file: leading 'dir/../'" + left},
               {"other/.. --match=o", "other/o", "other/..: leading 'other/..'" + left},
               {"/" + here + "/file", here + "/file", "/" + here + "/file: leading '/'" + left},
               {"-P /" + here + "/file dir/../other", "/" + here + "/file dir/../other/ dir/../other/o", ""},
               {"-C dir .", ".h f sub/ sub/g", ""},
               {"file -C dir sub -C ../other o -C /" + here + "/dir f", "file sub/ o f sub/g", ""},
               {"--prefix=p/q dir/sub file", "p/q/dir/sub/ p/q/file p/q/dir/sub/g", ""},
               {"--prefix=../p/ -C dir/sub .", "p/ p/g", "../p/: leading '../'" + left},
               {"link", "link", ""},
               {"link/", "link/ link/.h link/f link/sub/ link/sub/g", ""},
               {"none  -C dir no\ne f -C gone x", "f",
                "none" + gone + "\n: an empty path\ndir/no\\ne" + gone + "\ndir/gone/x" + gone, 2}};
  for (const auto& test : cases) {
    std::string listing = test.listing + "\n";
    std::replace(listing.begin(), listing.end(), ' ', '\n');
    expectMvtar(dir, "-cvf a.tar " + test.words, test.status, listing, test.facts);
    EXPECT_EQ(listing, shell(dir, "tar -tPf a.tar").out);
  }
}

TEST(Mvtar, ControlCharactersAndBackSlashes) {
  ScratchDir dir;
  must(dir, R"(mkdir d && touch d/$'a\nb\t\001\177' d/$'c\\d' d/$'\303\244\377\302\233' d/$'e\033')");
  const std::string before = "d/\nd/a\\nb\\t\\001\\177\nd/c",
                    behind = "d\nd/e\\033\nd/\xC3\xA4\xFF\\302\\233\n";
  expectMvtar(dir, "-cvf a.tar d", 2, before + "\\\\" + behind,
              "d/c\\\\d: a back slash cannot be stored; it becomes a slash");
  expectMvtar(dir, "-tf a.tar", 0, before + "/" + behind);
  // The component's list of single sources ends its entries with this character.
  expectMvtar(dir, "-cf a.tar d/e\033", 2, "",
              "d/e\\033: a name with an escape character cannot be archived");
}

// ---- Formats and compressions

TEST(Mvtar, CompressionIsChosenByOptionOrNameAndToldByContent) {
  const std::string plain = "d/", gzip = "\x1F\x8B", bzip2 = "BZh9";
  const std::pair<std::string, std::string> cases[] = {
      {"a.tar", plain}, {"a.tar.gz", gzip}, {"a.tgz", gzip},        {"a.tar.bz2", bzip2},    {"a.tbz", bzip2},
      {"a.gz", gzip},   {"a.tbz2", bzip2},  {"a.tar.bz2 -z", gzip}, {"a.tgz --bzip2", bzip2}};
  ScratchDir dir;
  must(dir, "mkdir d && echo text > d/f");
  for (const auto& [words, start] : cases) {
    expectMvtar(dir, "-c d -f " + words, 0);
    must(dir, "mv " + split(words, ' ')[0] + " x.Z");
    EXPECT_EQ(start, readFile(dir / "x.Z").substr(0, start.size())) << words;
    for (const char* const reading : {"-tf x.Z", "-tJf x.Z --level=20"})
      expectMvtar(dir, reading, 0, "d/\nd/f\n");
  }
}

TEST(Mvtar, LongNamesInEachFormat) {
  ScratchDir dir;
  const std::string m120(120, 'm'), deep = "d/" + m120 + "/" + m120;
  must(dir, "mkdir -p " + deep + " && touch d/last " + deep + "/" + m120);
  const std::pair<const char*, const char*> formats[] = {{"", "././@LongLink"}, {" --format=pax", " path="}};
  for (const auto& [option, record] : formats) {
    expectMvtar(dir, std::string("-cf a.tar d") + option, 0);
    EXPECT_TRUE(has(readFile(dir / "a.tar"), record)) << option;
    expectMvtar(dir, "-tf a.tar", 0,
                "d/\nd/last\nd/" + m120 + "/\n" + deep + "/\n" + deep + "/" + m120 + "\n");
  }
  // What has no place in a ustar header is named; the rest is archived, and the archive is whole.
  const std::string reason = ": its name is too long for the ustar format", rest = "d/\nd/last\n";
  expectMvtar(dir, "-cvf a.tar --format=ustar d", 2, rest,
              "d/" + m120 + reason + "\n" + deep + reason + "\n" + deep + "/" + m120 + reason);
  EXPECT_EQ(rest, shell(dir, "tar -tf a.tar").out);
  expectMvtar(dir, "--verify -f a.tar", 0, "a.tar: whole, 2 members\n");
  // A prefix that is nothing but a slash is none.
  const std::string m100(100, 'n');
  must(dir, "touch d/" + m100);
  expectMvtar(dir, "-cvPf a.tar --format=ustar --prefix=/ -C d " + m100 + " last", 2, "/last\n",
              "d/" + m100 + reason);
}

// ---- Which members

const struct SelectionCase {
  const char *words, *listing, *facts = "";
} kSelections[] = {
    {"t/bb", "t/bb"},
    {"./t/b/d/ t/x.o", "t/b/d/ t/b/d/e t/x.o"},
    {"*e", "t/b/d/e"},  // * stands for slashes too
    {"t/x bb no\\ne t/b*b", "t/bb",
     "t/x: not found in the archive\nbb: not found in the archive\nno\\\\ne: not found in the archive"},
    {".", "t/ t/A.txt t/b/ t/b/c.txt t/b/d/ t/b/d/e t/bb t/x.o"},
    {"--match=*.txt", "t/A.txt t/b/c.txt"},
    {"--match=d --match=t/bb", "t/b/d/ t/b/d/e t/bb"},
    {"--match=b/d --match=d/ --match=./bb", ""},  // with a slash only the whole path counts
    {"--match=a.txt", ""},
    {"--exclude=b", "t/ t/A.txt t/bb t/x.o"},
    {"--exclude=*.txt --exclude=t/b/d", "t/ t/b/ t/bb t/x.o"},
    {"--match=b --exclude=c.*", "t/b/ t/b/d/ t/b/d/e"},
    {"t/b t/x.o --match=*.* --exclude=*.o", "t/b/c.txt"},
    {"--match=*.* --max-count=2", "t/A.txt t/b/c.txt"},
    {"t/A.txt t/x.o --max-count=1", "t/A.txt"},  // the search ends there
    {"--match=bb --max-count=0", "t/bb"}};

// Every meaning is tried in every form in the course of the cases.
TEST(Mvtar, SelectionMeansTheSameInEveryFormAndDirection) {
  ScratchDir dir;
  // The comment becomes a record that is no member.
  must(dir,
       "mkdir -p t/b/d && for f in A.txt b/c.txt b/d/e bb x.o; do echo $f > t/$f; done && "
       "tar --format=pax --pax-option=comment=c --sort=name -cf a.tar t");
  makeForms(dir);
  size_t turn = 0;
  const auto nextForm = [&turn] { return " a." + kForms[turn++ % std::size(kForms)].name + " "; };
  for (const SelectionCase& test : kSelections) {
    SCOPED_TRACE(test.words);
    std::string listing;
    std::map<std::string, std::string> files, flat;
    for (const std::string& name : split(test.listing, ' ')) {
      if (name.empty()) continue;
      listing += name + "\n";
      if (name.back() != '/')
        files[name] = flat[name.substr(name.rfind('/') + 1)] = "file " + name.substr(2) + "\n";
    }
    const std::string words = test.words;
    const int status = *test.facts ? 2 : 0;
    expectMvtar(dir, "-tf" + nextForm() + words, status, listing, test.facts);
    expectMvtar(dir, "-xvf" + nextForm() + words + " -C out", status, listing, test.facts);
    auto extracted = treeOf(dir / "out");
    for (const char* made : {"t", "t/b", "t/b/d"}) extracted.erase(made);
    EXPECT_EQ(files, extracted);
    EXPECT_EQ(status, mvtar(dir, "-xf" + nextForm() + words + " --strip-paths -C flat").status);
    EXPECT_EQ(flat, treeOf(dir / "flat"));
    const CommandResult xml = mvtar(dir, "-t --xml -f" + nextForm() + words);
    writeFile(dir / "xml", xml.out);
    expect(xml, status, xml.out, test.facts);
    must(dir, "xmllint --noout --schema " MORVANE_TESTDATA "/../../docs/xml-listing.xsd xml");
    EXPECT_EQ(listing, shell(dir, "sed -n 's,.*<path>\\(.*\\)</path>.*,\\1,p' xml | tr -d '\\r'").out);
    must(dir, "rm -rf out flat");
    if (words[0] != '-') continue;
    expectMvtar(dir, "-cf new.tar t " + words, 0);
    expectMvtar(dir, "-tf new.tar", 0, listing);
  }
}

TEST(Mvtar, ExtractionTargetAndStripPaths) {
  ScratchDir dir;
  must(dir,
       "mkdir d e && echo 1 > d/f && echo 2 > e/f && tar -cf a.tar d/f e/f && tar -rf a.tar e/f && "
       "tar -cf dot.tar -C d .");
  makeForms(dir);
  expectMvtar(dir, "-tf dot.tar . --match=*", 0, "./\n./f\n");
  for (const char* words : {"dot.tar f", "a.tar --exclude=f", "a.tar -P"}) {
    expectMvtar(dir, std::string("-x -C new/deep/ -f ") + words, 0);
    must(dir, "rm -r new/deep");  // it is there, whatever was extracted
  }
  expectMvtar(dir, "-xf a.tar -C d/f/sub", 2, "", "d/f/sub: Not a directory");
  for (const Form& form : kForms) {
    expectMvtar(dir, "-xf a." + form.name + " --strip-paths -C out", 2, "",
                "e/f: it replaces another member of the same last name");
    EXPECT_EQ("2\n", readFile(dir / "out/f"));
    // Other options change the whole name before its last part is taken.
    expectMvtar(dir, "-xf a." + form.name + " --strip-paths --strip-components=1 -C changed", 2, "",
                "e/f: it replaces another member of the same last name");
    expectMvtar(dir, "-xf a." + form.name + " --strip-paths --transform=s,e/,x-, -C changed", 0);
    EXPECT_EQ("f\nx-f\n1\n2\n", shell(dir, "ls changed; cat changed/*; rm -r changed").out);
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
          tar --format=pax -czf p.tar.gz --sort=name d)");
  for (const std::string archive : {"a.tar", "p.tar.gz"})
    expectMvtar(dir, "-tvf " + archive, 0, shell(dir, "tar -tvf " + archive).out);
}

TEST(Mvtar, FilesToStandardOutput) {
  ScratchDir dir;
  must(dir,
       "mkdir -p d/sub && echo one > d/1 && echo two > d/sub/2 && seq 9999 > d/big && "
       "tar -cf a.tar --sort=name d");
  makeForms(dir);
  for (const Form& form : kForms) {
    const std::string archive = "a." + form.name, start = "-xOf " + archive;
    expectMvtar(dir, start, 0, "one\n" + readFile(dir / "d/big") + "two\n");
    expectMvtar(dir, start + " d/1 d/sub", 0, "one\ntwo\n");
    expectMvtar(dir, start + " --max-count=1", 0, "one\n");
    expect(shell(dir, "set -o pipefail; mvtar --max-count=1 " + start + " | cat"), 0, "one\n", "");
    expectMvtar(dir, start + " d/none *x", 2, "",
                "d/none: not found in the archive\n*x: not found in the archive");
    expectMvtar(dir, start + " --match=sub --exclude=2", 0);
    expectMvtar(dir, "-xOf - d/big --totals", 0, readFile(dir / "d/big"), "1 members, 48888 bytes",
                readFile(dir / archive));
  }
  // What is cut off behind the member is not its matter, though it came in one piece with it.
  must(dir, "head -c 2500000 /dev/urandom > noise && tar -cf a.tar -C d 1 -C .. noise");
  makeForms(dir);
  for (const Form& form : kForms) {
    must(dir, "truncate -s 1500000 a." + form.name);
    for (const std::string reading : {"mvtar --max-count=1 -xOf a.", "mvtar --max-count=1 -xOf - < a."})
      expect(shell(dir, reading + form.name), 0, "one\n", "");
  }
}

TEST(Mvtar, NamesTotalsAndLogGoWhereTheyBelong) {
  ScratchDir dir;
  must(dir, "mkdir d && echo text > d/f && echo more > d/g");
  const std::string names = "d/\nd/f\nd/g\n", totals = "3 members, 10 bytes";
  expectMvtar(dir, "-cvf a.tar --totals d", 0, names, totals);
  for (const std::string compression : {" -z", " -j", ""}) {
    const CommandResult created = mvtar(dir, "-cvf - --totals d" + compression);
    EXPECT_EQ(names + said(totals, 0), created.err);
    expectMvtar(dir, "-xvf - -C out --totals", 0, names, totals, created.out);
    expectMvtar(dir, "-tf - --totals", 0, names, totals, created.out);
    expectMvtar(dir, "--verify -f - --totals", 0, "-: whole, 3 members\n", totals, created.out);
  }
  EXPECT_EQ("d/f\n", mvtar(dir, "-xvOf a.tar d/f").err);
  // What cannot be written is neither named nor counted, though workers could be at it while it is.
  must(dir,
       "for i in $(seq 10 59); do head -c $((i == 30 ? 60000 : 9)) /dev/zero > d/$i; done; tar -cf b.tar "
       "--sort=name d");
  const std::string all = shell(dir, "tar -tf b.tar | grep -v d/30").out;
  expect(shell(dir, "ulimit -f 32; exec mvtar -xvf b.tar -C few --totals"), 2, all,
         "d/30: File too large\n52 members, 451 bytes");
  ArchiveBuilder huge;
  huge.add({"f", "x"}).add({"g", "", '0', "", "", false, 0, std::numeric_limits<long long>::max()});
  expectMvtar(dir, "-t -f - --totals", 2, "f\ng\n",
              "2 members, 9223372036854775807 bytes\n-: The archive ends without an end-of-archive mark.",
              huge.bytes());
  const CommandResult logged = mvtar(dir, "-xf a.tar --log");
  EXPECT_TRUE(logged.out.empty() && logged.err.rfind("Untar:\n", 0) == 0 && has(logged.err, "Success.\n"));
}

TEST(Mvtar, OptionsAndCharset) {
  ScratchDir dir;
  must(dir, R"(mkdir d && touch d/$'\344' && tar -cf a.tar d && mkdir -p t/in && ln -s in t/d)");
  expectMvtar(dir, "-tf a.tar --charset=ISO-8859-1 *\xC3\xA4", 0, "d/\xC3\xA4\n");
  expectMvtar(dir, "-xf a.tar --charset=ISO-8859-1 -C out", 0);
  EXPECT_TRUE(exists(dir / "out/d/\xC3\xA4"));
  // The command's own words hold, and the last of a word wins.
  expectMvtar(dir, "-xf a.tar d/* -C t --options=NoTotal", 0);
  EXPECT_TRUE(exists(dir / "t/in/\xE4"));
  expectMvtar(dir, "-xf a.tar d/* -C t --options=NoTotal --options=confine=NoLinks", 2, "",
              "d/\xE4: refused: a link or file on its way may not be passed");
}

TEST(Mvtar, DebianPackage) {
  ScratchDir dir;
  must(dir, R"(mkdir -p in c d/usr && echo hi > d/usr/hi &&
      printf 'Package: p\nVersion: 1\nArchitecture: all\nMaintainer: m <m@example.org>\nDescription: d\n' > c/control &&
      mvtar -czf in/control.tar.gz -C c . && mvtar -czf in/data.tar.gz -C d .)");
  expectMvtar(dir, "--deb -f p.deb -C in control.tar.gz data.tar.gz", 0);
  must(dir, "dpkg-deb --info p.deb | grep 'Package: p' && dpkg-deb -x p.deb x && diff -r d x");
  must(dir, "mvtar --deb -f - in/control.tar.gz in/data.tar.gz | dpkg-deb -x /dev/stdin y && diff -r d y");
  expectMvtar(dir, "--deb -f p.deb in/none in/data.tar.gz", 2, "", "in/none: No such file or directory");
  for (const std::string archive : {"/dev/full", "-"}) {
    expect(shell(dir, "mvtar --deb in/control.tar.gz in/data.tar.gz > /dev/full -f " + archive), 2, "",
           (archive == "-" ? "standard output" : archive) + ": No space left on device");
  }
}

// ---- At a terminal

}  // namespace
}  // namespace morvane::testing
#endif
