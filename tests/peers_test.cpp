// Other tars read what we write, and we read what they write: GNU tar, bsdtar and Python's tarfile. None of
// them may be missing.
#include <unistd.h>

#include <filesystem>

#include "TestSupport.h"
#include "tar/TarBlock.h"
#include "tar/write/HeaderBlock.h"

namespace morvane::testing {
namespace {

namespace fs = std::filesystem;

const char kPythonRead[] = "import sys,tarfile; tarfile.open(sys.argv[1]).extractall(sys.argv[2])";
const char kPythonWrite[] =
    "import sys,tarfile\n"
    "t=tarfile.open(sys.argv[1],'w',format=getattr(tarfile,sys.argv[3]))\n"
    "t.add(sys.argv[2],arcname='.'); t.close()";

enum Reach { kV7, kUstar, kAny };  // which paths a format can hold

// Names, sizes and path lengths; every file has a time of its own.
void makeTree(const std::string& tree, Reach reach) {
  for (const size_t size : {0u, 1u, 511u, 512u, 513u, 20000u, 20001u}) {
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
  for (const auto& entry : fs::recursive_directory_iterator(tree)) {
    const std::string path = entry.path();
    if (!entry.is_regular_file()) continue;
    EXPECT_EQ(mtimeOf(path), mtimeOf(copy + path.substr(tree.size()))) << path;
  }
}

CommandResult runPeer(std::vector<std::string> command) {
  command.insert(command.begin(), {"env", "LC_ALL=C.UTF-8"});
  return run(command);
}

TEST(Peers, AreInstalled) {
  for (const char* program : {"tar", "bsdtar", "python3"}) EXPECT_TRUE(isInstalled(program)) << program;
}

TEST(Peers, ReadOurs) {
  for (const char* format : {"gnu", "pax", "ustar"}) {
    for (const char* words : {"", "PaxExact,UstarPlainPrefix"}) {
      ScratchDir dir;
      makeTree(dir / "tree", *format == 'u' ? kUstar : kAny);
      ClsTar tar;
      tar.put_WriteFormat(format);
      tar.put_UncommonOptions(words);
      tar.AddDirRoot(dir / "tree");
      const std::string archive = dir / "a.tar";
      ASSERT_TRUE(tar.WriteTar(archive)) << logOf(tar);
      fs::create_directories(dir / "gnu");
      fs::create_directories(dir / "bsd");
      const std::pair<std::string, CommandResult> kPeers[] = {
          {"gnu", runPeer({"tar", "-xf", archive, "-C", dir / "gnu"})},
          {"bsd", runPeer({"bsdtar", "-xf", archive, "-C", dir / "bsd"})},
          {"python", runPeer({"python3", "-c", kPythonRead, archive, dir / "python"})}};
      for (const auto& [peer, result] : kPeers) {
        SCOPED_TRACE(format + (" by " + peer));
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_EQ("", result.err);
        expectSame(dir / "tree", dir / peer);
      }
    }
  }
}

TEST(Peers, WriteForUs) {
  struct Case {
    std::vector<std::string> command;  // without the archive and the tree
    Reach reach;
  };
  const Case kCases[] = {
      {{"tar", "--format=v7", "-cf"}, kV7},
      {{"tar", "--format=ustar", "-cf"}, kUstar},
      {{"tar", "--format=oldgnu", "-cf"}, kAny},
      {{"tar", "--format=gnu", "-cf"}, kAny},
      {{"tar", "--format=pax", "-cf"}, kAny},
      {{"bsdtar", "--format=ustar", "-cf"}, kUstar},
      {{"bsdtar", "--format=pax", "-cf"}, kAny},
      {{"bsdtar", "--format=gnutar", "-cf"}, kAny},
      {{"bsdtar", "--format=v7", "-cf"}, kV7},
      {{"USTAR_FORMAT"}, kUstar},
      {{"GNU_FORMAT"}, kAny},
      {{"PAX_FORMAT"}, kAny},
  };
  for (const Case& each : kCases) {
    ScratchDir dir;
    makeTree(dir / "tree", each.reach);
    std::vector<std::string> command = each.command;
    if (command.size() == 1) {
      command = {"python3", "-c", kPythonWrite, dir / "a.tar", dir / "tree", command[0]};
    } else {
      command.insert(command.end(), {dir / "a.tar", "-C", dir / "tree", "."});
    }
    const CommandResult made = runPeer(command);
    ASSERT_EQ(0, made.status) << made.err;
    for (const char* word : {"", "FullRead,Confine=nolinks"}) {
      SCOPED_TRACE(each.command.back() + each.command.front() + " " + word);
      ClsTar tar;
      tar.put_UncommonOptions(word);
      tar.put_UntarFromDir(dir / word + "out");
      EXPECT_GT(tar.Untar(dir / "a.tar"), 0) << logOf(tar);
      expectSame(dir / "tree", dir / word + "out");
    }
  }
}

// A size in base-256 is read by all as we write it; of the member itself nothing is on the disk.
TEST(Peers, AgreeOnSizesOverEightGiB) {
  ScratchDir dir;
  constexpr long long kSize = 8589934592 + 1;
  const std::string huge = ArchiveBuilder().add({"huge", "", '0', "", "", true, 1700000000, kSize}).bytes(0);
  writeFile(dir / "a.tar", huge);
  fs::resize_file(dir / "a.tar", 512 + static_cast<std::uintmax_t>(paddedSize(kSize)));
  writeFile(dir / "rest", ArchiveBuilder().add({"next", "data", '0', "", "", true}).bytes());
  ASSERT_EQ(0, run({"sh", "-c", "cat rest >> a.tar"}, "", dir.path()).status);
  const char* const python = "import sys,tarfile; [print(m.name, m.size) for m in tarfile.open(sys.argv[1])]";
  for (const CommandResult& listed :
       {run({"tar", "-tvf", dir / "a.tar"}), run({"bsdtar", "-tvf", dir / "a.tar"}),
        run({"python3", "-c", python, dir / "a.tar"})}) {
    EXPECT_EQ(0, listed.status) << listed.err;
    EXPECT_NE(std::string::npos, listed.out.find("8589934593")) << listed.out;
    EXPECT_NE(std::string::npos, listed.out.find("next")) << listed.out;
  }
  ClsTar tar;
  RecordingEvent event;
  EXPECT_TRUE(tar.VerifyTar(dir / "a.tar", &event)) << logOf(tar);
  EXPECT_EQ((std::vector<std::string>{"0 huge 8589934593 0", "0 next 4 8589935616"}), event.headers);
  // Theirs: base-256, and a pax record.
  for (const char* format : {"GNU_FORMAT", "PAX_FORMAT"}) {
    const std::string block =
        "import sys,tarfile; m=tarfile.TarInfo('m'); m.size=9<<30; "
        "sys.stdout.buffer.write(m.tobuf(tarfile." +
        std::string(format) + "))";
    tar.put_UncommonOptions("FullRead");
    TricklingSource source(run({"python3", "-c", block}).out, 512);
    RecordingEvent theirs;
    EXPECT_FALSE(tar.VerifyTar(source, &theirs));
    ASSERT_EQ(1u, theirs.headers.size());
    EXPECT_EQ(0u, theirs.headers[0].find("0 m 9663676416 ")) << theirs.headers[0];
  }
}

}  // namespace
}  // namespace morvane::testing
