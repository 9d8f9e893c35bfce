// zstd and xz in both directions, and archives of any compression with every check.
#include <filesystem>

#include "ArchiveSupport.h"
#include "TestSupport.h"

namespace morvane::testing {
namespace {

// What the build has, with the program that makes and takes the same.
struct Kind {
  const char *suffix, *program;
  bool (ClsTar::*write)(const XString&, ProgressEvent*);
  bool (ClsTar::*read)(const XString&, ProgressEvent*);
};
constexpr Kind kKinds[] = {
    {".tar.zst", "zstd -q", &ClsTar::WriteTarZst, &ClsTar::UntarZst},
    {".tar.xz", "xz", &ClsTar::WriteTarXz, &ClsTar::UntarXz},
};

bool shellRuns(const ScratchDir& dir, const std::string& script) {
  return run({"sh", "-c", script}, "", dir.path()).status == 0;
}

TEST(AnyCompression, ThereAndBack) {
  for (const Kind& kind : kKinds) {
    for (const char* words : {"", "Level=1", "Level=19"}) {
      SCOPED_TRACE(std::string(kind.suffix) + " " + words);
      ScratchDir dir;
      writeFile(dir / "t/big", noise(400000, 7) + std::string(2000000, 'x'));
      writeFile(dir / "t/d/small", "data");
      ClsTar tar;
      tar.put_UncommonOptions(words);
      tar.AddDirRoot(dir / "t");
      const std::string archive = dir / ("a" + std::string(kind.suffix));
      writeFile(archive, "what was there");
      if (!(tar.*kind.write)(archive, nullptr)) {
        ASSERT_TRUE(logHas(tar, "This build has no ")) << logOf(tar);
        EXPECT_EQ("what was there", readFile(archive));
        continue;
      }
      tar.put_UntarFromDir(dir / "out");
      EXPECT_TRUE((tar.*kind.read)(archive, nullptr)) << logOf(tar);
      EXPECT_EQ(treeOf(dir / "t"), treeOf(dir / "out"));
      EXPECT_TRUE(tar.VerifyAny(archive)) << logOf(tar);
      EXPECT_TRUE(
          shellRuns(dir, std::string(kind.program) + " -dc a" + kind.suffix + " | tar -tf - > /dev/null"));
      // Several in a row are one archive; anything else behind them is none.
      ASSERT_TRUE(shellRuns(dir, std::string(kind.program) + " -dc a" + kind.suffix +
                                     " > a.tar; head -c 100000 a.tar | " + kind.program +
                                     " -c > b; tail -c +100001 a.tar | " + kind.program +
                                     " -c >> b; cp b c; echo more and more >> c"));
      EXPECT_TRUE(tar.UntarAny(dir / "b")) << logOf(tar);
      EXPECT_FALSE(tar.UntarAny(dir / "c"));
      EXPECT_TRUE(logHas(tar, "What follows is no ") || logHas(tar, "are damaged.")) << logOf(tar);
    }
  }
}

// Cuts and flipped bits all over, but for those that change nothing of what comes out.
TEST(AnyCompression, DamageNeverPasses) {
  for (const Kind& kind : kKinds) {
    ScratchDir dir;
    writeFile(dir / "t/f", noise(3000, 5));
    ClsTar tar;
    tar.AddDirRoot(dir / "t");
    tar.put_UntarFromDir(dir / "out");
    if (!(tar.*kind.write)(dir / "a", nullptr)) continue;
    const std::string whole = readFile(dir / "a");
    for (size_t at = 0; at < whole.size(); at += 7) {
      std::string flipped = whole;
      flipped[at] = static_cast<char>(flipped[at] ^ 1 << at % 8);
      for (const std::string& bytes : {whole.substr(0, at), flipped}) {
        writeFile(dir / "x", bytes);
        std::filesystem::remove_all(dir / "out");
        const bool passes = tar.UntarAny(dir / "x");
        EXPECT_TRUE(!passes || treeOf(dir / "out") == treeOf(dir / "t")) << kind.suffix << " " << at;
        EXPECT_TRUE(!passes || bytes == flipped) << "cut at " << at;
        // The decompressor has said what is wrong; that the rest is missing is no second fault.
        EXPECT_FALSE(logHas(tar, "has no end-of-archive mark") || logHas(tar, "Unexpected end of archive"));
      }
    }
  }
}

TEST(AnyCompression, IsToldByTheContent) {
  ScratchDir dir;
  ClsTar tar;
  writeFile(dir / "t/f", std::string(100000, 'f'));
  tar.AddDirRoot(dir / "t");
  ASSERT_TRUE(tar.WriteTar(dir / "tar") && tar.WriteTarGz(dir / "gz") && tar.WriteTarBz2(dir / "bz2"));
  shellRuns(dir, "compress -c tar > Z");
  tar.put_UntarFromDir(dir / "out");
  for (const char* name : {"tar", "gz", "bz2", "Z"}) {
    shellRuns(dir, "rm -rf out");
    EXPECT_TRUE(tar.VerifyAny(dir / name) && !exists(dir / "out")) << logOf(tar);
    EXPECT_TRUE(tar.UntarAny(dir / name)) << logOf(tar);
    EXPECT_EQ(treeOf(dir / "t"), treeOf(dir / "out")) << name;
    // Without its end mark no archive is whole.
    ASSERT_TRUE(shellRuns(
        dir, "head -c 101000 tar > cut; case " + std::string(name) +
                 " in gz) gzip -c cut > x;; bz2) bzip2 -c cut > x;; Z) compress -c cut > x;; *) cp cut x;; "
                 "esac; true"));
    EXPECT_FALSE(tar.VerifyAny(dir / "x")) << name;
  }
  const std::pair<std::string, const char*> kForeign[] = {
      {"", "The archive is empty."},
      {"PK\3\4rest", "This is a ZIP archive, no tar."},
      {"some text\n", "This is text, no archive."},
      {std::string("\1\2\3\0\5", 5), "This is no archive of a known kind."}};
  for (const auto& [bytes, message] : kForeign) {
    writeFile(dir / "x", bytes);
    EXPECT_TRUE(!tar.UntarAny(dir / "x") && logHas(tar, message)) << logOf(tar);
  }
}

// What a header claims takes no memory before it is looked at. The limit is one of bytes: what claims just so
// many passes, and one more does not.
TEST(AnyCompression, WindowsAreBounded) {
  ScratchDir dir;
  ClsTar tar;
  writeFile(dir / "t/f", std::string(300000, 'f'));
  tar.AddDirRoot(dir / "t");
  ASSERT_TRUE(tar.WriteTar(dir / "tar"));
  const long long size = static_cast<long long>(std::filesystem::file_size(dir / "tar"));
  const struct {
    const char* script;
    long long claims;
  } kRows[] = {
      {"zstd -q --long=24 -c < tar > x", 1 << 24},
      {"zstd -q --no-check tar -o x", size},
      {"head -c 512 tar > y; zstd -qc y > x; tail -c +513 tar > y; zstd -qc y >> x", size - 512},
      {"head -c 512 tar > y; zstd -qc y > x; tail -c +513 tar | zstd -q --zstd=wlog=19 >> x", 1 << 19},
      {"xz --lzma2=dict=1536KiB -c < tar > x", 1536 * 1024},
      {"xz --delta --x86 --arm --lzma2=dict=12KiB -c < tar > x", 12 * 1024},
      {"xz --format=lzma --lzma1=dict=1MiB -c < tar > x", 1 << 20},
  };
  for (const auto& [script, claims] : kRows) {
    SCOPED_TRACE(script);
    std::filesystem::remove(dir / "x");
    ASSERT_TRUE(shellRuns(dir, script));
    tar.put_UncommonOptions(("MaxWindowBytes=" + std::to_string(claims - 1)).c_str());
    EXPECT_FALSE(tar.VerifyAny(dir / "x"));
    if (logHas(tar, "This build has no ")) continue;
    EXPECT_TRUE(logHas(tar, "than MaxWindowBytes allows.")) << logOf(tar);
    tar.put_UncommonOptions(("MaxWindowBytes=" + std::to_string(claims)).c_str());
    EXPECT_TRUE(tar.VerifyAny(dir / "x")) << logOf(tar);
  }
}

// Formats that the libraries know and this component does not, and data of which only the checksum is wrong.
TEST(AnyCompression, WhatTheLibrariesWouldPassIsAFailure) {
  ScratchDir dir;
  TarWith tar("Profile=usual", dir / "out");
  const std::string oldFrame("\x50\x2A\x4D\x18\0\0\0\0\x27\xB5\x2F\xFD\0\0\0\0\0\0", 18);
  const struct {
    std::string bytes, message;
    bool (ClsTar::*untar)(const XString&, ProgressEvent*);
  } kRows[] = {{oldFrame, "What follows is no zstd data.", &ClsTar::UntarZst},
               {oldFrame.substr(8), "What follows is no zstd data.", &ClsTar::UntarZst},
               {"LZIP\1\x0C", "What follows is no xz data.", &ClsTar::UntarXz}};
  for (const auto& [bytes, message, untar] : kRows) {
    writeFile(dir / "x", bytes);
    EXPECT_FALSE((tar.*untar)(dir / "x", nullptr));
    EXPECT_TRUE(logHas(tar, message.c_str()) || logHas(tar, "This build has no ")) << logOf(tar);
  }
  ASSERT_TRUE(shellRuns(dir, "mkdir d && echo text > d/f && tar -c d | zstd -q > x"));
  std::string bytes = readFile(dir / "x");
  bytes.back() ^= 1;
  writeFile(dir / "x", bytes);
  EXPECT_FALSE(tar.UntarZst(dir / "x"));
  EXPECT_TRUE(exists(dir / "out/d/f") || logHas(tar, "This build has no ")) << logOf(tar);
}

}  // namespace
}  // namespace morvane::testing
