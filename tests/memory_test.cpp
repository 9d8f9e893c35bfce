// Archives taken into memory: the first matching member, and Debian packages.
#include <ctime>
#include <filesystem>

#include "TestSupport.h"

namespace morvane::testing {
namespace {

std::string bytesOf(const DataBuffer& buffer) {
  return std::string(reinterpret_cast<const char*>(buffer.getData2()), buffer.getSize());
}

void fill(DataBuffer& buffer, const std::string& bytes) {
  buffer.clear();
  buffer.append(bytes.data(), static_cast<unsigned>(bytes.size()));
}

class FirstMatch : public ::testing::Test {
 protected:
  // The same from memory, from a file, and from a source that cannot seek; behind what is in the destination.
  void expectMatch(const std::string& archive, const std::string& pattern, bool ok, const std::string& found,
                   const std::string& log) {
    DataBuffer bytes, destination;
    fill(bytes, archive);
    fill(destination, "before ");
    EXPECT_EQ(ok, m_tar.UntarFirstMatchingToMemory(bytes, pattern, destination)) << pattern;
    EXPECT_EQ("before " + found, bytesOf(destination)) << pattern;
    EXPECT_EQ(archive, bytesOf(bytes));
    const std::string verdict = ok ? "    Success.\n" : "    Failure.\n";
    EXPECT_EQ("UntarFirstMatchingToMemory:\n" + log + verdict, logOf(m_tar));
    EXPECT_EQ(ok, m_tar.UntarFirstMatchingToMemory(bytes, pattern, bytes)) << "into the archive's own buffer";
    EXPECT_EQ(archive + found, bytesOf(bytes)) << pattern;

    writeFile(m_dir / "a.tar", archive);
    ClsBinData fromFile, fromSource;
    fill(fromFile.data(), "before ");
    EXPECT_EQ(ok, m_tar.UntarFirstMatchingToBd(m_dir / "a.tar", pattern, fromFile)) << pattern;
    EXPECT_EQ("before " + found, bytesOf(fromFile.data())) << pattern;
    EXPECT_EQ("UntarFirstMatchingToBd:\n" + log + verdict, logOf(m_tar));
    TricklingSource source(archive, 700);
    EXPECT_EQ(ok, m_tar.UntarFirstMatchingToBd(source, pattern, fromSource)) << pattern;
    EXPECT_EQ(found, bytesOf(fromSource.data())) << pattern;
  }

  const ScratchDir m_dir;
  ClsTar m_tar;
};

std::string said(const std::string& pattern, const std::string& more) {
  return "    matchPattern: " + pattern + "\n" + more;
}
std::string extracting(const std::string& path) { return "    extractingFilename: " + path + "\n"; }
const std::string kNoMatch = "    No match found to extract.\n";

TEST_F(FirstMatch, TableOfPatterns) {
  const std::string archive = ArchiveBuilder()
                                  .add({"a.bin", noise(1500, 1)})
                                  .add({"docs", "", '5'})
                                  .add({"//docs\\b.txt", "text of b"})
                                  .add({"long.name", "of c", 'L', "", "", true})
                                  .add({"c.txt", std::string(512, 'c')})
                                  .add({"README", "read"})
                                  .add({"empty", ""})
                                  .bytes();
  struct Row {
    const char *pattern, *path, *found;
  };
  const Row rows[] = {{"*.txt", "docs/b.txt", "text of b"},
                      {"*/b.*", "docs/b.txt", "text of b"},
                      {"docs*", "docs", ""},  // a directory matches like any other
                      {"long.name", "long.name", "of c"},
                      {"c.txt", "c.txt", nullptr},
                      {"readme", "README", "read"},
                      {"*", "a.bin", nullptr},
                      {"empty", "empty", ""}};
  m_tar.put_MustMatch("nothing at all");
  m_tar.put_UntarDiscardPaths(true);
  for (const Row& row : rows) {
    const std::string found = row.found               ? row.found
                              : row.pattern[0] == '*' ? noise(1500, 1)
                                                      : std::string(512, 'c');
    expectMatch(archive, row.pattern, true, found, said(row.pattern, extracting(row.path)));
  }
  // The end reached without a match is a success that yields nothing; a broken archive is none.
  for (const char* pattern : {"of c", "b.txt", "", "docs/"}) {
    expectMatch(archive, pattern, true, "", said(pattern, kNoMatch));
  }
  m_tar.put_UntarCaseSensitive(true);
  expectMatch(archive, "readme", true, "", said("readme", kNoMatch));
  m_tar.put_NoAbsolutePaths(false);
  expectMatch(archive, "//docs/b.txt", true, "text of b", said("//docs/b.txt", extracting("//docs/b.txt")));
  m_tar.put_UntarDebugLog(true);
  expectMatch(archive, "docs", true, "",
              said("docs", "    entry: a.bin\n    entry: docs\n" + extracting("docs")));
  m_tar.put_UntarDebugLog(false);
  m_tar.put_VerboseLogging(true);
  expectMatch(archive, "docs", true, "",
              said("docs", "    entryFilepath: a.bin\n    entryFilepath: docs\n" + extracting("docs")));
}

TEST_F(FirstMatch, DamagedAndCutArchives) {
  const ArchiveBuilder archive = ArchiveBuilder().add({"a", std::string(600, 'a')}).add({"b", "BBB"});
  const std::string whole = archive.bytes(0), ends = "The archive ends without an end-of-archive mark.\n";
  expectMatch(whole, "c", false, "", said("c", "    " + ends + "    bytesRead: 0\n" + kNoMatch));
  expectMatch(whole + std::string(512, 'x'), "c", false, "",
              said("c", "    The TAR header's checksum is wrong.\n" + kNoMatch));
  // What could be copied stays; a claim reserves no more than the source holds.
  expectMatch(whole.substr(0, 1000), "a", false, std::string(488, 'a'),
              said("a", extracting("a") + "    The data ended early.\n    bytesMissing: 112\n"));
  expectMatch(ArchiveBuilder().add({"huge", "12345", '0', "", "", false, 0, 0x7FFFFFFFFFFFFFF0}).bytes(0),
              "huge", false, "12345" + std::string(507, '\0'),
              said("huge", extracting("huge") +
                               "    The data ended early.\n    bytesMissing: 9223372036854775280\n"));
  ClsBinData nothing;
  EXPECT_FALSE(m_tar.UntarFirstMatchingToBd(m_dir / "none", "*", nothing));
  EXPECT_TRUE(logHas(m_tar, "    Failed.\n") && !logHas(m_tar, "Failure.")) << logOf(m_tar);
}

// ---- Debian packages

class CreateDeb : public ::testing::Test {
 protected:
  std::string build(const std::string& control, const std::string& data) {
    const std::string path = m_dir / "p.deb";
    EXPECT_TRUE(m_tar.CreateDeb(m_dir / control, m_dir / data, path)) << logOf(m_tar);
    EXPECT_EQ("CreateDeb:\n    Success.\n", logOf(m_tar));
    LimitedOutput out;
    EXPECT_TRUE(m_tar.CreateDeb(m_dir / control, m_dir / data, out));
    EXPECT_EQ(readFile(path).size(), out.bytes.size());
    return readFile(path);
  }
  const ScratchDir m_dir;
  ClsTar m_tar;
};

std::string padded(std::string text, size_t width) { return text.append(width - text.size(), ' '); }

TEST_F(CreateDeb, LayoutOfEverySize) {
  const auto before = std::time(nullptr);
  for (const size_t c : {0u, 1u, 300u, 301u, 100000u}) {
    for (const size_t d : {0u, 1u, 999u, 1000u, 70001u}) {
      const std::string control = noise(c, 1), data = noise(d, 2);
      const bool xz = c % 2 != 0;
      const std::string controlName = xz ? "c.tar.xz" : "c.zst", dataName = d % 2 != 0 ? "d.xz" : "d.xz.gz";
      writeFile(m_dir / controlName, control);
      writeFile(m_dir / dataName, data);
      const std::string package = build(controlName, dataName);
      const std::string time = package.substr(24, 12);
      EXPECT_LE(before, std::stoll(time));
      EXPECT_GE(std::time(nullptr), std::stoll(time));
      const auto header = [&time](const std::string& name, size_t size) {
        return padded(name, 16) + time + "0     0     100644  " + padded(std::to_string(size), 10) + "`\n";
      };
      const auto even = [](const std::string& bytes) { return bytes + (bytes.size() % 2 != 0 ? "\n" : ""); };
      EXPECT_TRUE(package == "!<arch>\n" + header("debian-binary", 4) + "2.0\n" +
                                 header(xz ? "control.tar.xz" : "control.tar.gz", c) + even(control) +
                                 header(d % 2 != 0 ? "data.tar.xz" : "data.tar.gz", d) + even(data))
          << c << " " << d;
    }
  }
}

TEST_F(CreateDeb, NothingIsWrittenUnlessBothWereRead) {
  writeFile(m_dir / "there.gz", "x");
  writeFile(m_dir / "old.deb", "old");
  for (const auto& [control, data] :
       {std::pair{"there.gz", "none"}, {"none", "there.gz"}, {"there.gz", "."}}) {
    EXPECT_FALSE(m_tar.CreateDeb(m_dir / control, m_dir / data, m_dir / "new.deb"));
    EXPECT_TRUE(logHas(m_tar, "    Failure.\n"));
    EXPECT_FALSE(exists(m_dir / "new.deb"));
    EXPECT_FALSE(m_tar.CreateDeb(m_dir / control, m_dir / data, m_dir / "old.deb"));
    EXPECT_EQ("old", readFile(m_dir / "old.deb"));
  }
  EXPECT_FALSE(m_tar.CreateDeb(m_dir / "there.gz", m_dir / "there.gz", m_dir / "none/new.deb"));
  EXPECT_FALSE(m_tar.CreateDeb(m_dir / "there.gz", m_dir / "there.gz", "/dev/full"));
  LimitedOutput full(100);
  EXPECT_FALSE(m_tar.CreateDeb(m_dir / "there.gz", m_dir / "there.gz", full));
}

TEST_F(CreateDeb, DpkgAcceptsOurs) {
  writeFile(
      m_dir / "control/control",
      "Package: morvane-test\nVersion: 1.0\nArchitecture: all\nMaintainer: Nobody <nobody@example.org>\n"
      "Description: made by a test\n");
  writeFile(m_dir / "data/usr/share/morvane-test/file", noise(30001, 3));
  for (const char* part : {"control", "data"}) {
    // Ours with gzip; GNU tar's with xz.
    ClsTar writer;
    writer.put_UserId(0);
    writer.put_GroupId(0);
    ASSERT_TRUE(writer.AddDirRoot(m_dir / part));
    ASSERT_TRUE(writer.WriteTarGz(m_dir / (std::string(part) + ".tar.gz")));
    ASSERT_EQ(0,
              run({"tar", "-cJf", m_dir / (std::string(part) + ".tar.xz"), "-C", m_dir / part, "."}).status);
  }
  for (const char* control : {"control.tar.gz", "control.tar.xz"}) {
    for (const char* data : {"data.tar.gz", "data.tar.xz"}) {
      build(control, data);
      const CommandResult info = run({"dpkg-deb", "--info", m_dir / "p.deb"});
      EXPECT_EQ(0, info.status) << info.err;
      EXPECT_NE(std::string::npos, info.out.find("Package: morvane-test"));
      const CommandResult contents = run({"dpkg-deb", "--contents", m_dir / "p.deb"});
      EXPECT_EQ(0, contents.status) << contents.err;
      EXPECT_NE(std::string::npos, contents.out.find("usr/share/morvane-test/file"));
      EXPECT_EQ(0, run({"dpkg-deb", "-x", m_dir / "p.deb", m_dir / "out"}).status);
      EXPECT_EQ(treeOf(m_dir / "data"), treeOf(m_dir / "out")) << control << data;
      std::filesystem::remove_all(m_dir / "out");
    }
  }
}

}  // namespace
}  // namespace morvane::testing
