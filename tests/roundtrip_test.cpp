// Whole trees there and back, in every format and compression.
#include "TestSupport.h"

namespace morvane::testing {
namespace {

struct Case {
  const char* format;
  const char* suffix;
};

class RoundTrip : public ::testing::TestWithParam<Case> {};

bool write(ClsTar& tar, const XString& path, const std::string& suffix) {
  return suffix == ".tar"      ? tar.WriteTar(path)
         : suffix == ".tar.gz" ? tar.WriteTarGz(path)
                               : tar.WriteTarBz2(path);
}

bool read(ClsTar& tar, const XString& path, const std::string& suffix) {
  return suffix == ".tar"      ? tar.Untar(path) >= 0
         : suffix == ".tar.gz" ? tar.UntarGz(path)
                               : tar.UntarBz2(path);
}

TEST_P(RoundTrip, TreeIsRestored) {
  ScratchDir dir;
  const std::string tree = dir / "tree";
  const std::string part(48, 'd');
  for (const size_t size : {0u, 1u, 511u, 512u, 513u, 20000u, 20001u, 300000u}) {
    writeFile(tree + "/sizes/" + std::to_string(size), noise(size, static_cast<unsigned>(size)));
  }
  for (const char* name : {"with space", "\xC3\xA4\xE2\x82\xAC", "no utf-8 \xFF\xFE", "-dash", "*star"}) {
    writeFile(tree + "/names/" + name, name);
  }
  writeFile(tree + "/" + part + "/" + part + "/" + std::string(60, 'f'), "split in ustar");
  ASSERT_EQ(0, run({"mkdir", "-p", tree + "/empty/inner"}).status);
  setMtime(tree + "/sizes/513", 1234567890);

  ClsTar tar;
  tar.put_WriteFormat(GetParam().format);
  ASSERT_TRUE(tar.AddDirRoot(tree));
  const XString archive(dir / (std::string("a") + GetParam().suffix));
  ASSERT_TRUE(write(tar, archive, GetParam().suffix)) << logOf(tar);
  tar.put_UntarFromDir(dir / "out");
  ASSERT_TRUE(read(tar, archive, GetParam().suffix)) << logOf(tar);
  EXPECT_EQ(treeOf(tree), treeOf(dir / "out"));
  EXPECT_EQ(1234567890, mtimeOf(dir / "out/sizes/513"));
}

INSTANTIATE_TEST_SUITE_P(All, RoundTrip,
                         ::testing::Values(Case{"gnu", ".tar"}, Case{"gnu", ".tar.gz"},
                                           Case{"gnu", ".tar.bz2"}, Case{"pax", ".tar"},
                                           Case{"pax", ".tar.gz"}, Case{"pax", ".tar.bz2"},
                                           Case{"ustar", ".tar"}, Case{"ustar", ".tar.gz"},
                                           Case{"ustar", ".tar.bz2"}));

}  // namespace
}  // namespace morvane::testing
