// The rules of the format, each called by itself: numbers, header blocks, the ustar split, pax records, entry
// paths, name filters, option words.
#include <array>
#include <cstring>

#include "ArchiveSupport.h"
#include "tar/format/EntryPath.h"
#include "tar/format/FullExtensions.h"
#include "tar/format/PaxRecordText.h"
#include "tar/format/PaxRecords.h"
#include "tar/settings/NameFilter.h"
#include "tar/write/MemberSource.h"
#include "tar/write/MemberWriter.h"

namespace morvane::testing {
namespace {

using Block = std::array<unsigned char, kBlockSize>;

const std::string kPosix = "ustar\0"s + "00";

// A block with these fields (field, bytes, field, bytes ...) and a right checksum.
void putAll(Block&) {}
template <class... Rest>
void putAll(Block& block, Field field, const std::string& bytes, const Rest&... rest) {
  ASSERT_LE(bytes.size(), field.width);
  std::memcpy(block.data() + field.offset, bytes.data(), bytes.size());
  putAll(block, rest...);
}
template <class... Fields>
Block blockOf(const Fields&... fields) {
  Block block{};
  putAll(block, fields...);
  putChecksum(block.data());
  return block;
}

std::string textOf(const Block& block) { return std::string(block.begin(), block.end()); }

TarHeader parsed(const Block& block) {
  TarHeader header;
  _mvLogger log;
  bool end = false;
  EXPECT_TRUE(header.parseFromMemory(block.data(), end, log)) << log.text();
  EXPECT_FALSE(end);
  return header;
}

// What a record holds, as "path=p mode=8 ...", without what is empty or 0.
std::string shown(const TarHeader& header) {
  std::string text;
  const auto add = [&text](const char* name, const std::string& value) {
    if (!value.empty() && value != "0") text += (text.empty() ? "" : " ") + std::string(name) + "=" + value;
  };
  add("path", header.m_path.str());
  add("link", header.linkPath());
  add("uname", header.userName());
  add("gname", header.groupName());
  for (const auto& [name, value] : {std::pair<const char*, long long>("size", header.m_size),
                                    {"mode", header.m_mode},
                                    {"uid", header.m_uid},
                                    {"gid", header.m_gid},
                                    {"mtime", header.m_mtime},
                                    {"atime", header.m_atime},
                                    {"ctime", header.m_ctime},
                                    {"bits", header.m_paxFieldsSet}})
    add(name, std::to_string(value));
  return text;
}

std::string octal(unsigned value, size_t width) {
  std::string digits(width, '0');
  for (size_t i = width; i-- > 0 && value > 0; value /= 8) digits[i] = static_cast<char>('0' + value % 8);
  return digits;
}

// ---- Numbers

TEST(TarNumber, FieldsAsRead) {
  using State = NumberField::State;
  constexpr unsigned long long kMost = 0x7FFFFFFFFFFFFFFF;
  const std::string ff = "\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s;
  const struct {
    std::string field;
    State state;
    unsigned long long value;
  } kCases[] = {{"         17 "s, State::Ok, 15},
                {"777777777777"s, State::Ok, 0xFFFFFFFFF},
                {"17 9"s, State::Ok, 15},
                {"17\0x"s, State::Ok, 15},
                {""s, State::Ok, 0},
                {"            "s, State::Ok, 0},
                {"178"s, State::Foreign, 15},
                {"-1"s, State::Foreign, 0},
                {"\x80\0\0\0\0\0\0\2\0\0\0\0"s, State::Ok, 8589934592},
                {"\x80\0\0\0\x7F"s + ff, State::Ok, kMost},
                {"\x80\0\0\0\x80\0\0\0\0\0\0\0"s, State::TooLarge, kMost},
                {"\xBF\xFF\xFF\xFF\xFF"s + ff, State::TooLarge, kMost},
                {"\xC0\0\0\0\0\0\0\0\0\0\0\1"s, State::Negative, 0}};
  for (const auto& each : kCases) {
    const Block block = blockOf(kSizeField, each.field);
    EXPECT_EQ(each.state, parseNumber(block.data(), kSizeField).state) << each.field;
    EXPECT_EQ(each.value, parseNumber(block.data(), kSizeField).value) << each.field;
  }
}

TEST(TarNumber, ThereAndBack) {
  for (int bit = 0; bit < 63; ++bit) {
    for (const long long n : {(1LL << bit) - 1, 1LL << bit, (1LL << bit) + 1}) {
      Block block{};
      putNumber(block.data(), kSizeField, n);
      EXPECT_EQ(n < 8589934592, block[kSizeField.offset] < 0x80) << n;
      EXPECT_EQ(static_cast<unsigned long long>(n), parseNumber(block.data(), kSizeField).value) << n;
      for (int len = 1; len <= 12; ++len) {
        SCOPED_TRACE(std::to_string(n) + " in " + std::to_string(len));
        char field[12];
        long long back = -1;
        EXPECT_EQ(len >= 8 || n >> (8 * len) == 0, ClsTar::numToBase256(n, field, len));
        // Two bits of the first byte are the marker's and the sign's.
        if (len <= 8 && n >> (8 * len - 2) != 0) continue;
        EXPECT_TRUE(ClsTar::base256ToNum(back, field, len) && back == n) << back;
        field[0] = static_cast<char>(field[0] ^ 0x80);  // the marker is not required
        EXPECT_TRUE(ClsTar::base256ToNum(back, field, len));
      }
    }
  }
  char field[12] = {'\x40'};
  long long back = 0;
  EXPECT_FALSE(ClsTar::numToBase256(-1, field, 12) || ClsTar::base256ToNum(back, field, 12));
}

TEST(TarNumber, ChecksumsOfNewAndOldWriters) {
  EXPECT_EQ(0u, ClsTar::computeHeaderChecksum(nullptr));
  for (unsigned seed = 0; seed < 300; ++seed) {
    Block block;
    std::memcpy(block.data(), noise(kBlockSize, seed).data(), kBlockSize);
    putAll(block, kChecksumField, std::string(8, ' '));
    int sum = 0, signedSum = 0;
    for (const unsigned char byte : block) sum += byte, signedSum += static_cast<signed char>(byte);
    EXPECT_EQ(static_cast<unsigned>(sum), ClsTar::computeHeaderChecksum(block.data()));
    for (const int stored : {sum, sum + 1, signedSum}) {
      const std::string digits = octal(static_cast<unsigned>(std::max(stored, 0)), 6);
      for (const std::string& form : {digits + "\0 "s, " " + digits + " ", "00" + digits}) {
        putAll(block, kChecksumField, form);
        EXPECT_EQ(stored >= 0 && stored != sum + 1, hasValidChecksum(block.data())) << stored;
      }
    }
  }
}

// ---- Header blocks and records as written

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

TEST(TarHeader, PathFromNameAndPrefix) {
  const std::string p155(155, 'p'), n100(100, 'n');
  const struct {
    std::string magic, prefix, name, path;
  } kCases[] = {{"ustar\0xx"s, "usr/share", "doc/a.txt", "usr/share/doc/a.txt"},
                {kPosix, "usr/share/", "doc/a.txt", "usr/share/doc/a.txt"},
                {kPosix, "", n100, n100},
                {"ustar  \0"s, "p", "n", "n"},
                {"", "p", "n", "n"},
                {kPosix, p155, n100, p155 + "/" + n100},
                {kPosix, p155 + "elevenchars/", "n", p155 + "elevenchars/n"},
                {kPosix, p155 + "tail", "n", p155 + "/n"},  // no slash at the end: no prefix of ours
                {kPosix, p155 + "tail/\0/"s, "n", p155 + "tail/n"},
                {kPosix, p155.substr(1) + "\0tail/"s, "n", p155.substr(1) + "/n"},
                {kPosix, "a\0b/"s, "n\0m"s, "a/n"}};
  for (const auto& each : kCases) {
    const Field both{kPrefixField.offset, kLongestPrefix};
    const Block block = blockOf(kMagicField, each.magic, both, each.prefix, kNameField, each.name);
    EXPECT_EQ(each.path, parsed(block).m_path.str()) << each.prefix << " | " << each.name;
  }
}

TEST(TarHeader, WhatIsADirectory) {
  const std::string cut(99, 'd');
  const struct {
    std::string typeFlag, name, size;
    bool isDirectory;
  } kCases[] = {{"5", "d", "17", true},
                {"0", "d/", "", true},
                {"\0"s, "d/", "", true},
                {"0", cut + "/", "", false},
                {"0", "d/", "1", false},
                {"0", "d", "", false},
                {"0", cut.substr(1) + "/", "", true},
                {"1", "d/", "", false},
                {"0", "d/\0x"s, "", true}};
  for (const auto& each : kCases) {
    for (const std::string& magic : {kPosix, "ustar  \0"s, ""s}) {
      const Block block = blockOf(kNameField, each.name, kTypeFlagField, each.typeFlag, kSizeField, each.size,
                                  kMagicField, magic);
      EXPECT_EQ(each.isDirectory, parsed(block).m_isDirectory) << each.typeFlag << each.name;
    }
  }
}

TEST(TarHeader, EachParseStartsAnew) {
  TarHeader header = parsed(blockOf(kNameField, "n", kPrefixField, "p", kMagicField, kPosix, kLinkNameField,
                                    "target", kUserNameField, "u", kGroupNameField, "g", kModeField, "644",
                                    kUidField, "7", kGidField, "11"));
  EXPECT_EQ("path=p/n link=target uname=u gname=g mode=420 uid=7 gid=9", shown(header));
  _mvLogger log;
  ASSERT_TRUE(parsePaxExtendedHeader("1 atime=5\n1 ctime=6\n1 linkpath=l\n", header, log));
  const Block bare = blockOf(kNameField, "m"), zeros{};
  bool end = false;
  EXPECT_TRUE(header.parseFromMemory(bare.data(), end, log) && !end);
  EXPECT_EQ("path=m", shown(header));
  EXPECT_TRUE(header.parseFromMemory(zeros.data(), end, log) && end);
  EXPECT_EQ("", shown(header));
  EXPECT_TRUE(header.parseFromMemory(bare.data(), end, log) && end);  // the flag is only ever set
}

// ---- pax text, the plain way

TEST(PaxRecords, TextToFields) {
  const std::string k99(99, 'k'), v999(999, 'v');
  const std::array<std::string, 3> kCases[] = {
      // The text, the fields, a line of the log.
      {"7 bogus\n", "", ""},
      {"path=x\n", "", ""},
      {"1   path=x", "path=x bits=256", "paxName: path"},
      {"\n\n99 path=\n", "bits=256", ""},
      {"1 path=a=b\n1 Path=x\n1 paths=x\n1 =x\n1 comment=x\n", "path=a=b bits=256", ""},
      {"1 " + k99 + "=x\n1 uid=3\n", "uid=3 bits=1024", "paxName: " + k99},
      {"1 k" + k99 + "=x\n1 uid=3\n", "uid=3 bits=1024", ""},
      {"1 path=" + v999 + "w\n", "path=" + v999 + " bits=256", ""},
      {"1 size=4294967295\n1 mtime=1700000000.5\n", "size=4294967295 mtime=1700000000 bits=640", ""},
      {"1 size=4294967296\n1 uid=99999999999999999999\n", "size=4294967295 uid=4294967295 bits=1536",
       "paxValue: 99999999999999999999"},
      {"1 atime=\n1 ctime=-1\n1 gid=12x\n", "gid=12 bits=25", ""},
      {"1 path=a\n1 path=b\n1 atime=7\n1 ctime=8\n", "path=b atime=7 ctime=8 bits=265", ""},
      {"12 path=a\n11 path=evil\n", "path=evil bits=256", ""}};
  for (const auto& [text, fields, line] : kCases) {
    TarHeader record;
    _mvLogger log;
    log.setVerbose(true);
    ASSERT_TRUE(ClsTar::parsePaxExtendedHeader(text.c_str(), record, log));
    EXPECT_EQ(fields, shown(record)) << text;
    EXPECT_TRUE(has(log.text(), line) && !has(log.text(), "k" + k99)) << log.text();
  }
}

// What a record gave stays, the rest is the member's (mode, ids and link those of the record's own block),
// and the member's time wins.
TEST(PaxRecords, MergingWithTheMember) {
  const auto header = [](const std::string& name, const std::string& number, const std::string& typeFlag) {
    return parsed(blockOf(kNameField, name, kModeField, number, kUidField, number, kGidField, number,
                          kSizeField, number, kMtimeField, number, kTypeFlagField, typeFlag, kUserNameField,
                          name, kGroupNameField, name, kLinkNameField, name));
  };
  const std::array<const char*, 3> kCases[] = {
      // The record, merged with the member behind it, and with one more behind that.
      {"", "path=m link=m uname=m gname=m size=16 mode=8 uid=8 gid=8 mtime=16",
       "path=m link=n uname=n gname=n size=24 mode=24 uid=24 gid=24 mtime=24"},
      {"1 path=P\n1 gname=G\n1 uid=7\n1 mtime=5\n1 ctime=2\n",
       "path=P link=m uname=m gname=G size=16 mode=8 uid=7 gid=8 mtime=16 ctime=2 bits=1448",
       "path=P link=n uname=n gname=n size=24 mode=24 uid=24 gid=24 mtime=24 ctime=2 bits=1448"},
      {"1 linkpath=L\n1 uname=U\n1 gid=3\n1 size=6\n1 atime=1\n",
       "path=m link=L uname=U gname=m size=6 mode=8 uid=8 gid=3 mtime=16 atime=1 bits=2641",
       "path=m link=L uname=n gname=n size=24 mode=24 uid=24 gid=24 mtime=24 atime=1 bits=2641"}};
  for (const auto& [text, merged, again] : kCases) {
    TarHeader staged = header("x", "10", "x"), following = header("m", "20", "5");
    _mvLogger log;
    ASSERT_TRUE(ClsTar::parsePaxExtendedHeader(text, staged, log));
    ClsTar::combineHeaderPaxExtended(following, staged);
    EXPECT_EQ(merged, shown(staged));
    EXPECT_TRUE(staged.m_typeFlag == '5' && staged.m_isDirectory);
    following = header("n", "30", "0");
    ClsTar::combineHeaderLongFilename(following, staged);
    EXPECT_EQ(again, shown(staged));
    EXPECT_FALSE(staged.m_isDirectory);
  }
}

// ---- pax text, the full way

TEST(FullExtensions, TextToFields) {
  const std::string good = paxRecord("path", "p");
  const std::pair<std::string, std::string> kCases[] = {
      {good + std::string(20, '\0'), "path=p"},
      {good + paxRecord("path", ""), "path=block"},
      {good + paxRecord("size", "9223372036854775807"), "path=p size=9223372036854775807"},
      {good + paxRecord("uid", "4294967296") + paxRecord("gid", "5"), "path=p uid=4294967295 gid=5"},
      {good + paxRecord("mtime", "7.9") + paxRecord("ctime", "-7.5"), "path=p mtime=7"},
      {paxRecord("linkpath", "l") + paxRecord("uname", "u") + paxRecord("gname", "g"),
       "path=block link=l uname=u gname=g"},
      {paxPathRecord(std::string(9989, 'p'), false), "path=" + std::string(9989, 'p')},  // one too few
  };
  for (const auto& [text, fields] : kCases) {
    SCOPED_TRACE(text.substr(0, 60));
    FullExtensions extensions(true);
    morvane::Member about;
    _mvLogger log;
    EXPECT_TRUE(extensions.take('x', text, log)) << log.text();
    const Block block = blockOf(kNameField, "block", kTypeFlagField, "0");
    TarHeader header = parsed(block), next = parsed(block);
    extensions.complete(header, about);
    EXPECT_EQ(fields, shown(header));
    extensions.complete(next, about);  // the records are spent
    EXPECT_EQ("path=block", shown(next));
  }
}

TEST(FullExtensions, MalformedRecords) {
  for (const std::string& text :
       {paxRecord("size", "9223372036854775808"), paxRecord("size", "-1"), paxRecord("size", "1x"),
        paxRecord("mtime", "x"), "7 path=p\n"s, "11 path=p\n"s, "99999999999999999999999 path=p\n"s,
        "-10 path=p\n"s, "10 path p\n"s, "5 =p\n"s, "10"s}) {
    FullExtensions extensions(true);
    morvane::Member about;
    _mvLogger log;
    EXPECT_FALSE(extensions.take('x', text, log) || log.text().empty()) << text;
  }
}

TEST(FullExtensions, Times) {
  for (const std::string line :
       {"0 -> 0 + 0", "1700000000.5 -> 1700000000 + 500000000", "1.0000000019 -> 1 + 1", "1. -> 1 + 0",
        "-1.25 -> -2 + 750000000", "-1 -> -1 + 0", "99999999999999999999 -> 9223372036854775807 + 0",
        " -> unknown", ".5 -> unknown", "--1 -> unknown", "1e9 -> unknown", "1.5x -> unknown"}) {
    const std::string text = line.substr(0, line.find(" -> "));
    const TarTime time = parsePaxTime(text);
    EXPECT_EQ(line, text + " -> " +
                        (time.known ? std::to_string(time.seconds) + " + " + std::to_string(time.nanoseconds)
                                    : "unknown"));
  }
}

// ---- Names

TEST(EntryPath, Rules) {
  // Stored, and as extracted: by default, without NoAbsolutePaths, with UntarDiscardPaths.
  const std::array<const char*, 4> kCases[] = {
      {"//etc/x", "etc/x", "//etc/x", "x"},    {"\\\\x\\y", "x/y", "//x/y", "y"}, {"///", "", "///", ""},
      {"../a/..", "../a/..", "../a/..", ".."}, {"./d/", "./d/", "./d/", ""},      {"", "", "", ""}};
  for (const auto& [path, byDefault, absolute, discarded] : kCases) {
    const auto apply = [stored = path](bool discardPaths, bool noAbsolutePaths) {
      std::string text(leftOfEntryPath(stored, discardPaths, noAbsolutePaths));
      std::replace(text.begin(), text.end(), '\\', '/');
      return text;
    };
    EXPECT_EQ(byDefault, apply(false, true));
    EXPECT_EQ(absolute, apply(false, false));
    EXPECT_EQ(discarded, apply(true, true));
    EXPECT_EQ(discarded, apply(true, false));
  }
}

TEST(NameFilter, EveryRule) {
  enum { kNoCase, kCase, kUnprepared };  // the last: no writing method has looked at the patterns yet
  const struct {
    const char *mustMatch, *mustNotMatch;
    int how;
    std::vector<const char*> taken, excluded;
  } kCases[] = {
      {"", "", kNoCase, {"any/thing", ""}, {}},
      {"*.txt", "", kNoCase, {"a/b.TXT", ".txt"}, {"a/b.dat", "a.txt/b", ""}},
      {"*.txt", "", kCase, {"a/b.txt"}, {"a/b.TXT"}},
      // A plain name may be the last part; there case counts the other way round.
      {"name", "", kNoCase, {"name", "NAME", "d/name"}, {"d/NAME", "d/name2", "d/name/x", "d/xname", ""}},
      {"name", "", kCase, {"name", "d/name", "d/NAME"}, {"NAME", "d/name2"}},
      {"name", "", kUnprepared, {"NAME"}, {"d/name"}},
      {"d/name", "", kNoCase, {"d/name"}, {"x/d/name", "name"}},
      {"d\\name", "", kNoCase, {"d\\name"}, {"x/d\\name"}},
      // A plain name to leave out is never met inside a directory.
      {"", "name", kNoCase, {"d/name", "name2"}, {"name", "NAME"}},
      {"", "name", kCase, {"d/name", "NAME"}, {"name"}},
      {"", "*/name", kNoCase, {"name"}, {"d/name"}},
      {"*.txt", "a*", kNoCase, {"b.txt"}, {"a.txt", "b.dat", "a.dat"}},
      {"", "*", kNoCase, {}, {"", "a/b"}}};
  for (const auto& each : kCases) {
    ClsTar tar;
    tar.put_MustMatch(each.mustMatch);
    tar.put_MustNotMatch(each.mustNotMatch);
    tar.put_MatchCaseSensitive(each.how == kCase);
    if (each.how != kUnprepared) tar.setMatchPatternExactFlags();
    SCOPED_TRACE(std::string(each.mustMatch) + " ! " + each.mustNotMatch);
    for (const char* path : each.taken) EXPECT_FALSE(tar.excludeByMatch(path, tar.log())) << path;
    for (const char* path : each.excluded) EXPECT_TRUE(tar.excludeByMatch(path, tar.log())) << path;
  }
}

TEST(TarOptions, Words) {
  const auto shownOptions = [](const std::string& words) {
    std::vector<std::string> complaints;
    const TarOptions options = parseTarOptions(words, complaints);
    const auto number = [](auto value) { return std::to_string(value); };
    std::string text;
    if (options.fullRead) text += "FullRead ";
    if (options.noTotal) text += "NoTotal ";
    if (options.ustarOverflowFails) text += "fail ";
    if (options.confine == Confine::Beneath) text += "beneath ";
    if (options.confine == Confine::NoLinks) text += "nolinks ";
    if (options.maxExtensionBytes != 67108864) text += number(options.maxExtensionBytes) + " ";
    if (options.codec.fastDeflate != 0) text += "deflate" + number(options.codec.fastDeflate) + " ";
    for (const long long limit :
         {options.maxMembers, options.maxTotalBytes, options.maxRatio, options.maxPathDepth})
      text += limit > 0 ? number(limit) + "/" : "";
    for (const std::string& word : complaints) text += "?" + word + " ";
    return text;
  };
  for (const std::string line :
       {" -> ", ",, , -> ", "UstarOverflow=fail -> fail ",
        " fULLrEAD ,confine = BENEATH, -> FullRead beneath ", "FullRead,NoTotal=on,FullRead=off -> NoTotal ",
        "FullRead,FullRead=yes -> FullRead ?FullRead=yes ", "FullRead=,Confine -> ?FullRead= ?Confine ",
        "Confine=nolinks,Confine=x -> nolinks ?Confine=x ", "Confine=nolinks,Confine=off -> ",
        "MaxExtensionBytes=5,Bogus,=x -> 5 ?Bogus ?=x ",
        "MaxExtensionBytes=0,MaxExtensionBytes=-1 -> ?MaxExtensionBytes=0 ?MaxExtensionBytes=-1 ",
        "MaxExtensionBytes=5x,MaxExtensionBytes -> ?MaxExtensionBytes=5x ?MaxExtensionBytes ",
        "UstarOverflow,UstarOverflow=on,UstarOverflow=off -> ?UstarOverflow ?UstarOverflow=on ",
        "FastDeflate=3,FastDeflate=4 -> deflate3 ?FastDeflate=4 ",
        "FullRead=off,Profile=usual,Confine=off -> FullRead fail ?FullRead=off ",
        "Profile=usual -> FullRead fail beneath ",
        "Profile=untrusted,MaxRatio=5 -> FullRead fail nolinks 1000000/68719476736/5/256/",
        "Profile=usual,Profile=off,Profile,Profile=x -> ?Profile ?Profile=x ",
        "MaxMembers=0,MaxMembers=x -> ?MaxMembers=x "}) {
    const std::string given = line.substr(0, line.find(" -> "));
    EXPECT_EQ(line, given + " -> " + shownOptions(given));
  }
}

}  // namespace
}  // namespace morvane::testing
