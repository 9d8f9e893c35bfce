// XML listings: the frame, the elements, and that parsers nobody here wrote accept them whatever the archive
// holds.
#include <random>

#include "TestSupport.h"
#include "runtime/text/StringBuffer.h"
#include "tar/TarBlock.h"
#include "tar/TarNumber.h"
#include "tar/XmlEntry.h"

namespace morvane::testing {
namespace {

using namespace std::string_literals;

const std::string kStart = "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n<tar>\r\n", kEnd = "</tar>\r\n";
const std::string kSchema = std::string(MORVANE_TESTDATA) + "/../../docs/xml-listing.xsd";

class Listing : public ::testing::Test {
 protected:
  // The listing of an archive, which is also what comes of it through a source that cannot seek.
  std::string list(const std::string& archive, bool expected = true) {
    writeFile(m_dir / "a.tar", archive);
    XString fromFile = "left over", fromSource;
    EXPECT_EQ(expected, m_tar.ListXml(m_dir / "a.tar", fromFile)) << logOf(m_tar);
    const std::string log = logOf(m_tar);
    TricklingSource source(archive, 300);
    EXPECT_EQ(expected, m_tar.ListXml(source, fromSource));
    EXPECT_EQ(fromFile.str(), fromSource.str());
    EXPECT_EQ(0u, log.find("ListXml:\n    tarPath: " + (m_dir / "a.tar\n"))) << log;
    m_log = log;
    return fromFile.str();
  }
  static std::string body(const std::string& listing) {
    EXPECT_EQ(0u, listing.find(kStart));
    EXPECT_EQ(listing.size() - kEnd.size(), listing.rfind(kEnd));
    return listing.substr(kStart.size(), listing.size() - kStart.size() - kEnd.size());
  }
  void expectValid(const std::string& listing) {
    writeFile(m_dir / "listing.xml", listing);
    const CommandResult result = run({"xmllint", "--noout", "--schema", kSchema, m_dir / "listing.xml"});
    EXPECT_EQ(0, result.status) << result.err.substr(0, 2000);
    size_t lines = 0;
    for (size_t at = listing.find('\n'); at != std::string::npos; at = listing.find('\n', at + 1), ++lines) {
      ASSERT_EQ('\r', listing[at - 1]) << "line " << lines;
    }
  }

  const ScratchDir m_dir;
  ClsTar m_tar;
  std::string m_log;
};

std::string entry(const std::string& attributes, const std::string& path, const std::string& more = "") {
  return "\t<entry " + attributes + " mode=\"0644\" uid=\"0\" gid=\"0\" mtime=\"1700000000\" " +
         "modified=\"2023-11-14T22:13:20Z\">\r\n\t\t<path>" + path + "</path>\r\n\t\t<user></user>\r\n" +
         "\t\t<group></group>\r\n" + more + "\t</entry>\r\n";
}

TEST_F(Listing, FrameAndElements) {
  EXPECT_EQ(kStart + kEnd, list(std::string(1024, '\0')));
  const ArchiveBuilder archive = ArchiveBuilder()
                                     .add({"d/", "", '5'})
                                     .add({"record", "of L\0more"s, 'L', "", "", true})
                                     .add({"own", noise(3000, 1)})
                                     .add({"a&\"<\t>\\", "", '2', "to"})
                                     .add({"pax", paxRecord("path", "p"), 'x'})
                                     .add({"n", "", '1', "link", "prefix"});
  const std::string expected =
      entry("type=\"5\" kind=\"directory\" size=\"0\"", "d/") +
      entry("type=\"L\" kind=\"record\" size=\"9\"", "record", "\t\t<data>of L</data>\r\n") +
      entry("type=\"0\" kind=\"file\" size=\"3000\"", "own") +
      entry("type=\"2\" kind=\"symlink\" size=\"0\"", "a&amp;&quot;&lt;&#9;&gt;\\",
            "\t\t<link>to</link>\r\n") +
      entry("type=\"x\" kind=\"record\" size=\"9\"", "pax", "\t\t<data>9 path=p&#10;</data>\r\n") +
      entry("type=\"1\" kind=\"hardlink\" size=\"0\"", "prefix/n", "\t\t<link>link</link>\r\n");
  const std::string listing = list(archive.bytes());
  EXPECT_EQ(expected, body(listing));
  expectValid(listing);
  EXPECT_EQ(expected, body(list(archive.bytes(0), false))) << "no end mark";
  EXPECT_EQ(expected, body(list(archive.bytes(0) + std::string(511, 'x'), false)));
  EXPECT_NE(std::string::npos, m_log.find("    Failure.\n"));
  XString xml = "left over";
  EXPECT_FALSE(m_tar.ListXml(m_dir / "none", xml));
  EXPECT_EQ("", xml.str());
  m_tar.put_MustMatch("nothing");
  m_tar.put_UntarMaxCount(1);
  m_tar.put_CaptureXmlListing(true);
  m_tar.put_XmlListing("untouched");
  EXPECT_EQ(expected, body(list(archive.bytes())));
  m_tar.get_XmlListing(xml);
  EXPECT_EQ("untouched", xml.str());

  m_tar.put_VerboseLogging(true);
  std::string verbose = list(archive.bytes());
  expectValid(verbose);
  size_t dumps = 0;
  for (size_t at; (at = verbose.find("\t\t<qp><![CDATA[")) != std::string::npos; ++dumps) {
    const size_t end = verbose.find("]]></qp>\r\n", at) + 10;
    EXPECT_EQ(0, verbose.compare(end, 8, "\t<entry ")) << "in front of its entry";
    verbose.erase(at, end - at);
  }
  EXPECT_EQ(6u, dumps);
  EXPECT_EQ(listing, verbose);
}

TEST_F(Listing, ListedData) {
  for (const char type : "xL"s) {
    for (const size_t size : {0u, 1u, 99998u, 99999u, 100000u, 200000u}) {
      const std::string data = std::string(size, 'd');
      const std::string listing =
          list(ArchiveBuilder().add({"r", data, type, "", "", true}).add({"last", "x"}).bytes());
      const bool listed = size >= 1 && size <= 99999;
      EXPECT_EQ(listed, listing.find("<data>" + data + "</data>") != std::string::npos) << type << size;
      EXPECT_EQ(listed, listing.find("<data>") != std::string::npos) << type << size;
      EXPECT_NE(std::string::npos, listing.find("<path>last</path>"));
    }
    // Cut data do not fail the listing by themselves.
    const std::string cut = ArchiveBuilder().add({"r", "abcdef", type, "", "", true}).bytes(0).substr(0, 515);
    EXPECT_NE(std::string::npos, list(cut, false).find("<data>abc</data>"));
    EXPECT_NE(std::string::npos, m_log.find("Failed to read long filename after TAR header.")) << m_log;
  }
}

// Each name comes back from the listing as it was, so two of them never look alike. Python does the reading.
TEST_F(Listing, HostileNamesComeBack) {
  std::vector<std::string> names = {"]]>",
                                    "&amp;",
                                    "\\x41",
                                    "A",
                                    "\\\\x01",
                                    "\\x01",
                                    "\x01",
                                    "\\\x01",
                                    "\xED\xA0\x80",
                                    "\xEF\xBF\xBE",
                                    "\xEF\xBF\xBF",
                                    "\xC2\x85",
                                    "\xF4\x90\x80\x80",
                                    "\r\n",
                                    "\n",
                                    " "};
  for (int byte = 1; byte < 256; ++byte) {
    names.push_back(std::string("b") + static_cast<char>(byte));
    names.push_back(static_cast<char>(byte) + "\xC3\xA4\\"s);
  }
  std::mt19937 random(1);
  for (unsigned seed = 0; seed < 500; ++seed) {
    std::string name = noise(1 + random() % 90, seed);
    name.erase(std::remove(name.begin(), name.end(), '\0'), name.end());
    names.push_back("r" + name);
  }
  ArchiveBuilder archive;
  std::string expected;
  const auto hex = [](const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
      text += "0123456789abcdef"[byte >> 4 & 15];
      text += "0123456789abcdef"[byte & 15];
    }
    return text + "\n";
  };
  for (const std::string& name : names) {
    archive.add({"name", name, 'L', name, "", true});
    expected += hex(name) + hex(name);
  }
  const std::string listing = list(archive.bytes());
  expectValid(listing);
  const CommandResult read = run({"python3", "-c", R"(
import re, sys, xml.etree.ElementTree as tree
for each in tree.parse(sys.argv[1]).getroot():
    for tag in ('link', 'data'):
        found = each.find(tag)
        name = (found.text or '').encode()
        if found.get('escaped') == 'true':
            name = re.sub(rb'\\(\\|x[0-9A-F]{2})', lambda m: b'\\' if m[1] == b'\\' else bytes([int(m[1][1:], 16)]), name)
        print(name.hex())
)",
                                  m_dir / "listing.xml"});
  EXPECT_TRUE(expected == read.out) << read.err;
}

TEST_F(Listing, AnyBlockIsListed) {
  std::string archive;
  for (unsigned seed = 0; seed < 1500; ++seed) {
    std::string block = noise(kBlockSize, seed);
    block[kTypeFlagField.offset] = static_cast<char>(seed);
    if (seed % 4 == 0) block.replace(kMagicField.offset, 8, kUstarMagic, 8);
    block.replace(kSizeField.offset, kSizeField.width, "00000000000\0"s);
    auto* const bytes = reinterpret_cast<unsigned char*>(&block[0]);
    if (seed % 3 == 0) putOctal(bytes, kMtimeField, seed * 2000000);
    putChecksum(bytes);
    archive += block;
    StringBuffer fields;
    TarHeader::getFieldsQP(bytes, fields);
    ASSERT_EQ(std::string::npos, fields.str().find("]]>")) << seed;
  }
  m_tar.put_VerboseLogging(true);
  const std::string listing = list(archive + std::string(1024, '\0'));
  expectValid(listing);
  for (const char* charset : {"iso-8859-1", "utf-16", "shift-jis", "no such"}) {
    m_tar.put_Charset(charset);
    expectValid(list(archive + std::string(1024, '\0')));
  }
  m_tar.put_Charset("windows-1252");
  EXPECT_NE(std::string::npos,
            list(ArchiveBuilder().add({"\x80", ""}).bytes()).find("<path>\xE2\x82\xAC</path>"));
}

// Listings captured while reading: members with what records said of them.
TEST_F(Listing, CapturedFromBothEngines) {
  const std::string archive = ArchiveBuilder()
                                  .add({"record", "of L\0"s, 'L', "", "", true})
                                  .add({"own", "x", '2', "to"})
                                  .add({"pax", paxRecord("path", "p"), 'x'})
                                  .add({"d/", "", '5'})
                                  .bytes();
  const std::string link = entry("type=\"2\" kind=\"symlink\" size=\"1\"", "of L", "\t\t<link>to</link>\r\n");
  const std::string dir = entry("type=\"5\" kind=\"directory\" size=\"0\"", "p");
  writeFile(m_dir / "a.tar", archive);
  m_tar.put_SuppressOutput(true);
  m_tar.put_MustNotMatch("*");
  for (const bool capture : {true, false}) {
    m_tar.put_CaptureXmlListing(capture);
    m_tar.put_XmlListing("mine");
    XString pulled, pushed, cut;
    EXPECT_EQ(0, m_tar.Untar(m_dir / "a.tar")) << "what is filtered out is listed all the same";
    m_tar.get_XmlListing(pulled);
    EXPECT_EQ(capture ? kStart + link + dir + kEnd : "mine", pulled.str());
    LogNull log;
    m_tar.put_XmlListing("mine");
    m_tar.BeginStreamingUntar(log);
    _mvIoParams io;
    EXPECT_TRUE(m_tar._writeBytes(archive.data(), static_cast<unsigned>(archive.size()), io, log));
    EXPECT_TRUE(m_tar.FinishStreamingUntar(nullptr, log));
    m_tar.get_XmlListing(pushed);
    EXPECT_EQ(capture ? kStart + entry("type=\"L\" kind=\"record\" size=\"5\"", "record") + link +
                            entry("type=\"x\" kind=\"record\" size=\"9\"", "pax") + dir + kEnd
                      : "mine",
              pushed.str());
    expectValid(capture ? pushed.str() : kStart + kEnd);
    TricklingSource source(archive.substr(0, 2000), 100);
    EXPECT_EQ(-1, m_tar.Untar(source));
    m_tar.get_XmlListing(cut);
    EXPECT_EQ(capture ? kStart + link + kEnd : "mine", cut.str()) << "closed on failure, too";
  }
}

}  // namespace
}  // namespace morvane::testing
