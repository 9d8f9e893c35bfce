// Whole trees there and back: other tars and we ourselves read what we write, and we read what they write.
// None of GNU tar, bsdtar and Python's tarfile may be missing.
#include <fstream>

#include "TestSupport.h"
#include "tar/format/TarBlock.h"

namespace morvane::testing {
namespace {

enum Reach { kV7, kUstar, kAny };  // which paths a format can hold

// Names, sizes and path lengths; every file has a time of its own.
void makeTree(const std::string& tree, Reach reach) {
  for (const size_t size : {0u, 1u, 511u, 512u, 513u, 20000u, 20001u, 300000u}) {
    writeFile(tree + "/sizes/" + std::to_string(size), noise(size, static_cast<unsigned>(size)));
  }
  for (const char* name : {"with space", "\xC3\xA4\xE2\x82\xAC", "-dash", "*?[x]", "\xE4\xFF", ".hidden"}) {
    writeFile(tree + "/names/" + name, name);
  }
  fs::create_directories(tree + "/empty/inner");
  // Below "./" a path has two bytes more; names of 157 to 167 bytes' prefix are ours alone.
  for (const size_t length :
       {90u, 97u, 98u, 99u, 100u, 101u, 153u, 156u, 200u, 254u, 255u, 256u, 257u, 997u}) {
    if (length > (reach == kV7 ? 97u : reach == kUstar ? 200u : 997u)) continue;
    std::string path(length, 'p');
    for (size_t i = 60; i + 1 < length; i += 61) path[i] = '/';
    path.replace(0, 4, std::to_string(1000 + length));
    writeFile(tree + "/" + path, path);
  }
  long long time = 1234567890;
  for (const auto& entry : fs::recursive_directory_iterator(tree)) {
    if (entry.is_regular_file()) setMtime(entry.path(), ++time);
  }
}

void expectSame(const std::string& tree, const std::string& copy) {
  EXPECT_EQ(treeOf(tree), treeOf(copy));
  for (const auto& [path, what] : treeOf(tree)) {
    if (what == "dir" || what == "file ") continue;  // not every way sets the time of an empty file
    EXPECT_EQ(mtimeOf(tree + "/" + path), mtimeOf(copy + "/" + path)) << path;
  }
}

void expectQuiet(const ScratchDir& dir, const std::string& script) {
  const CommandResult result = shell(dir, "export LC_ALL=C.UTF-8; " + script);
  EXPECT_TRUE(result.status == 0 && result.err.empty()) << script << result.err;
}

TEST(RoundTrip, OfWhatWeWrite) {
  for (const char* format : {"gnu", "pax", "ustar"}) {
    for (const char* words : {"", "PaxExact,UstarPlainPrefix,FullRead"}) {
      SCOPED_TRACE(std::string(format) + words);
      ScratchDir dir;
      makeTree(dir / "tree", *format == 'u' ? kUstar : kAny);
      TarWith tar(words);
      tar.put_WriteFormat(format);
      tar.AddDirRoot(dir / "tree");
      const XString plain(dir / "a.tar"), gzip(dir / "a.tgz"), bzip2(dir / "a.tbz");
      ASSERT_TRUE(tar.WriteTar(plain) && tar.WriteTarGz(gzip) && tar.WriteTarBz2(bzip2)) << logOf(tar);
      expectQuiet(dir, "mkdir gnu bsd && tar -xf a.tar -C gnu && bsdtar -xf a.tar -C bsd");
      expectQuiet(dir, "python3 -c 'import tarfile; tarfile.open(\"a.tar\").extractall(\"python\")'");
      for (const char* reader : {"gnu", "bsd", "python"}) expectSame(dir / "tree", dir / reader);
      for (const char form : {'t', 'g', 'b'}) {
        const ScratchDir out;
        TarWith ours(words, out.path());
        EXPECT_TRUE(form == 't'   ? ours.Untar(plain) >= 0
                    : form == 'g' ? ours.UntarGz(gzip)
                                  : ours.UntarBz2(bzip2))
            << logOf(ours);
        expectSame(dir / "tree", out.path());
      }
    }
  }
}

TEST(RoundTrip, OfWhatOthersWrite) {
  const std::string python =
      "python3 -c 'import sys, tarfile; t = tarfile.open(\"a.tar\", \"w\", format=getattr(tarfile, "
      "sys.argv[1])); "
      "t.add(\"tree\", \".\"); t.close()' ";
  const std::pair<std::string, Reach> kCases[] = {
      {"tar --format=v7 -cf a.tar -C tree .", kV7},
      {"tar --format=ustar -cf a.tar -C tree .", kUstar},
      {"tar --format=oldgnu -cf a.tar -C tree .", kAny},
      {"tar --format=gnu -cf a.tar -C tree .", kAny},
      {"tar --format=pax -cf a.tar -C tree .", kAny},
      {"bsdtar --format=ustar -cf a.tar -C tree .", kUstar},
      {"bsdtar --format=gnutar -cf a.tar -C tree .", kAny},
      // It says what it thinks of names that are no UTF-8.
      {"bsdtar --format=pax -cf a.tar -C tree . 2>/dev/null", kAny},
      {python + "USTAR_FORMAT", kUstar},
      {python + "GNU_FORMAT", kAny},
      {python + "PAX_FORMAT", kAny}};
  for (const auto& [command, reach] : kCases) {
    ScratchDir dir;
    makeTree(dir / "tree", reach);
    expectQuiet(dir, command);
    for (const std::string words : {"", "FullRead,Confine=nolinks"}) {
      SCOPED_TRACE(command + words);
      TarWith tar(words, dir / "out" + words);
      EXPECT_GT(tar.Untar(dir / "a.tar"), 0) << logOf(tar);
      expectSame(dir / "tree", dir / "out" + words);
    }
  }
}

}  // namespace
}  // namespace morvane::testing
