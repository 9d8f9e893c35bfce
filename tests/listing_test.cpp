// XML listings: the frame, the elements, and that parsers nobody here wrote accept them whatever the archive
// holds.
#include <regex>

#include "ArchiveSupport.h"

namespace morvane::testing {
namespace {

const std::string kOpening = "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n<tar>\r\n",
                  kClosing = "</tar>\r\n";

class Listing : public ::testing::Test {
 protected:
  // The listing of an archive, which is also what comes of it through a source that cannot seek.
  std::string list(const std::string& archive, bool expected = true) {
    writeFile(m_dir / "a.tar", archive);
    XString fromSource, fromFile = "left over";
    TricklingSource source(archive, 300);
    EXPECT_EQ(expected, m_tar.ListXml(source, fromSource));
    EXPECT_EQ(expected, m_tar.ListXml(m_dir / "a.tar", fromFile)) << logOf(m_tar);
    EXPECT_EQ(fromFile.str(), fromSource.str());
    EXPECT_EQ(0u, logOf(m_tar).find("ListXml:\n    tarPath: " + (m_dir / "a.tar\n"))) << logOf(m_tar);
    EXPECT_EQ(!expected, logHas(m_tar, "    Failure.\n"));
    return fromFile.str();
  }
  void expectValid(const std::string& listing) {
    writeFile(m_dir / "listing.xml", listing);
    const std::string schema = MORVANE_TESTDATA "/../../docs/xml-listing.xsd";
    const CommandResult result = run({"xmllint", "--noout", "--schema", schema, m_dir / "listing.xml"});
    EXPECT_EQ(0, result.status) << result.err.substr(0, 2000);
  }
  std::string captured() {
    XString text;
    m_tar.get_XmlListing(text);
    return text.str();
  }

  const ScratchDir m_dir;
  ClsTar m_tar;
};

std::string entry(const std::string& attributes, const std::string& path, const std::string& more = "") {
  return "\t<entry " + attributes + " mode=\"0644\" uid=\"0\" gid=\"0\" mtime=\"1700000000\" " +
         "modified=\"2023-11-14T22:13:20Z\">\r\n\t\t<path>" + path + "</path>\r\n\t\t<user></user>\r\n" +
         "\t\t<group></group>\r\n" + more + "\t</entry>\r\n";
}

TEST_F(Listing, FrameAndElements) {
  EXPECT_EQ(kOpening + kClosing, list(kEnd));
  const std::string archive = ArchiveBuilder()
                                  .add({"d/", "", '5'})
                                  .add({"record", "of L\0more"s, 'L', "", "", true})
                                  .add({"own", noise(3000, 1)})
                                  .add({"a&\"<\t>\\", "", '2', "to"})
                                  .add({"pax", paxRecord("path", "p"), 'x'})
                                  .add({"n", "", '1', "link", "prefix"})
                                  .bytes(0);
  const std::string expected =
      kOpening + entry("type=\"5\" kind=\"directory\" size=\"0\"", "d/") +
      entry("type=\"L\" kind=\"record\" size=\"9\"", "record", "\t\t<data>of L</data>\r\n") +
      entry("type=\"0\" kind=\"file\" size=\"3000\"", "own") +
      entry("type=\"2\" kind=\"symlink\" size=\"0\"", "a&amp;&quot;&lt;&#9;&gt;\\",
            "\t\t<link>to</link>\r\n") +
      entry("type=\"x\" kind=\"record\" size=\"9\"", "pax", "\t\t<data>9 path=p&#10;</data>\r\n") +
      entry("type=\"1\" kind=\"hardlink\" size=\"0\"", "prefix/n", "\t\t<link>link</link>\r\n") + kClosing;
  // Neither filters nor the listing captured while reading have to do with it.
  m_tar.put_MustMatch("nothing");
  m_tar.put_UntarMaxCount(1);
  m_tar.put_CaptureXmlListing(true);
  m_tar.put_XmlListing("untouched");
  EXPECT_EQ(expected, list(archive + kEnd));
  EXPECT_EQ("untouched", captured());
  expectValid(expected);
  EXPECT_EQ(expected, list(archive, false)) << "no end mark";
  EXPECT_EQ(expected, list(archive + std::string(511, 'x'), false));
  XString none = "left over";
  EXPECT_FALSE(m_tar.ListXml(m_dir / "none", none));
  EXPECT_EQ("", none.str());

  m_tar.put_VerboseLogging(true);  // dumps stand in front of their entries, and that is all
  const std::regex dump("\t\t<qp><!\\[CDATA\\[[^>]*\\]\\]></qp>\r\n(\t<entry )");
  EXPECT_EQ(expected, std::regex_replace(list(archive + kEnd), dump, "$1"));
}

TEST_F(Listing, ListedData) {
  for (const char type : "xL"s) {
    for (const size_t size : {0u, 1u, 99999u, 100000u}) {
      const std::string data(size, 'd'), listing = list(member("r", data, type) + member("last") + kEnd);
      const bool listed = size >= 1 && size <= 99999;
      EXPECT_EQ(listed, has(listing, "<data>" + data + "</data>")) << type << size;
      EXPECT_EQ(listed, has(listing, "<data>")) << type << size;
      EXPECT_TRUE(has(listing, "<path>last</path>"));
    }
    EXPECT_TRUE(has(list(member("r", "abcdef", type).substr(0, 515), false), "<data>abc</data>"));
  }
}

// Each name comes back from the listing as it was, so two of them never look alike. Python does the reading.
TEST_F(Listing, HostileNamesComeBack) {
  Lines names = {"]]>",    "&amp;",        "\\x41",        "A",        "\\\\x01",          "\\x01", "\x01",
                 "\\\x01", "\xED\xA0\x80", "\xEF\xBF\xBE", "\xC2\x85", "\xF4\x90\x80\x80", "\r\n",  " "};
  for (int byte = 1; byte < 256; ++byte) {
    names.push_back("b"s + static_cast<char>(byte));
    names.push_back(static_cast<char>(byte) + "\xC3\xA4\\"s);
  }
  for (unsigned seed = 0; seed < 500; ++seed) {
    std::string name = "r" + noise(seed % 90, seed);
    name.erase(std::remove(name.begin(), name.end(), '\0'), name.end());
    names.push_back(name);
  }
  ArchiveBuilder archive;
  std::string expected;
  for (const std::string& name : names) {
    archive.add({"name", name, 'L', name, "", true});
    expected += name + '\0' + name + '\0';
  }
  expectValid(list(archive.bytes()));
  const CommandResult read = run({"python3", "-c", R"(
import re, sys, xml.etree.ElementTree as tree
for each in tree.parse(sys.argv[1]).getroot():
    for tag in ('link', 'data'):
        found = each.find(tag)
        name = (found.text or '').encode()
        if found.get('escaped') == 'true':
            name = re.sub(rb'\\(\\|x[0-9A-F]{2})', lambda m: b'\\' if m[1] == b'\\' else bytes([int(m[1][1:], 16)]), name)
        sys.stdout.buffer.write(name + b'\0')
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
    if (seed % 3 == 0) putNumber(reinterpret_cast<unsigned char*>(&block[0]), kMtimeField, seed * 2000000);
    archive += patched(block, kSizeField, "00000000000\0"s);
  }
  m_tar.put_VerboseLogging(true);
  for (const char* charset : {"utf-8", "iso-8859-1", "utf-16", "shift-jis", "no such"}) {
    m_tar.put_Charset(charset);
    expectValid(list(archive + kEnd));
  }
  m_tar.put_Charset("windows-1252");
  EXPECT_TRUE(has(list(member("\x80") + kEnd), "<path>\xE2\x82\xAC</path>"));
}

}  // namespace
}  // namespace morvane::testing
