// Archives taken into memory: the first matching member, and Debian packages.
#include <ctime>

#include "ArchiveSupport.h"

namespace morvane::testing {
namespace {

using namespace std::string_literals;

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
                   const Lines& lines) {
    SCOPED_TRACE(pattern);
    std::string log = ":\n    matchPattern: " + pattern + "\n";
    for (const std::string& line : lines) log += "    " + line + "\n";
    log += ok ? "    Success.\n" : "    Failure.\n";
    DataBuffer bytes, destination;
    fill(bytes, archive);
    fill(destination, "before ");
    EXPECT_EQ(ok, m_tar.UntarFirstMatchingToMemory(bytes, pattern, destination));
    EXPECT_EQ("before " + found, bytesOf(destination));
    EXPECT_EQ("UntarFirstMatchingToMemory" + log, logOf(m_tar));
    EXPECT_EQ(ok, m_tar.UntarFirstMatchingToMemory(bytes, pattern, bytes)) << "into the archive's own buffer";
    EXPECT_EQ(archive + found, bytesOf(bytes));

    writeFile(m_dir / "a.tar", archive);
    ClsBinData fromFile, fromSource;
    EXPECT_EQ(ok, m_tar.UntarFirstMatchingToBd(m_dir / "a.tar", pattern, fromFile));
    EXPECT_EQ("UntarFirstMatchingToBd" + log, logOf(m_tar));
    TricklingSource source(archive, 700);
    EXPECT_EQ(ok, m_tar.UntarFirstMatchingToBd(source, pattern, fromSource));
    EXPECT_EQ(found + found, bytesOf(fromFile.data()) + bytesOf(fromSource.data()));
  }

  const ScratchDir m_dir;
  ClsTar m_tar;
};

const std::string kNoMatch = "No match found to extract.";

TEST_F(FirstMatch, TableOfPatterns) {
  const std::string large = noise(1500, 1);
  const std::string archive = member("a.bin", large) + directory("docs") +
                              member("//docs\\b.txt", "text of b") + member("long.name", "of c", 'L') +
                              member("c.txt", "C") + member("README", "read") + kEnd;
  const struct {
    const char *pattern, *path;
    std::string found;
  } kCases[] = {{"*.txt", "docs/b.txt", "text of b"},
                {"docs*", "docs", ""},  // a directory matches like any other
                {"long.name", "long.name", "of c"},
                {"readme", "README", "read"},
                {"*", "a.bin", large}};
  m_tar.put_MustMatch("nothing at all");  // neither this nor the next has a say here
  m_tar.put_UntarDiscardPaths(true);
  const auto extracting = [](const char* path) { return "extractingFilename: "s + path; };
  for (const auto& [pattern, path, found] : kCases) {
    expectMatch(archive, pattern, true, found, {extracting(path)});
  }
  // The end reached without a match is a success that yields nothing.
  for (const char* pattern : {"of c", "b.txt", ""}) expectMatch(archive, pattern, true, "", {kNoMatch});
  m_tar.put_UntarCaseSensitive(true);
  expectMatch(archive, "readme", true, "", {kNoMatch});
  m_tar.put_NoAbsolutePaths(false);
  expectMatch(archive, "//docs/b.txt", true, "text of b", {extracting("//docs/b.txt")});
  m_tar.put_UntarDebugLog(true);
  expectMatch(archive, "docs", true, "", {"entry: a.bin", "entry: docs", extracting("docs")});
  m_tar.put_UntarDebugLog(false);
  m_tar.put_VerboseLogging(true);
  expectMatch(archive, "docs", true, "", {"entryFilepath: a.bin", "entryFilepath: docs", extracting("docs")});
}

TEST(CreateDeb, LayoutOfEverySize) {
  const auto padded = [](std::string text, size_t width) { return text.append(width - text.size(), ' '); };
  const ScratchDir dir;
  ClsTar tar;
  const auto before = std::time(nullptr);
  for (const size_t c : {0u, 1u, 300u, 100000u}) {
    for (const size_t d : {0u, 999u, 70001u}) {
      SCOPED_TRACE(std::to_string(c) + " " + std::to_string(d));
      // The names inside follow those outside.
      const bool xz = c % 2 != 0;
      const std::string controlPath = dir / (xz ? "c.tar.xz" : "c.zst");
      const std::string dataPath = dir / (d % 2 != 0 ? "d.xz" : "d.xz.gz");
      const std::string control = noise(c, 1), data = noise(d, 2);
      writeFile(controlPath, control);
      writeFile(dataPath, data);
      EXPECT_TRUE(tar.CreateDeb(controlPath, dataPath, dir / "p.deb"));
      EXPECT_EQ("CreateDeb:\n    Success.\n", logOf(tar));
      const std::string package = readFile(dir / "p.deb"), time = package.substr(24, 12);
      EXPECT_LE(before, std::stoll(time));
      EXPECT_GE(std::time(nullptr), std::stoll(time));
      const auto part = [&](const std::string& name, const std::string& bytes) {
        return padded(name, 16) + time + "0     0     100644  " + padded(std::to_string(bytes.size()), 10) +
               "`\n" + bytes + (bytes.size() % 2 != 0 ? "\n" : "");
      };
      EXPECT_TRUE(package == "!<arch>\n" + part("debian-binary", "2.0\n") +
                                 part(xz ? "control.tar.xz" : "control.tar.gz", control) +
                                 part(d % 2 != 0 ? "data.tar.xz" : "data.tar.gz", data));
    }
  }
}

}  // namespace
}  // namespace morvane::testing
