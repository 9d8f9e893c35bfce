// mvtar beside GNU tar: the same command lines on the same trees, and what came of them. The lines stand in
// testdata/gnu_tar.txt, and gnu_tar.py runs and compares them.
#ifdef MVTAR

#include "MvtarSupport.h"

namespace morvane::testing {
namespace {

class GnuTar : public ::testing::TestWithParam<const char*> {};

TEST_P(GnuTar, DoesTheSame) {
  ScratchDir dir;
  const CommandResult result = run({"python3", MORVANE_TESTDATA "/gnu_tar.py", MVTAR,
                                    MORVANE_TESTDATA "/../../docs/mvtar.1", dir / "scratch", GetParam()});
  EXPECT_EQ("", result.out);
  EXPECT_TRUE(result.status == 0 && has(result.err, " lines\n")) << result.err;
  EXPECT_FALSE(result.err == "0 lines\n");
}

INSTANTIATE_TEST_SUITE_P(Parts, GnuTar,
                         ::testing::Values("members", "order", "tree", "printed", "named", "sources"),
                         [](const auto& part) { return std::string(part.param); });

}  // namespace
}  // namespace morvane::testing
#endif
