// Every byte that is written of a header or a record, and how a path is divided into its fields.
#include <array>

#include "ArchiveSupport.h"
#include "BlockSupport.h"
#include "tar/format/PaxRecordText.h"
#include "tar/write/MemberSource.h"
#include "tar/write/MemberWriter.h"

namespace morvane::testing {
namespace {

// The writing side of one header, by itself.
struct Encoder {
  explicit Encoder(WriteFormat format) {
    settings.format = format;
    settings.userName = std::string(40, 'u');
    settings.groupName = "group";
    settings.userId = 9;
    settings.groupId = 66;
    settings.dirMode = 0711;
    archive.m_output = &out;
  }
  bool write(const std::string& path, bool isDirectory = false, long long size = 0) {
    mvFileInfo info;
    info.m_isDirectory = isDirectory;
    info.m_size = size;
    info.m_lastModified = MorvaneFileTime::fromUnixTime64(99999999999);
    XString pathInTar(path);
    WriteRun run{settings, archive, Io(log)};
    morvane::Member member;
    describeMember(info, settings, pathInTar, member);
    MemberWriter writer(run);
    return writer.writeHeader(member, writer.encode(member));
  }

  WriteSettings settings;
  ArchiveOutput archive;
  LimitedOutput out;
  _mvLogger log;
};

constexpr auto kGnu = WriteFormat::Gnu, kPax = WriteFormat::Pax, kUstar = WriteFormat::Ustar;

TEST(HeaderBlock, EveryByteOfAMember) {
  const std::string n100(100, 'n');
  const struct {
    WriteFormat format;
    std::string path;
    bool isDirectory;
    long long size;
    std::string name, mode, sizeField;
  } kCases[] = {{kGnu, "f", false, 10, "f", "0000644", "00000000012\0"s},
                {kPax, "a\\b.sh", false, 8589934591, "a/b.sh", "0000755", "77777777777\0"s},
                {kUstar, "x.bash", false, 8589934592, "x.bash", "0000755", "\x80\0\0\0\0\0\0\2\0\0\0\0"s},
                {kUstar, "x.sh", true, 4096, "x.sh/", "0000711", "00000000000\0"s},
                {kGnu, "a/b/", true, 0, "a/b/", "0000711", "00000000000\0"s},
                {kGnu, "a.SH", false, 0, "a.SH", "0000644", "00000000000\0"s},
                {kPax, "a.bsh", false, 0, "a.bsh", "0000755", "00000000000\0"s},
                {kGnu, "a.csh", false, 0, "a.csh", "0000755", "00000000000\0"s},
                {kGnu, n100, false, 0, n100, "0000644", "00000000000\0"s}};
  for (const auto& each : kCases) {
    Encoder encoder(each.format);
    ASSERT_TRUE(encoder.write(each.path, each.isDirectory, each.size));
    const std::string device = each.format == kGnu ? ""s : "0000000\0"s;
    const Block expected =
        blockOf(kNameField, each.name, kModeField, each.mode, kUidField, "0000011\0"s, kGidField,
                "0000102\0"s, kSizeField, each.sizeField, kMtimeField, "37777777777\0"s, kTypeFlagField,
                each.isDirectory ? "5" : "0", kMagicField, each.format == kGnu ? "ustar  \0"s : kPosix,
                kUserNameField, std::string(31, 'u'), kGroupNameField, "group", kDevMajorField, device,
                kDevMinorField, device);
    EXPECT_EQ(textOf(expected), encoder.out.bytes) << each.path;
  }
}

TEST(HeaderBlock, EveryByteOfARecord) {
  for (const WriteFormat format : {kGnu, kUstar, kPax}) {
    for (const size_t length : {256u, 511u, 512u, 70000u}) {
      Encoder encoder(format);
      const std::string path = std::string(length - 3, 'p') + ".sh", zeros(7, '0');
      ASSERT_TRUE(encoder.write(path));
      const bool pax = format == kPax;
      std::string data = pax ? paxPathRecord(path, false) : path + "\0"s;
      // A script's own mode is in the member's header only, and GNU's record has hardly anything.
      const Block expected = blockOf(
          kNameField, pax ? path.substr(0, 100) : "././@LongLink", kModeField, pax ? "0000644" : zeros,
          kUidField, pax ? "0000011" : zeros, kGidField, pax ? "0000102" : zeros, kSizeField,
          octal(static_cast<unsigned>(data.size()), 11), kMtimeField, pax ? "37777777777" : "00000000000",
          kTypeFlagField, pax ? "x" : "L", kMagicField, pax ? kPosix : "ustar  \0"s, kUserNameField,
          pax ? "" : std::string(31, 'u'), kGroupNameField, pax ? "" : "group", kDevMajorField,
          pax ? zeros : "", kDevMinorField, pax ? zeros : "");
      data.resize((data.size() + 511) / 512 * 512, '\0');
      EXPECT_EQ(textOf(expected) + data + path.substr(0, 100) + "0000755",
                encoder.out.bytes.substr(0, 512 + data.size() + 107))
          << length;
      EXPECT_EQ(data.size() + 1024, encoder.out.bytes.size());
    }
  }
}

TEST(UstarSplit, LeftmostSlashThatLeavesAName) {
  const std::string a49(49, 'a'), a100(100, 'a'),
      tooLong = "Max path length for ustar format is 255 bytes.\n";
  const std::string uncut =
      "Max lengths for ustar format are 100 bytes for the filename and 155 bytes for the prefix.\n";
  const std::array<std::string, 4> kCases[] = {
      // The path, the two parts, the error.
      {a49 + "/" + a49 + "a", "", a49 + "/" + a49 + "a", ""},
      {a49 + "/" + a49 + "/a", a49 + "/", a49 + "/a", ""},
      {"a/" + a100, "a/", a100, ""},
      {"/" + a100, "/", a100, ""},
      {"b/a/" + a100.substr(2), "b/", "a/" + a100.substr(2), ""},
      {"a/a" + a100, "", "", uncut},
      {a100 + "/", "", "", uncut},
      {std::string(154, 'a') + "/" + a100, std::string(154, 'a') + "/", a100, ""},
      {std::string(155, 'a') + "/" + a100, "", "", tooLong}};
  for (const auto& [path, prefix, name, error] : kCases) {
    ClsTar tar;
    _mvLogger log;
    XString gotName("x"), gotPrefix("x");
    EXPECT_EQ(error.empty(), tar.splitPathForTar(path, gotName, gotPrefix, log)) << path;
    EXPECT_EQ(error, log.text()) << path;
    EXPECT_EQ(prefix + "|" + name, gotPrefix.str() + "|" + gotName.str()) << path;
  }
}

TEST(UstarSplitDeathTest, PrefixThatFitsNoBlockStopsTheProcess) {
  EXPECT_DEATH(Encoder(kUstar).write(std::string(167, 'd') + "/name"), "prefix of 168 bytes");
}

TEST(PaxPathRecord, LengthRule) {
  for (size_t length = 1; length <= 12000; ++length) {
    const std::string path(length, 'p'), plain = paxPathRecord(path, false);
    EXPECT_EQ(paxRecord("path", path), paxPathRecord(path, true));
    EXPECT_EQ(length + (length >= 990 ? 11 : 10), std::stoul(plain));
    EXPECT_EQ(length >= 90 && length <= 9988, std::stoul(plain) == plain.size()) << length;
  }
}

// ---- Blocks as read

}  // namespace
}  // namespace morvane::testing
