// The command mvtar: how it is called, what it stores, selects, prints and says, and the status it ends with.
#ifdef MVTAR
#include <algorithm>
#include <set>

#include "MvtarSupport.h"

namespace morvane::testing {
namespace {

// ---- The command line

TEST(MvtarUsage, WrongUsageSaysWhatIsWrongAndDoesNothing) {
  std::vector<std::pair<Words, std::string>> cases = {
      {{}, "one of -c, -x, -t, --verify, --deb is needed"},
      {{"-f", "a.tar"}, "one of -c, -x, -t, --verify, --deb is needed"},
      {{"-c", "dir"}, "no archive: option '-f' is needed"},
      {{"-x"}, "no archive: option '-f' is needed"},
      {{"-t", "-f", ""}, "no archive: option '-f' is needed"},
      {{"--verify"}, "no archive: option '-f' is needed"},
      {{"--deb", "a", "b"}, "no archive: option '-f' is needed"},
      {{"-cf"}, "option '-f' needs a value"},
      {{"cf"}, "option '-f' needs a value"},
      {{"-cf", "a.tar", "dir", "-C"}, "option '-C' needs a value"},
      {{"-cf", "a.tar", "dir", "--exclude"}, "option '--exclude' needs a value"},
      {{"-cf", "a.tar"}, "nothing to put into the archive"},
      {{"-cf", "a.tar", "--"}, "nothing to put into the archive"},
      {{"-czjf", "a.tar", "dir"}, "only one of -z and -j"},
      {{"-cZf", "a.tar", "dir"}, "compress format can be read but not written"},
      {{"-cqf", "a.tar", "dir"}, "unknown option '-q'"},
      {{"cqf", "a.tar", "dir"}, "unknown option '-q'"},
      {{"-cf", "a.tar", "--bogus=1", "dir"}, "unknown option '--bogus'"},
      {{"-cf", "a.tar", "--b\x1B", "dir"}, "unknown option '--b\\033'"},
      {{"-cf", "a.tar", "--totals=3", "dir"}, "unknown option '--totals'"},
      {{"-cf", "a.tar", "--format=v7", "dir"}, "unknown format 'v7'"},
      {{"-cf", "a.tar", "--progress=now", "dir"}, "unknown value 'now' for --progress"},
      {{"-cf", "a.tar", "--charset=none-such", "dir"}, "unknown character set 'none-such'"},
      {{"-cf", "a.tar", "--options=PaxExact,Nonsense", "dir"}, "unknown word 'Nonsense' in --options"},
      {{"-xf", "a.tar", "--options=Confine=inside"}, "unknown word 'Confine=inside' in --options"},
      {{"-cf", "a.tar", "-C", "", "dir"}, "option '-C' needs a directory"},
      {{"--deb", "-f", "a.tar", "dir"}, "--deb takes a control and a data tarball"},
      {{"--deb", "-f", "a.tar", "a", "b", "c"}, "--deb takes a control and a data tarball"},
      {{"--verify", "-f", "a.tar", "dir"}, "--verify checks the whole archive"},
      {{"--verify", "-f", "a.tar", "--max-count=1"}, "--verify checks the whole archive"},
      {{"-tOf", "a.tar"}, "-O goes with -x"},
      {{"-xf", "a.tar", "--xml"}, "--xml goes with -t"},
      {{"-tf", "a.tar", "--xml", "dir"}, "--xml lists the whole archive"},
      {{"-tf", "a.tar", "--xml", "--max-count=2"}, "--xml lists the whole archive"},
      {{"-tf", "a.tar", "--xml", "--totals"}, "--totals does not go with --xml"},
      {{"-xf", "a.tar", "--prefix=p"}, "--prefix goes with -c"},
      {{"-cf", "a.tar", "--strip-paths", "dir"}, "--strip-paths goes with -x"},
  };
  const Words modes = {"-c", "-x", "-t", "--verify", "--deb"};
  for (const std::string& one : modes) {
    for (const std::string& other : modes) {
      if (one != other)
        cases.push_back({{one, other, "-f", "a.tar", "dir"}, "only one of -c, -x, -t, --verify, --deb"});
    }
  }
  for (const char* count : {"", "x", "1x", "-1", "1.5", "99999999999999999999"}) {
    cases.push_back({{"-cf", "a.tar", std::string("--max-count=") + count, "dir"},
                     "'" + std::string(count) + "' is no number of members"});
  }
  ScratchDir dir;
  must(dir, "mkdir dir");
  for (const auto& [words, complaint] : cases) {
    SCOPED_TRACE(complaint);
    expectRun(mvtar(dir, words), 64, "", "mvtar: " + complaint + "\nTry 'mvtar --help'.\n");
  }
  EXPECT_EQ((std::map<std::string, std::string>{{"dir", "dir"}}), treeOf(dir.path()));
}

TEST(MvtarUsage, HelpNamesEveryOptionAndVersionIsOneLine) {
  ScratchDir dir;
  const CommandResult help = mvtar(dir, {"--help"}), version = mvtar(dir, {"--version"});
  EXPECT_EQ(0, help.status);
  for (const char* word :
       {"-c ",         "-x ",   "-t ",       "--verify", "--deb",     "-f ",      "-C ",
        "-z",          "-j",    "--format",  "--match",  "--exclude", "--prefix", "--strip-paths",
        "--max-count", "-O",    "-P",        "--xml",    "--charset", "-v",       "--totals",
        "--progress",  "--log", "--options", "--help",   "--version"}) {
    EXPECT_TRUE(has(help.out, word)) << word;
  }
  expectRun(version, 0, "mvtar 1.0.0\n", "");
  EXPECT_EQ(2, shell(dir, "mvtar --help > /dev/full").status);
}

TEST(MvtarUsage, SpellingsMeanTheSame) {
  ScratchDir dir;
  must(dir, "mkdir -p top/d && touch top/d/f top/-dash");
  for (const Words& words : std::vector<Words>{{"-cf", "a.tar", "d"},
                                               {"cf", "a.tar", "d"},
                                               {"-c", "-f", "a.tar", "d"},
                                               {"-c", "-fa.tar", "--", "d"},
                                               {"--create", "--file=a.tar", "d"},
                                               {"--create", "--file", "a.tar", "d"},
                                               {"--create", "d", "-fa.tar"},
                                               {"c", "d", "-f", "a.tar"}}) {
    Words command = words;
    command.insert(command.begin(), {"env", "-C", dir / "top", kMvtar});
    expectRun(run(command), 0, "", "");
    expectRun(mvtar(dir, {"tf", "top/a.tar"}), 0, "d/\nd/f\n", "");
    must(dir, "rm top/a.tar");
  }
  expectRun(mvtar(dir, {"cfC", "a.tar", "top", "--", "-dash"}), 0, "", "");
  for (const Words& words : std::vector<Words>{
           {"-tf", "a.tar"}, {"-tzf", "a.tar"}, {"tjf", "a.tar"}, {"-Ztf", "a.tar"}, {"--list", "-fa.tar"}}) {
    expectRun(mvtar(dir, words), 0, "-dash\n", "");
  }
  expectRun(mvtar(dir, {"xvfC", "a.tar", "out/deep", "--", "-dash"}), 0, "-dash\n", "");
  EXPECT_TRUE(exists(dir / "out/deep/-dash"));
}

// ---- Names

struct NamesCase {
  const char* name;
  Words words;
  const char* listing;
  Words facts;  // what is said
  int status = 0;
};

class MvtarNames : public ::testing::TestWithParam<NamesCase> {};

TEST_P(MvtarNames, AreThoseThatAnotherTarWouldStore) {
  ScratchDir dir;
  must(dir,
       "mkdir -p here/dir/sub here/empty other && touch here/file here/dir/f here/dir/sub/g here/dir/.h "
       "other/o && "
       "ln -s dir here/link && ln -s nowhere here/dangling");
  const NamesCase& test = GetParam();
  Words command{"env", "-C", dir / "here", kMvtar, "-cvf", "../a.tar"};
  for (std::string word : test.words) {
    if (word.rfind("ABS/", 0) == 0) word = dir / word.substr(4);
    command.push_back(word);
  }
  std::string err, listing = test.listing;
  for (std::string fact : test.facts) err += "mvtar: " + fact + "\n";
  const std::string inRoot = dir.path().substr(1);
  for (std::string* text : {&err, &listing}) {
    for (size_t at; (at = text->find("ABS")) != std::string::npos;) text->replace(at, 3, inRoot);
  }
  expectRun(run(command), test.status, listing, err + (test.status ? kClosing : ""));
  expectRun(mvtar(dir, {"-tf", "a.tar"}), 0, listing, "");
  EXPECT_EQ(linesOf(listing), linesOf(shell(dir, "tar -tPf a.tar").out));
}

const NamesCase kNames[] = {
    {"DirectoryAndFile", {"dir", "file"}, "dir/\nfile\ndir/.h\ndir/f\ndir/sub/\ndir/sub/g\n", {}},
    {"SlashAtTheEnd", {"dir/sub///", "empty/"}, "dir/sub/\nempty/\ndir/sub/g\n", {}},
    {"LeadingDot", {"./dir/sub", "././file"}, "dir/sub/\nfile\ndir/sub/g\n", {}},
    {"TheSameTwice", {"dir/sub", "dir/sub"}, "dir/sub/\ndir/sub/\ndir/sub/g\ndir/sub/g\n", {}},
    {"TheDirectoryItself",
     {"."},
     "dangling\ndir/\ndir/.h\ndir/f\ndir/sub/\ndir/sub/g\nempty/\nfile\nlink/\n",
     {"./dangling: a symbolic link is not kept as one", "./link: a symbolic link is not kept as one"},
     2},
    {"LeadingParts",
     {"../other", "../here/file"},
     "other/\nhere/file\nother/o\n",
     {"../other: leading '../' is left off"}},
    {"PartsInBetween", {"dir/../file"}, "file\n", {"dir/../file: leading 'dir/../' is left off"}},
    {"Parent", {"../other/..", "--match=o"}, "other/o\n", {"../other/..: leading '../other/..' is left off"}},
    {"Absolute", {"ABS/other/o"}, "ABS/other/o\n", {"/ABS/other/o: leading '/' is left off"}},
    {"AbsoluteKept", {"-P", "ABS/other/o", "../other"}, "/ABS/other/o\n../other/\n../other/o\n", {}},
    {"OtherDirectory", {"-C", "dir", "."}, ".h\nf\nsub/\nsub/g\n", {}},
    {"OtherDirectories",
     {"file", "-C", "dir", "sub", "-C", "../../other", "o"},
     "file\nsub/\no\nsub/g\n",
     {}},
    {"AbsoluteDirectory",
     {"-C", "dir", "-C", "ABS/other", "o", "ABS/here/file", "-P"},
     "o\n/ABS/here/file\n",
     {}},
    {"Prefix", {"--prefix=p/q", "dir/sub", "file"}, "p/q/dir/sub/\np/q/file\np/q/dir/sub/g\n", {}},
    {"PrefixBeforeTheDirectoryItself", {"--prefix=p/", "-C", "dir/sub", "."}, "p/\np/g\n", {}},
    {"AbsolutePrefix", {"--prefix=/p", "file"}, "p/file\n", {"/p: leading '/' is left off"}},
    {"PrefixWithParts", {"--prefix=../p", "file"}, "p/file\n", {"../p: leading '../' is left off"}},
    {"AbsolutePrefixKept", {"-P", "--prefix=/p", "file"}, "/p/file\n", {}},
    {"Link", {"link"}, "link/\n", {"link: a symbolic link is not kept as one"}, 2},
    {"LinkWithASlash", {"link/"}, "link/\nlink/.h\nlink/f\nlink/sub/\nlink/sub/g\n", {}},
    {"MissingOnes",
     {"none", "-C", "dir", "no\nne", "f", "-C", "gone", "x"},
     "f\n",
     {"none: No such file or directory", "dir/no\\nne: No such file or directory",
      "dir/gone/x: No such file or directory"},
     2},
    {"NoName", {"", "file"}, "file\n", {": an empty path"}, 2},
};
INSTANTIATE_TEST_SUITE_P(, MvtarNames, ::testing::ValuesIn(kNames),
                         [](const auto& row) { return row.param.name; });

TEST(MvtarCreate, ControlCharactersAndBackSlashes) {
  ScratchDir dir;
  must(dir, R"(mkdir d && touch d/$'a\nb\t\001\177' d/$'c\\d' d/$'\303\244\377' d/$'e\033')");
  const std::string names = "d/\nd/a\\nb\\t\\001\\177\nd/c";
  expectRun(mvtar(dir, {"-cvf", "a.tar", "d"}), 2, names + "\\\\d\nd/e\\033\nd/\xC3\xA4\xFF\n",
            said({"d/c\\\\d: a back slash cannot be stored; it becomes a slash"}));
  expectRun(mvtar(dir, {"-tf", "a.tar"}), 0, names + "/d\nd/e\\033\nd/\xC3\xA4\xFF\n", "");
  must(dir, R"(tar -xf a.tar --one-top-level=out && rm d/c* && diff -r d out/d -x c && test -f out/d/c/d)");
  // The list of sources of the component ends its entries with this character.
  expectRun(mvtar(dir, {"-cf", "a.tar", "d/e\033", "--prefix=ok"}), 2, "",
            said({"d/e\\033: a name with an escape character cannot be archived"}));
}

// ---- Formats and compressions

TEST(MvtarCreate, FormatAndCompression) {
  const std::string plain = "d/", gzip = "\x1F\x8B", bzip2 = "BZh9";
  struct {
    Words words;
    std::string archive, start;
  } const cases[] = {
      {{}, "a.tar", plain},
      {{}, "a.tar.gz", gzip},
      {{}, "a.tgz", gzip},
      {{}, "a.tar.bz2", bzip2},
      {{}, "a.tbz", bzip2},
      {{}, "a.tbz2", bzip2},
      {{}, "a.gz", plain},
      {{}, "tgz", plain},
      {{"-z"}, "a.tar", gzip},
      {{"-j"}, "a.tar", bzip2},
      {{"-j"}, "a.tar.gz", bzip2},
      {{"-z"}, "a.tbz", gzip},
      {{"--format=ustar"}, "a.tar", plain},
      {{"--format=pax", "-z"}, "a", gzip},
  };
  ScratchDir dir;
  must(dir, "mkdir d && echo text > d/f");
  for (const auto& test : cases) {
    SCOPED_TRACE(test.archive);
    Words words{"-cf", test.archive, "d"};
    words.insert(words.end(), test.words.begin(), test.words.end());
    expectRun(mvtar(dir, words), 0, "", "");
    EXPECT_EQ(test.start, readFile(dir / test.archive).substr(0, test.start.size()));
    // Told by the content, never by the name.
    must(dir, "mv " + test.archive + " x.Z");
    EXPECT_EQ("d/\nd/f\n", run({"bsdtar", "-tf", dir / "x.Z"}).out);
    expectRun(mvtar(dir, {"-tf", "x.Z"}), 0, "d/\nd/f\n", "");
  }
  for (const auto& [format, magic] : std::map<std::string, std::string>{{"gnu", "ustar  "},
                                                                        {"ustar", std::string("ustar\0"
                                                                                              "00",
                                                                                              8)},
                                                                        {"pax", std::string("ustar\0"
                                                                                            "00",
                                                                                            8)}}) {
    const CommandResult result = mvtar(dir, {"-cf", "-", "--format=" + format, "d"});
    EXPECT_EQ(magic, result.out.substr(257, magic.size()));
  }
}

TEST(MvtarCreate, LongNamesInEachFormat) {
  ScratchDir dir;
  const std::string n90(90, 'n'), n120(120, 'm');
  must(dir, "mkdir -p d/" + n90 + " d/" + n120 + "/" + n120 + " && cd d && touch last " + n90 + "/" + n90 +
                " " + n120 + " " + n120 + "/f " + n120 + "/" + n120 + "/" + n90);
  const Words all = linesOf(shell(dir, "tar -cf - --sort=name d | tar -tf -").out);
  for (const char* format : {"gnu", "pax"}) {
    expectRun(mvtar(dir, {"-cf", "a.tar", std::string("--format=") + format, "d"}), 0, "", "");
    for (const char* reader : {"mvtar -tf", "tar -tf", "bsdtar -tf"}) {
      EXPECT_EQ(all, linesOf(shell(dir, std::string(reader) + " a.tar").out)) << format << reader;
    }
  }
  // What has no place in a ustar header is named; the rest is archived, and the archive is whole.
  const CommandResult ustar = mvtar(dir, {"-cvf", "a.tar", "--format=ustar", "d"});
  const std::string reason = ": its name is too long for the ustar format";
  expectRun(ustar, 2,
            "d/\nd/last\nd/" + n120 + "/f\nd/" + n120 + "/" + n120 + "/" + n90 + "\nd/" + n90 + "/\nd/" +
                n90 + "/" + n90 + "\n",
            said({"d/" + n120 + reason, "d/" + n120 + "/" + n120 + reason}));
  EXPECT_EQ(ustar.out, shell(dir, "tar -tf a.tar").out);
  expectRun(mvtar(dir, {"--verify", "-f", "a.tar"}), 0, "a.tar: whole, 6 members\n", "");
}

// ---- Which members

struct SelectionCase {
  const char* name;
  Words words;
  const char* listing;
  const char* unfound = "";
};

const SelectionCase kSelections[] = {
    {"All", {}, "t/ t/A.txt t/b/ t/b/c.txt t/b/d/ t/b/d/e t/bb t/x.o"},
    {"File", {"t/bb"}, "t/bb"},
    {"Directory", {"t/b"}, "t/b/ t/b/c.txt t/b/d/ t/b/d/e"},
    {"DirectoryWithSlash", {"./t/b/d/"}, "t/b/d/ t/b/d/e"},
    {"Several", {"t/x.o", "t/b/d"}, "t/b/d/ t/b/d/e t/x.o"},
    {"Pattern", {"t/*.txt"}, "t/A.txt t/b/c.txt"},
    {"PatternOverSlashes", {"*e"}, "t/b/d/e"},
    {"PartOfAName", {"t/x"}, "", "t/x"},
    {"NotAComponent", {"bb"}, "", "bb"},
    {"OneUnfound", {"t/bb", "no\\ne", "t/*.c"}, "t/bb", "no\\\\ne t/*.c"},
    {"Dot", {"."}, "t/ t/A.txt t/b/ t/b/c.txt t/b/d/ t/b/d/e t/bb t/x.o"},
    {"NoName", {""}, "", " "},
    {"Match", {"--match=*.txt"}, "t/A.txt t/b/c.txt"},
    {"MatchComponent", {"--match=d"}, "t/b/d/ t/b/d/e"},
    {"MatchWholePath", {"--match=t/b"}, "t/b/ t/b/c.txt t/b/d/ t/b/d/e"},
    {"MatchIsNoSearch", {"--match=b/d"}, ""},
    {"MatchWithSlashNeedsThePath", {"--match=b/", "--match=./d"}, ""},
    {"MatchCase", {"--match=a.txt"}, ""},
    {"MatchEither", {"--match=bb", "--match=e"}, "t/b/d/e t/bb"},
    {"Exclude", {"--exclude=b"}, "t/ t/A.txt t/bb t/x.o"},
    {"ExcludeBoth", {"--exclude=*.txt", "--exclude=t/b/d"}, "t/ t/b/ t/bb t/x.o"},
    {"ExcludeEverything", {"--exclude=t"}, ""},
    {"MatchAndExclude", {"--match=b", "--exclude=c.*"}, "t/b/ t/b/d/ t/b/d/e"},
    {"MemberMatchAndExclude", {"t/b", "t/x.o", "--match=*.*", "--exclude=*.o"}, "t/b/c.txt"},
    {"MaxCount", {"--max-count=3"}, "t/ t/A.txt t/b/"},
    {"MaxCountOfMatches", {"--match=*.*", "--max-count=2"}, "t/A.txt t/b/c.txt"},
    {"MaxCountEndsTheSearch", {"t/A.txt", "t/x.o", "--max-count=1"}, "t/A.txt"},
    {"MaxCountOfNone", {"t/bb", "--max-count=0"}, "t/bb"},
};

class MvtarSelection : public ::testing::TestWithParam<SelectionCase> {};

TEST_P(MvtarSelection, MeansTheSameInEveryFormAndDirection) {
  ScratchDir dir;
  must(dir,
       "mkdir -p t/b/d && for f in A.txt b/c.txt b/d/e bb x.o; do echo $f > t/$f; done && "
       "tar -cf a.tar --sort=name t");
  makeForms(dir);
  const SelectionCase& test = GetParam();
  std::string listing, err;
  std::set<std::string> files, lastNames;
  for (std::string name : linesOf(shell(dir, std::string("printf '%s\\n' ") + test.listing).out)) {
    if (name.empty()) continue;
    listing += name + "\n";
    if (name.back() == '/') continue;
    files.insert(name);
    lastNames.insert(name.substr(name.rfind('/') + 1));
  }
  const std::string unfound = test.unfound;
  for (size_t at = 0; at < unfound.size();) {
    const size_t end = std::min(unfound.find(' ', at), unfound.size());
    err += "mvtar: " + unfound.substr(at, end - at) + ": not found in the archive\n";
    at = end + 1;
  }
  const int status = err.empty() ? 0 : 2;
  if (status) err += kClosing;
  for (const Form& form : kForms) {
    const std::string archive = std::string("a.") + form.name, out = std::string("out.") + form.name;
    SCOPED_TRACE(archive);
    const auto with = [&](Words words) {
      words.insert(words.end(), test.words.begin(), test.words.end());
      return words;
    };
    expectRun(mvtar(dir, with({"-tf", archive})), status, listing, err);
    expectRun(mvtar(dir, with({"-tf", "-"}), readFile(dir / archive)), status, listing, err);
    expectRun(mvtar(dir, with({"-xvf", archive, "-C", out})), status, listing, err);
    std::set<std::string> extracted, stripped;
    for (const auto& [name, what] : treeOf(dir / out)) {
      if (what != "dir") extracted.insert(name);
    }
    EXPECT_EQ(files, extracted);
    if (test.name == std::string("MaxCount")) continue;  // directories do not count where none are made
    const CommandResult flat = mvtar(dir, with({"-xf", archive, "--strip-paths", "-C", out + "/flat"}));
    EXPECT_EQ(status, flat.status);
    for (const auto& [name, what] : treeOf(dir / (out + "/flat"))) stripped.insert(name);
    EXPECT_EQ(lastNames, stripped);
  }
  if (!test.words.empty() && test.words[0][0] != '-') return;
  // Creating: the operand itself comes before what lies below it, which is the order here anyway.
  Words words{"-cf", "new.tar", "t"};
  words.insert(words.end(), test.words.begin(), test.words.end());
  expectRun(mvtar(dir, words), 0, "", "");
  expectRun(mvtar(dir, {"-tf", "new.tar"}), 0, listing, "");
}
INSTANTIATE_TEST_SUITE_P(, MvtarSelection, ::testing::ValuesIn(kSelections),
                         [](const auto& row) { return row.param.name; });

TEST(MvtarExtract, ArchivesOfTheDirectoryItself) {
  ScratchDir dir;
  must(dir, "mkdir d && echo 1 > d/f && tar -cf a.tar -C d .");
  for (const Words& words : std::vector<Words>{{}, {"."}, {"./"}, {"--match=*"}, {"--exclude=x"}}) {
    Words list{"-tf", "a.tar"};
    list.insert(list.end(), words.begin(), words.end());
    expectRun(mvtar(dir, list), 0, "./\n./f\n", "");
  }
  expectRun(mvtar(dir, {"-xf", "a.tar", "-C", "out", "f"}), 0, "", "");
  EXPECT_EQ("1\n", readFile(dir / "out/f"));
}

TEST(MvtarExtract, StripPathsNamesWhatIsReplaced) {
  ScratchDir dir;
  must(dir, "mkdir -p a b && echo 1 > a/f && echo 2 > b/f && tar -cf a.tar a b && tar -rf a.tar b/f");
  makeForms(dir);
  for (const Form& form : kForms) {
    expectRun(mvtar(dir, {"-xf", std::string("a.") + form.name, "--strip-paths", "-C", "out"}), 2, "",
              said({"b/f: it replaces another member of the same last name"}));
    EXPECT_EQ((std::map<std::string, std::string>{{"f", "file 2\n"}}), treeOf(dir / "out"));
  }
}

TEST(MvtarExtract, TargetIsMade) {
  ScratchDir dir;
  must(dir, "touch file && mvtar -cf a.tar file && tar -cf none.tar -T /dev/null");
  for (const Words& words :
       std::vector<Words>{{"a.tar"}, {"none.tar"}, {"a.tar", "-P"}, {"a.tar", "--exclude=file"}}) {
    Words command{"-xf", words[0], "-C", "new/deep/"};
    command.insert(command.end(), words.begin() + 1, words.end());
    expectRun(mvtar(dir, command), 0, "", "");
    must(dir, "test -d new/deep && rm -r new");
  }
  expectRun(mvtar(dir, {"-xf", "none.tar", "-C", "file/sub"}), 2, "", said({"file/sub: Not a directory"}));
  expectRun(mvtar(dir, {"-xf", "none.tar", "-C", "file"}), 2, "", said({"file: Not a directory"}));
}

// ---- Listings and output

TEST(MvtarList, VerboseLooksLikeThatOfOtherTars) {
  ScratchDir dir;
  must(dir,
       R"(mkdir d && cd d && head -c 123456 /dev/zero > data && touch -d @1234567890 data && chmod 640 data &&
               touch s t u && chmod 4755 s && chmod 2641 t && chmod 1777 u && ln -s data sym && ln data hard &&
               mkfifo fifo && mkdir sub && chmod 1700 sub && touch -d @99999999999 late $'n\nl' &&
               truncate -s 3000000 big && cd .. &&
               tar -cf a.tar --sort=name --owner=someone:7 --group=a-rather-long-group:8 d &&
               tar -rf a.tar --transform=s,d/,n/, --numeric-owner --owner=12345 --group=6789 d/s &&
               tar --format=pax -cf p.tar --sort=name d)");
  for (const char* archive : {"a.tar", "p.tar"}) {
    const std::string theirs = shell(dir, std::string("tar -tvf ") + archive).out;
    expectRun(mvtar(dir, {"-tvf", archive}), 0, theirs, "");
    must(dir, std::string("gzip -nc ") + archive + " > z");
    expectRun(mvtar(dir, {"-tvf", "z"}), 0, theirs, "");
  }
  EXPECT_TRUE(has(mvtar(dir, {"-tvf", "a.tar"}).out,
                  "-rw-r----- someone/a-rather-long-group  123456 2009-02-13 23:31 d/data\n"));
}

TEST(MvtarList, XmlIsWellFormedInEveryForm) {
  ScratchDir dir;
  must(
      dir,
      R"(mkdir d && touch d/plain d/$'\001]]>&<"\377\n' d/$(printf 'l%.0s' {1..200}) && tar -cf a.tar --sort=name d)");
  makeForms(dir);
  for (const Form& form : kForms) {
    const std::string archive = std::string("a.") + form.name;
    for (const CommandResult& result : {mvtar(dir, {"-t", "--xml", "-f", archive}),
                                        mvtar(dir, {"-t", "--xml", "-f", "-"}, readFile(dir / archive))}) {
      EXPECT_EQ(0, result.status);
      EXPECT_EQ("", result.err);
      EXPECT_TRUE(has(result.out, "<path>d/plain</path>\r\n")) << archive;
      EXPECT_EQ(0, run({"xmllint", "--noout", "-"}, result.out).status) << result.out;
    }
  }
  must(dir, "head -c 900 a.tar > cut");
  const CommandResult cut = mvtar(dir, {"-t", "--xml", "-f", "cut"});
  EXPECT_EQ(2, cut.status);
  EXPECT_EQ(0, run({"xmllint", "--noout", "-"}, cut.out).status);
}

TEST(MvtarExtract, OneFileToStandardOutput) {
  ScratchDir dir;
  must(dir,
       "mkdir -p d/sub && echo one > d/1 && echo two > d/sub/2 && head -c 40000 /dev/urandom > d/big && "
       "ln -s 1 d/sym && tar -cf a.tar --sort=name d");
  makeForms(dir);
  for (const Form& form : kForms) {
    const std::string archive = std::string("a.") + form.name;
    SCOPED_TRACE(archive);
    expectRun(mvtar(dir, {"-xOf", archive}), 0, "one\n", "");
    expectRun(mvtar(dir, {"-xOvf", archive, "d/sub"}), 0, "two\n", "d/sub/2\n");
    expectRun(mvtar(dir, {"-xO", "-f", "-", "d/big", "--totals"}, readFile(dir / archive)), 0,
              readFile(dir / "d/big"), "mvtar: 1 members, 40000 bytes\n");
    expectRun(mvtar(dir, {"-xOf", archive, "--exclude=1", "--match=*/2"}), 0, "two\n", "");
    expectRun(mvtar(dir, {"-xOf", archive, "d/sub/"}), 0, "two\n", "");
    expectRun(mvtar(dir, {"-xOf", archive, "d/none", "*x"}), 2, "",
              said({"d/none: not found in the archive", "*x: not found in the archive"}));
    expectRun(mvtar(dir, {"-xOf", archive, "--match=sub", "--exclude=2"}), 2, "",
              said({archive + ": No such member."}));
    expectRun(mvtar(dir, {"-xOf", archive, "d/sym"}), 2, "",
              said({"d/sym: a symbolic link is kept as an ordinary file"}));
    EXPECT_EQ(2, shell(dir, "mvtar -xOf " + archive + " > /dev/full").status);
  }
  EXPECT_FALSE(exists(dir / "1"));
}

TEST(MvtarOutput, NamesTotalsAndLogGoWhereTheyBelong) {
  ScratchDir dir;
  must(dir, "mkdir d && echo text > d/f && echo more > d/g");
  const std::string names = "d/\nd/f\nd/g\n", totals = "mvtar: 3 members, 10 bytes\n";
  expectRun(mvtar(dir, {"-cvf", "a.tar", "--totals", "d"}), 0, names, totals);
  for (const char* compression : {"-z", "-j", "-v"}) {
    const CommandResult created = mvtar(dir, {"-cvf", "-", compression, "--totals", "d"});
    EXPECT_EQ(names + totals, created.err);
    expectRun(mvtar(dir, {"-xvf", "-", "-C", "out", "--totals"}, created.out), 0, names, totals);
    expectRun(mvtar(dir, {"-tf", "-", "--totals"}, created.out), 0, names, totals);
    expectRun(mvtar(dir, {"--verify", "-f", "-", "--totals"}, created.out), 0, "-: whole, 3 members\n",
              totals);
  }
  for (const auto& [words, line] : std::map<Words, std::string>{{{"-cf", "b.tar", "d"}, "WriteTar:\n"},
                                                                {{"-xf", "a.tar", "-C", "out"}, "Untar:\n"},
                                                                {{"--verify", "-f", "a.tar"}, "VerifyTar:\n"},
                                                                {{"-tf", "none"}, ""}}) {
    Words logged = words;
    logged.push_back("--log");
    const CommandResult result = mvtar(dir, logged);
    EXPECT_EQ(mvtar(dir, words).out, result.out);
    EXPECT_EQ(0u, result.err.find(line)) << result.err;
    EXPECT_EQ(!line.empty(), has(result.err, "Success.")) << result.err;
  }
}

TEST(MvtarOutput, OptionsAndCharset) {
  ScratchDir dir;
  must(
      dir,
      R"(mkdir d in && touch d/$'\344' && tar -cf a.tar d && mkdir -p t/in && ln -s in t/link && mkdir link && touch link/f && tar -cf l.tar link/f)");
  expectRun(mvtar(dir, {"-xf", "a.tar", "--charset=ISO-8859-1", "-C", "out"}), 0, "", "");
  EXPECT_TRUE(exists(dir / "out/d/\xC3\xA4"));
  expectRun(mvtar(dir, {"-tf", "a.tar", "--charset=ISO-8859-1", "d/\xE4"}), 0, "d/\xE4\n", "");
  // The command's own words hold, and the last of a word wins.
  expectRun(mvtar(dir, {"-xf", "l.tar", "-C", "t"}), 0, "", "");
  EXPECT_TRUE(exists(dir / "t/in/f"));
  expectRun(mvtar(dir, {"-xf", "l.tar", "-C", "t", "--options=NoTotal", "--options=confine=NoLinks"}), 2, "",
            said({"link/f: refused: its path leaves the target"}));
}

// ---- Packages

TEST(MvtarDeb, IsAPackage) {
  ScratchDir dir;
  must(dir, R"(mkdir -p in c d/usr/share && echo hi > d/usr/share/hi &&
      printf 'Package: p\nVersion: 1\nArchitecture: all\nMaintainer: m <m@example.org>\nDescription: d\n' > c/control &&
      mvtar -czf in/control.tar.gz -C c . && mvtar -czf in/data.tar.gz -C d . && xz -k < in/data.tar.gz > /dev/null &&
      tar -cJf in/data.tar.xz -C d .)");
  for (const char* data : {"data.tar.gz", "data.tar.xz"}) {
    expectRun(mvtar(dir, {"--deb", "-f", "p.deb", "-C", "in", "control.tar.gz", data}), 0, "", "");
    must(dir, std::string("mvtar --deb -f - in/control.tar.gz in/") + data +
                  " > q.deb && cmp -s <(tail -c 200 p.deb) <(tail -c 200 q.deb)");
    for (const char* package : {"p.deb", "q.deb"}) {
      EXPECT_TRUE(has(run({"dpkg-deb", "--info", dir / package}).out, "Package: p"));
      EXPECT_TRUE(has(run({"dpkg-deb", "--contents", dir / package}).out, "usr/share/hi"));
      EXPECT_EQ(0, run({"dpkg-deb", "-x", dir / package, dir / "x"}).status);
      EXPECT_EQ("hi\n", readFile(dir / "x/usr/share/hi"));
    }
  }
  expectRun(mvtar(dir, {"--deb", "-f", "p.deb", "in/none", "in/data.tar.gz"}), 2, "",
            said({"in/none: No such file or directory"}));
  for (const char* to : {"-f - a b > /dev/full", "-f /dev/full a b"}) {
    EXPECT_TRUE(has(shell(dir, std::string("cp in/control.tar.gz a && cp a b && mvtar --deb ") + to).err,
                    "No space left on device"));
  }
}

// ---- At a terminal

TEST(MvtarTerminal, ArchivesAreNeitherWrittenToNorReadFromIt) {
  ScratchDir dir;
  must(dir, "mkdir d && touch d/f && mvtar -czf a.tgz d");
  struct {
    Words words;
    const char* where;
  } const cases[] = {{{"-cf", "-", "d"}, "standard output"},
                     {{"-czvf", "-", "d"}, "standard output"},
                     {{"-cf", "/dev/tty", "d"}, "/dev/tty"},
                     {{"--deb", "-f", "-", "a.tgz", "a.tgz"}, "standard output"},
                     {{"--deb", "-f", "/dev/tty", "a.tgz", "a.tgz"}, "/dev/tty"}};
  for (const auto& test : cases) {
    Running command(dir, test.words, Running::Streams::Terminal);
    EXPECT_EQ(2, command.end());
    EXPECT_EQ(0u, command.err.find(std::string("mvtar: ") + test.where +
                                   ": an archive is not written to a terminal\r\n"))
        << command.err;
    EXPECT_FALSE(has(command.err, "ustar"));
  }
  Running reading(dir, {"-tf", "-"}, Running::Streams::Terminal);
  EXPECT_EQ(2, reading.end());
  EXPECT_TRUE(has(reading.err, "mvtar: standard input: an archive is not read from a terminal"));
}

TEST(MvtarTerminal, ProgressBar) {
  ScratchDir dir;
  must(dir, "truncate -s 64G huge && mkdir d && head -c 3M /dev/urandom > d/f");
  const auto atTerminal = [&](Words words) {
    Running command(dir, words, Running::Streams::TerminalForErrors);
    EXPECT_EQ(0, command.end());
    return command.err;
  };
  // Short jobs end before it would be shown.
  for (const Words& words : std::vector<Words>{{"-cf", "a.tar", "d"},
                                               {"-xf", "a.tar", "-C", "out", "--progress=auto"},
                                               {"-tf", "a.tar", "--progress=never"},
                                               {"-cf", "-", "d"}}) {
    EXPECT_EQ("", atTerminal(words));
    EXPECT_EQ("", mvtar(dir, words).err);
  }
  for (const Words& words : std::vector<Words>{{"-cvf", "a.tar", "d", "--progress"},
                                               {"-xf", "a.tar", "-C", "out", "--progress=always"}}) {
    for (const std::string& err : {atTerminal(words), mvtar(dir, words).err}) {
      EXPECT_TRUE(has(err, "\r[####")) << err;
      EXPECT_TRUE(has(err, "] 100%")) << err;
      EXPECT_EQ("\r\033[K", err.substr(std::max<size_t>(err.size(), 4) - 4));  // gone at the end
    }
  }
  // A long one shows it by and by; a message takes its place.
  Running command(dir, {"-cf", "/dev/null", "huge"}, Running::Streams::TerminalForErrors);
  EXPECT_TRUE(command.says("\r[")) << command.err;
  command.kill(SIGINT);
  EXPECT_EQ(130, command.end());
  EXPECT_TRUE(has(command.err, "\r\033[Kmvtar: /dev/null: interrupted; the archive is incomplete\r\n"))
      << command.err;
  EXPECT_FALSE(command.endedBySignal());
}

}  // namespace
}  // namespace morvane::testing
#endif
