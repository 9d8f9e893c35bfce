// Names that mvtar changes on their way: bounds, what is said of members by then, and where links lead.
#ifdef MVTAR

#include "MvtarSupport.h"
#include "cli/NameTransform.h"

namespace morvane::testing {
namespace {

// A few replacements that double a name would fill all memory.
TEST(MvtarTransform, NamesDoNotGrowWithoutEnd) {
  ScratchDir dir;
  must(dir, "mkdir d && touch d/aaaaaaaa");
  std::string doubling;
  for (int i = 0; i < 40; ++i) doubling += "s/a/&&/g;";
  expectMvtar(dir, "-cf a.tar d --transform=" + doubling, 2, "", "d/aaaaaaaa: its name becomes too long");
  expectMvtar(dir, "-tf a.tar", 0, "d/\n");
  // What is beyond the bound is left as it is, once.
  std::string pairs, error;
  for (int i = 0; i < 20000; ++i) pairs += "ba";
  mvtar::NameTransform transform;
  ASSERT_TRUE(transform.add("s/a/xxxx/g", error));
  const std::string changed = transform.apply(pairs, mvtar::NameTransform::Of::SymbolicLink);
  EXPECT_EQ(20000, std::count(changed.begin(), changed.end(), 'b'));
}

TEST(MvtarTransform, MembersThatAreKeptAreNotNamedAsDone) {
  ScratchDir dir;
  must(dir,
       "mkdir -p d out/e && echo f > d/f && echo g > d/g && touch out/f out/e/f && tar -cf a.tar d/f d/g");
  makeForms(dir);
  for (const Form& form : kForms) {
    for (const char* const change : {"--strip-components=1 f", "--transform=s,^d,//e, e/f"}) {
      const Words words = split(change, ' ');
      expectMvtar(dir, "-xkvf a." + form.name + " -C out " + words[0] + " --totals", 2, "d/g\n",
                  words[1] + ": it is there already, and is kept\n1 members, 2 bytes");
      must(dir, "rm out/g out/e/g 2> /dev/null; true");
    }
  }
}

// A target that keeps its name is none while it has not come, nor when it is left out; what is there from
// before is one only where the archive has nothing of its name.
TEST(MvtarTransform, HardLinksWhoseTargetsKeepTheirNames) {
  const ArchiveBuilder::Member link{"b", "", '1', "a"}, file{"a", "new"};
  const struct {
    std::vector<ArchiveBuilder::Member> members;
    const char *words, *linked;  // what c is then; null: refused
  } kCases[] = {{{file, link}, "", "new"},
                {{link, file}, "", "new"},
                {{link}, "", "old"},
                {{file, link}, " --exclude=a", nullptr},
                {{link, file}, " --exclude=a", nullptr},
                {{file, link}, " b", nullptr}};
  for (const auto& [members, words, linked] : kCases) {
    ScratchDir dir;
    ArchiveBuilder archive;
    for (const auto& member : members) archive.add(member);
    writeFile(dir / "a.tar", archive.bytes());
    makeForms(dir);
    for (const Form& form : kForms) {
      must(dir, "rm -rf out && mkdir out && printf old > out/a");
      expectMvtar(dir, "-xf a." + form.name + " -C out --transform=s/b/c/H" + words, linked ? 0 : 2, "",
                  linked ? "" : "c: The target of a hard link was not extracted.");
      EXPECT_EQ(linked ? linked : "", readFile(dir / "out/c"));
    }
  }
}

}  // namespace
}  // namespace morvane::testing
#endif
