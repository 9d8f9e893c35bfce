// What is read of a header, each rule called by itself: numbers, fields, pax records.
#include "ArchiveSupport.h"
#include "BlockSupport.h"
#include "tar/format/FullExtensions.h"
#include "tar/format/PaxRecordText.h"
#include "tar/format/PaxRecords.h"

namespace morvane::testing {
namespace {

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

}  // namespace
}  // namespace morvane::testing
