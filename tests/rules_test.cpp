// The rules of the format, each called by itself: numbers, header blocks, the ustar split, pax records, entry
// paths, name filters, source entries, option words.
#include <array>
#include <cstring>
#include <random>

#include "TestSupport.h"
#include "tar/EntryPath.h"
#include "tar/FullExtensions.h"
#include "tar/NameFilter.h"
#include "tar/PaxRecords.h"
#include "tar/SourceEntry.h"
#include "tar/TarBlock.h"
#include "tar/TarNumber.h"
#include "tar/write/HeaderBlock.h"
#include "tar/write/MemberHeader.h"
#include "tar/write/PaxPathRecord.h"
#include "tar/write/UstarSplit.h"

namespace morvane::testing {
namespace {

using namespace std::string_literals;
using Block = std::array<unsigned char, kBlockSize>;

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

TarHeader parsed(const unsigned char* block) {
  TarHeader header;
  _mvLogger log;
  bool end = false;
  EXPECT_TRUE(header.parseFromMemory(block, end, log)) << log.text();
  EXPECT_FALSE(end);
  return header;
}
TarHeader parsed(const Block& block) { return parsed(block.data()); }

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
  add("size", std::to_string(header.m_size));
  add("mode", std::to_string(header.m_mode));
  add("uid", std::to_string(header.m_uid));
  add("gid", std::to_string(header.m_gid));
  add("mtime", std::to_string(header.m_mtime));
  add("atime", std::to_string(header.m_atime));
  add("ctime", std::to_string(header.m_ctime));
  add("bits", std::to_string(header.m_paxFieldsSet));
  return text;
}

std::string octal(unsigned value, size_t width, char pad = '0') {
  std::string digits(width, pad);
  for (size_t i = width; i-- > 0 && value > 0; value /= 8) digits[i] = static_cast<char>('0' + value % 8);
  return digits;
}

// A path of n bytes with a slash every 40 bytes and none at either end.
std::string pathOf(size_t n) {
  std::string path(n, 'p');
  for (size_t i = 39; i + 1 < n; i += 40) path[i] = '/';
  return path;
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
  } kCases[] = {
      {"00000000017\0"s, State::Ok, 15},
      {"         17 "s, State::Ok, 15},
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
      {"\xFF\xFF\xFF\xFF\xFF"s + ff, State::Negative, 0},
      {"\xC0\0\0\0\0\0\0\0\0\0\0\1"s, State::Negative, 0},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.field);
    const Block asSize = blockOf(kSizeField, each.field);
    EXPECT_EQ(each.state, parseNumber(asSize.data(), kSizeField).state);
    EXPECT_EQ(each.value, parseNumber(asSize.data(), kSizeField).value);
    TarHeader header;
    _mvLogger log;
    bool end = false;
    const bool ok = each.state == State::Ok;
    EXPECT_EQ(ok, header.parseFromMemory(asSize.data(), end, log));
    EXPECT_EQ(ok, log.text().empty());
    EXPECT_EQ(ok ? each.value : 0, static_cast<unsigned long long>(header.m_size));
    // A time is never refused, only brought into its range.
    EXPECT_EQ(std::min(each.value, 0xFFFFFFFFull), parsed(blockOf(kMtimeField, each.field)).m_mtime);
  }
}

TEST(TarNumber, ThereAndBack) {
  for (int bit = 0; bit < 63; ++bit) {
    for (const long long n : {(1LL << bit) - 1, 1LL << bit, (1LL << bit) + 1}) {
      Block block{};
      putSize(block.data(), n);
      EXPECT_EQ(n < 8589934592, block[kSizeField.offset] < 0x80) << n;
      EXPECT_EQ(static_cast<unsigned long long>(n), parseNumber(block.data(), kSizeField).value) << n;
      for (int len = 1; len <= 12; ++len) {
        SCOPED_TRACE(std::to_string(n) + " in " + std::to_string(len));
        char field[12];
        long long back = -1;
        EXPECT_EQ(len >= 8 || n >> (8 * len) == 0, ClsTar::numToBase256(n, field, len));
        const bool negative = (field[0] & 0x40) != 0;
        EXPECT_EQ(!negative, ClsTar::base256ToNum(back, field, len));
        // Two bits of the first byte are the marker's and the sign's.
        const bool fits = len > 8 || n >> (8 * len - 2) == 0;
        EXPECT_TRUE(fits ? back == n : !negative || back == 0) << back;
        field[0] = static_cast<char>(field[0] ^ 0x80);  // the marker is not required
        EXPECT_EQ(!negative, ClsTar::base256ToNum(back, field, len));
      }
    }
  }
  char field[12];
  EXPECT_FALSE(ClsTar::numToBase256(-1, field, 12));
  Block block{};
  putOctal(block.data(), kModeField, 012345670123);  // too large: its low digits
  EXPECT_EQ("5670123"s, reinterpret_cast<char*>(block.data()) + kModeField.offset);
}

TEST(TarNumber, ChecksumsOfNewAndOldWriters) {
  EXPECT_EQ(0u, ClsTar::computeHeaderChecksum(nullptr));
  for (unsigned seed = 0; seed < 300; ++seed) {
    Block block;
    std::memcpy(block.data(), noise(kBlockSize, seed).data(), kBlockSize);
    unsigned sum = 256;
    int signedSum = 256;
    for (unsigned i = 0; i < kBlockSize; ++i) {
      if (i >= 148 && i < 156) continue;
      sum += block[i];
      signedSum += static_cast<signed char>(block[i]);
    }
    EXPECT_EQ(sum, ClsTar::computeHeaderChecksum(block.data()));
    const auto accepted = [&](unsigned stored) {
      int count = 0;
      for (const std::string& form : {octal(stored, 6) + "\0 "s, octal(stored, 6) + " \0"s,
                                      octal(stored, 7, ' ') + " ", octal(stored, 8)}) {
        putAll(block, kChecksumField, form);
        count += hasValidChecksum(block.data());
      }
      return count;
    };
    EXPECT_EQ(4, accepted(sum));
    EXPECT_EQ(0, accepted(sum + 1));
    EXPECT_EQ(4, signedSum > 0 ? accepted(static_cast<unsigned>(signedSum)) : 4);
  }
}

// ---- Header blocks and records as written

// Erases what it finds right; what nobody asked for must be zero.
class Eater {
 public:
  explicit Eater(const std::string& block) : m_bytes(block) {
    unsigned sum = 256;
    for (size_t i = 0; i < m_bytes.size(); ++i) {
      if (i < 148 || i >= 156) sum += static_cast<unsigned char>(m_bytes[i]);
    }
    is(148, octal(sum, 6) + "\0 "s);
  }
  ~Eater() { EXPECT_EQ(std::string(kBlockSize, '\0'), m_bytes); }
  Eater& is(unsigned offset, const std::string& expected) {
    EXPECT_EQ(expected, m_bytes.substr(offset, expected.size())) << "at " << offset;
    m_bytes.replace(offset, expected.size(), expected.size(), '\0');
    return *this;
  }

 private:
  std::string m_bytes;
};

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
    WriteRun run{settings, archive, log, nullptr, nullptr};
    return writeTarHeaderToOutput(run, pathInTar, info);
  }
  std::string block(size_t i) const { return out.bytes.substr(i * kBlockSize, kBlockSize); }
  std::string lastBlock() const { return out.bytes.substr(out.bytes.size() - kBlockSize); }

  WriteSettings settings;
  ArchiveOutput archive;
  LimitedOutput out;
  _mvLogger log;
};

TEST(HeaderBlock, EveryByteOfAMember) {
  constexpr auto kGnu = WriteFormat::Gnu, kPax = WriteFormat::Pax, kUstar = WriteFormat::Ustar;
  const struct {
    WriteFormat format;
    std::string path;
    bool isDirectory;
    long long size;
    std::string name, mode, sizeField;
  } kCases[] = {
      {kGnu, "f", false, 10, "f", "0000644", "00000000012\0"s},
      {kPax, "a\\b.sh", false, 8589934591, "a/b.sh", "0000755", "77777777777\0"s},
      {kUstar, "x.bash", false, 8589934592, "x.bash", "0000755", "\x80\0\0\0\0\0\0\2\0\0\0\0"s},
      {kUstar, "x.sh", true, 4096, "x.sh/", "0000711", "00000000000\0"s},
      {kGnu, "a/b/", true, 0, "a/b/", "0000711", "00000000000\0"s},
      {kGnu, "a.SH", false, 0, "a.SH", "0000644", "00000000000\0"s},
      {kPax, "a.bsh", false, 0, "a.bsh", "0000755", "00000000000\0"s},
      {kGnu, "a.csh", false, 0, "a.csh", "0000755", "00000000000\0"s},
      {kGnu, pathOf(100), false, 0, pathOf(100), "0000644", "00000000000\0"s},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.path);
    Encoder encoder(each.format);
    ASSERT_TRUE(encoder.write(each.path, each.isDirectory, each.size));
    Eater eater(encoder.out.bytes);
    eater.is(0, each.name).is(100, each.mode + "\0"s).is(108, "0000011\0"s).is(116, "0000102\0"s);
    eater.is(124, each.sizeField).is(136, "37777777777\0"s).is(156, each.isDirectory ? "5" : "0");
    eater.is(265, std::string(31, 'u') + "\0"s).is(297, "group\0"s);
    if (each.format == kGnu) {
      eater.is(257, "ustar  \0"s);
    } else {
      eater.is(257, "ustar\0"s + "00").is(329, "0000000\0"s).is(337, "0000000\0"s);
    }
  }
}

TEST(HeaderBlock, EveryByteOfARecord) {
  for (const WriteFormat format : {WriteFormat::Gnu, WriteFormat::Ustar, WriteFormat::Pax}) {
    const bool pax = format == WriteFormat::Pax;
    for (const size_t length : {101u, 200u, 256u, 511u, 512u, 989u, 990u, 9988u, 9989u, 70000u}) {
      if (format == WriteFormat::Ustar && length < 256) continue;
      SCOPED_TRACE(length);
      Encoder encoder(format);
      const std::string path = pathOf(length - 3) + ".sh";
      ASSERT_TRUE(encoder.write(path));
      const std::string stated = std::to_string(length < 990 ? length + 10 : length + 11);
      std::string data = pax ? stated + " path=" + path + "\n" : path + "\0"s;
      Eater eater(encoder.block(0));
      eater.is(124, octal(static_cast<unsigned>(data.size()), 11) + "\0"s);
      if (pax) {
        // A script's own mode is in the member's header only.
        eater.is(0, path.substr(0, 100)).is(100, "0000644\0"s).is(108, "0000011\0"s).is(116, "0000102\0"s);
        eater.is(136, "37777777777\0"s).is(156, "x").is(257, "ustar\0"s + "00");
        eater.is(329, "0000000\0"s).is(337, "0000000\0"s);
      } else {
        eater.is(0, "././@LongLink").is(100, "0000000\0"s).is(108, "0000000\0"s).is(116, "0000000\0"s);
        eater.is(136, "00000000000\0"s).is(156, "L").is(257, "ustar  \0"s);
        eater.is(265, std::string(31, 'u') + "\0"s).is(297, "group\0"s);
      }
      data.resize((data.size() + 511) / 512 * 512, '\0');
      EXPECT_EQ(data.size() + 1024, encoder.out.bytes.size());
      EXPECT_EQ(data, encoder.out.bytes.substr(kBlockSize, data.size()));
      EXPECT_EQ(path.substr(0, 100) + "0000755", encoder.lastBlock().substr(0, 107));
    }
  }
}

TEST(HeaderBlock, MissingOutputHasThreeAnswers) {
  const std::string line = "writeTarHeaderToOutput:\n    No output object for writing file to tar.";
  for (const auto& [format, log] : {std::pair(WriteFormat::Gnu, line + "\n"),
                                    {WriteFormat::Pax, ""},
                                    {WriteFormat::Ustar, line + ".\n"}}) {
    Encoder encoder(format);
    encoder.archive.m_output = nullptr;
    EXPECT_FALSE(encoder.write(pathOf(120)));
    EXPECT_EQ(log, encoder.log.text());
  }
}

// Which record carries a path, for every length; and it comes back, from pax cut at 999 bytes.
TEST(HeaderBlock, EveryPathLength) {
  for (const WriteFormat format : {WriteFormat::Gnu, WriteFormat::Pax, WriteFormat::Ustar}) {
    for (size_t length = 1; length <= 1030; ++length) {
      SCOPED_TRACE(std::to_string(static_cast<int>(format)) + " length " + std::to_string(length));
      Encoder encoder(format);
      const std::string path = pathOf(length);
      ASSERT_TRUE(encoder.write(path)) << encoder.log.text();
      const bool fits = length <= 100 || (format == WriteFormat::Ustar && length <= 255);
      EXPECT_EQ(fits ? '0' : format == WriteFormat::Pax ? 'x' : 'L', encoder.block(0)[156]);
      const auto* const bytes = reinterpret_cast<const unsigned char*>(encoder.out.bytes.data());
      TarHeader header = parsed(bytes + encoder.out.bytes.size() - kBlockSize), record = parsed(bytes);
      EXPECT_EQ(fits ? path : path.substr(0, 100), header.m_path.str());
      const char* const data = reinterpret_cast<const char*>(bytes) + kBlockSize;
      if (format == WriteFormat::Pax && !fits) {
        ASSERT_TRUE(parsePaxExtendedHeader(data, record, encoder.log));
        combineHeaderPaxExtended(header, record);
        EXPECT_EQ(path.substr(0, 999), record.m_path.str());
      } else if (!fits) {
        EXPECT_EQ(path, data);
      }
    }
  }
}

TEST(UstarSplit, LeftmostSlashThatLeavesAName) {
  std::mt19937 random(1);
  for (int round = 0; round < 5000; ++round) {
    std::string path(1 + random() % 265, 'a');
    for (auto slashes = random() % 8; slashes > 0; --slashes) path[random() % path.size()] = '/';
    // The plain reading of the rule.
    std::string name = path, prefix, error;
    if (path.size() > 255) {
      error = "Max path length for ustar format is 255 bytes.\n";
    } else if (path.size() > 100) {
      error = "Max lengths for ustar format are 100 bytes for the filename and 155 bytes for the prefix.\n";
      for (size_t i = path.size() - 1; i-- > 0;) {
        if (path[i] != '/' || path.size() - i > 101) continue;
        prefix = path.substr(0, i + 1);
        name = path.substr(i + 1);
        error.clear();
      }
    }
    ClsTar tar;
    _mvLogger log;
    XString gotName("x"), gotPrefix("x");
    EXPECT_EQ(error.empty(), tar.splitPathForTar(path, gotName, gotPrefix, log)) << path;
    EXPECT_EQ(error, log.text()) << path;
    EXPECT_EQ(error.empty() ? prefix + "|" + name : "|", gotPrefix.str() + "|" + gotName.str()) << path;
  }
}

// Every prefix a block can hold, as our writer stores it and, up to 155 bytes, as others do.
TEST(UstarSplit, EveryPrefixLengthComesBack) {
  for (size_t length = 2; length <= 167; ++length) {
    const std::string prefix = std::string(length - 1, 'd') + "/";
    for (const size_t stored : {length, length - 1}) {
      if (stored < length && length > 156) continue;
      const std::string name(length % 100 + 1, 'n');
      HeaderFields fields;
      fields.name = name;
      fields.magic = TarMagic::Ustar;
      fields.prefix = std::string_view(prefix).substr(0, stored);
      Block block;
      encodeHeaderBlock(fields, block.data());
      EXPECT_EQ(prefix + name, parsed(block).m_path.str());
      EXPECT_EQ(fields.prefix, parsed(block).m_prefix.str());
    }
  }
}

TEST(UstarSplitDeathTest, PrefixThatFitsNoBlockStopsTheProcess) {
  const std::string prefix = std::string(166, 'd') + "/";
  EXPECT_TRUE(Encoder(WriteFormat::Ustar).write(prefix + "name"));
  EXPECT_DEATH(Encoder(WriteFormat::Ustar).write("d" + prefix + "name"), "prefix of 168 bytes");
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
  const std::string ustar = "ustar\0"s + "00", p155(155, 'p'), n100(100, 'n');
  const struct {
    std::string magic, prefix, name, path;
  } kCases[] = {
      {ustar, "usr/share", "doc/a.txt", "usr/share/doc/a.txt"},
      {ustar, "usr/share/", "doc/a.txt", "usr/share/doc/a.txt"},
      {ustar, "", n100, n100},
      {"ustar\0xx"s, "p", "n", "p/n"},
      {"ustar  \0"s, "p", "n", "n"},
      {"", "p", "n", "n"},
      {ustar, p155, n100, p155 + "/" + n100},
      {ustar, p155 + "tail/", "n", p155 + "tail/n"},
      {ustar, p155 + "tail", "n", p155 + "/n"},  // no slash at the end: no prefix of ours
      {ustar, p155 + "tail/\0/"s, "n", p155 + "tail/n"},
      {ustar, p155.substr(1) + "\0tail/"s, "n", p155.substr(1) + "/n"},
      {ustar, p155 + "elevenchars/", "n", p155 + "elevenchars/n"},
      {ustar, "a\0b/"s, "n\0m"s, "a/n"},
  };
  for (const auto& each : kCases) {
    const Field both{kPrefixField.offset, kLongestPrefix};
    const Block block = blockOf(kMagicField, each.magic, both, each.prefix, kNameField, each.name);
    EXPECT_EQ(each.path, parsed(block).m_path.str()) << each.prefix << " | " << each.name;
  }
}

TEST(TarHeader, WhatIsADirectory) {
  const std::string cut(98, 'd');
  const struct {
    std::string typeFlag, name, size;
    bool isDirectory;
  } kCases[] = {
      {"5", "d", "", true},    {"5", "d/", "17", true}, {"5", cut + "d/", "", true},
      {"0", "d/", "", true},   {"\0"s, "d/", "", true}, {"0", cut + "d/", "", false},
      {"0", "d/", "1", false}, {"0", "d", "", false},   {"0", cut + "/", "", true},
      {"0", "", "", false},    {"1", "d/", "", false},  {"0", "d/\0x"s, "", true},
      {"2", "d/", "", false},  {"7", "d/", "", false},
  };
  for (const auto& each : kCases) {
    for (const std::string& magic : {"ustar\0"s + "00", "ustar  \0"s, ""s}) {
      const Block block = blockOf(kNameField, each.name, kTypeFlagField, each.typeFlag, kSizeField, each.size,
                                  kMagicField, magic);
      EXPECT_EQ(each.isDirectory, parsed(block).m_isDirectory) << each.typeFlag << each.name;
    }
  }
}

TEST(TarHeader, EachParseStartsAnew) {
  TarHeader header = parsed(blockOf(kNameField, "n", kPrefixField, "p", kMagicField, "ustar\0"s + "00",
                                    kLinkNameField, "target", kUserNameField, "u", kGroupNameField, "g",
                                    kModeField, "644", kUidField, "7", kGidField, "11"));
  EXPECT_EQ("path=p/n link=target uname=u gname=g mode=420 uid=7 gid=9", shown(header));
  _mvLogger log;
  ASSERT_TRUE(parsePaxExtendedHeader("1 atime=5\n1 ctime=6\n1 linkpath=l\n1 uname=U\n", header, log));
  EXPECT_EQ("path=p/n link=l uname=U gname=g mode=420 uid=7 gid=9 atime=5 ctime=6 bits=2121", shown(header));
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
  const std::pair<std::string, std::string> kCases[] = {
      {"30 path=a/very/long/name/x.txt\n", "path=a/very/long/name/x.txt bits=256"},
      {"7 bogus\n", ""},
      {"path=x\n", ""},
      {"1   path=x", "path=x bits=256"},
      {"\n\n99 path=\n", "bits=256"},
      {"1 path=a=b\n", "path=a=b bits=256"},
      {"1 Path=x\n1 paths=x\n1 =x\n1 comment=x\n1 charset=x\n", ""},
      {"1 " + k99 + "=x\n1 k" + k99 + "=x\n1 uid=3\n", "uid=3 bits=1024"},
      {"1 path=" + v999 + "w\n", "path=" + v999 + " bits=256"},
      {"1 size=4294967295\n1 mtime=1700000000.5\n", "size=4294967295 mtime=1700000000 bits=640"},
      {"1 size=4294967296\n1 uid=99999999999999999999\n", "size=4294967295 uid=4294967295 bits=1536"},
      {"1 atime=\n1 ctime=-1\n1 gid=12x\n", "gid=12 bits=25"},
      {"1 uname=u\n1 gname=g\n1 linkpath=l\n", "link=l uname=u gname=g bits=2144"},
      {"1 path=a\n1 path=b\n1 atime=7\n1 ctime=8\n", "path=b atime=7 ctime=8 bits=265"},
      {"12 path=a\n11 path=evil\n", "path=evil bits=256"},
  };
  for (const auto& [text, fields] : kCases) {
    TarHeader record;
    _mvLogger log;
    log.setVerbose(true);
    ASSERT_TRUE(ClsTar::parsePaxExtendedHeader(text.c_str(), record, log));
    EXPECT_EQ(fields, shown(record)) << text;
    EXPECT_EQ(text.find(k99) == 2, log.text().find("paxName: " + k99 + "\n") != std::string::npos);
    EXPECT_EQ(std::string::npos, log.text().find("paxName: k" + k99.substr(1) + "k"));  // 100 characters
    const bool reduced = text.find("4294967296") != std::string::npos;
    EXPECT_EQ(reduced, log.text().find("paxValue: 99999999999999999999\n") != std::string::npos) << text;
  }
}

// Every subset of keywords: what a record gave stays, the rest is the member's (mode, ids and link those of
// the record's own block), the member's time wins, and each owned name has one owner.
TEST(PaxRecords, MergingEverySubset) {
  const char* const kKeywords[] = {"atime=1", "ctime=2", "gid=3",  "gname=Pg", "linkpath=Pl",
                                   "mtime=5", "path=Pp", "size=6", "uid=7",    "uname=Pu"};
  const auto header = [](const std::string& name, const std::string& number, const std::string& typeFlag) {
    return parsed(blockOf(kNameField, name, kModeField, number, kUidField, number, kGidField, number,
                          kSizeField, number, kMtimeField, number, kTypeFlagField, typeFlag, kUserNameField,
                          name, kGroupNameField, name, kLinkNameField, name));
  };
  for (unsigned set = 0; set < 1024; ++set) {
    TarHeader staged = header("x", "10", "x"), following = header("m", "20", "5");
    _mvLogger log;
    std::string text, expected;
    for (unsigned i = 0; i < 10; ++i) text += set >> i & 1 ? std::string("1 ") + kKeywords[i] + "\n" : "";
    const auto given = [set](unsigned i, const char* yes, const char* no) { return set >> i & 1 ? yes : no; };
    ASSERT_TRUE(ClsTar::parsePaxExtendedHeader(text.c_str(), staged, log));
    const std::string bits = staged.m_paxFieldsSet ? " bits=" + std::to_string(staged.m_paxFieldsSet) : "";
    const std::string link = given(4, "Pl", "m"), path = given(6, "path=Pp link=", "path=m link=");
    const std::string rest = std::string(given(0, " atime=1", "")) + given(1, " ctime=2", "") + bits;
    ClsTar::combineHeaderPaxExtended(following, staged);
    EXPECT_EQ(path + link + given(9, " uname=Pu", " uname=m") + given(3, " gname=Pg", " gname=m") +
                  given(7, " size=6", " size=16") + " mode=8" + given(8, " uid=7", " uid=8") +
                  given(2, " gid=3", " gid=8") + " mtime=16" + rest,
              shown(staged))
        << text;
    EXPECT_TRUE(staged.m_typeFlag == '5' && staged.m_isDirectory);
    EXPECT_EQ(given(3, "m", ""), std::string(following.groupName()));
    EXPECT_EQ(given(9, "m", ""), std::string(following.userName()));

    following = header("n", "30", "0");
    ClsTar::combineHeaderLongFilename(following, staged);
    EXPECT_EQ(path + given(4, "Pl", "n") + " uname=n gname=n size=24 mode=24 uid=24 gid=24 mtime=24" + rest,
              shown(staged));
    EXPECT_TRUE(!following.m_userName && !following.m_groupName && !staged.m_isDirectory);
  }
}

// ---- pax text, the full way

TEST(FullExtensions, TextToFields) {
  const std::string good = paxRecord("path", "p"), kBad = "malformed";
  const std::pair<std::string, std::string> kCases[] = {
      {good, "path=p"},
      {good + std::string(20, '\0'), "path=p"},
      {good + paxRecord("path", ""), "path=block"},
      {good + paxRecord("size", "9223372036854775807"), "path=p size=9223372036854775807"},
      {good + paxRecord("uid", "4294967296") + paxRecord("gid", "5"), "path=p uid=4294967295 gid=5"},
      {good + paxRecord("mtime", "7.9") + paxRecord("atime", "-7.5"), "path=p mtime=7"},
      {paxRecord("linkpath", "l") + paxRecord("uname", "u"), "path=block link=l uname=u"},
      {"", "path=block"},
      {paxRecord("size", "9223372036854775808"), kBad},
      {paxRecord("size", "-1"), kBad},
      {paxRecord("size", "1x"), kBad},
      {paxRecord("mtime", "x"), kBad},
      {"7 path=p\n", kBad},
      {"11 path=p\n", kBad},
      {"99999999999999999999999 path=p\n", kBad},
      {"-10 path=p\n", kBad},
      {"10 path p\n", kBad},
      {"5 =p\n", kBad},
      {"x", kBad},
      {"10", kBad},
      {paxPathRecord(std::string(9989, 'p'), false), "path=" + std::string(9989, 'p')},  // one too few
      {paxPathRecord(std::string(99988, 'p'), false), "path=" + std::string(99988, 'p')},
  };
  for (const auto& [text, fields] : kCases) {
    FullExtensions extensions;
    _mvLogger log;
    const Block block = blockOf(kNameField, "block", kTypeFlagField, "0");
    EXPECT_EQ(fields != kBad, extensions.take('x', text, log)) << text.substr(0, 60) << log.text();
    EXPECT_EQ(fields != kBad, log.text().empty());
    if (fields == kBad) continue;
    TarHeader header = parsed(block), next = parsed(block);
    extensions.complete(header);
    EXPECT_TRUE(fields == shown(header)) << text.substr(0, 60);
    extensions.complete(next);  // the records are spent
    EXPECT_EQ("path=block", shown(next));
  }
}

TEST(FullExtensions, Times) {
  const auto shownTime = [](const char* text) {
    const TarTime time = parsePaxTime(text);
    return time.known ? std::to_string(time.seconds) + " + " + std::to_string(time.nanoseconds) : "unknown";
  };
  EXPECT_EQ("0 + 0", shownTime("0"));
  EXPECT_EQ("1700000000 + 500000000", shownTime("1700000000.5"));
  EXPECT_EQ("1 + 1", shownTime("1.0000000019"));
  EXPECT_EQ("1 + 0", shownTime("1."));
  EXPECT_EQ("-2 + 750000000", shownTime("-1.25"));
  EXPECT_EQ("-1 + 0", shownTime("-1"));
  EXPECT_EQ("9223372036854775807 + 0", shownTime("99999999999999999999"));
  for (const char* text : {"", ".5", "--1", "1e9", "1.5x", " 1"})
    EXPECT_EQ("unknown", shownTime(text)) << text;
}

// ---- Names

TEST(EntryPath, Rules) {
  // Stored, and as extracted: by default, without NoAbsolutePaths, with UntarDiscardPaths.
  const std::array<const char*, 4> kCases[] = {{"a/b", "a/b", "a/b", "b"},
                                               {"//etc/x", "etc/x", "//etc/x", "x"},
                                               {"\\\\x\\y", "x/y", "//x/y", "y"},
                                               {"///", "", "///", ""},
                                               {"../a/..", "../a/..", "../a/..", ".."},
                                               {"d/", "d/", "d/", ""},
                                               {"C:\\x", "C:/x", "C:/x", "x"},
                                               {"./a", "./a", "./a", "a"},
                                               {"", "", "", ""}};
  for (const auto& [path, byDefault, absolute, discarded] : kCases) {
    const auto apply = [stored = path](bool discardPaths, bool noAbsolutePaths) {
      std::string text(stored);
      applyEntryPathRules(text, discardPaths, noAbsolutePaths);
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
      {"*.txt", "", kNoCase, {"a/b.txt", "a/b.TXT", ".txt"}, {"a/b.dat", "a.txt/b", ""}},
      {"*.txt", "", kCase, {"a/b.txt"}, {"a/b.TXT"}},
      // A plain name may be the last part; there case counts the other way round.
      {"name", "", kNoCase, {"name", "NAME", "d/name"}, {"d/NAME", "d/name2", "d/name/x", "d/xname", ""}},
      {"name", "", kCase, {"name", "d/name", "d/NAME"}, {"NAME", "d/name2"}},
      {"name", "", kUnprepared, {"name", "NAME"}, {"d/name"}},
      {"d/name", "", kNoCase, {"d/name"}, {"x/d/name", "name"}},
      {"d\\name", "", kNoCase, {"d\\name"}, {"x/d\\name"}},
      // A plain name to leave out is never met inside a directory.
      {"", "name", kNoCase, {"d/name", "name2"}, {"name", "NAME"}},
      {"", "name", kCase, {"d/name", "NAME"}, {"name"}},
      {"", "*name", kNoCase, {"name2"}, {"name", "d/name"}},
      {"", "*/name", kNoCase, {"name"}, {"d/name"}},
      {"*.txt", "a*", kNoCase, {"b.txt"}, {"a.txt", "b.dat", "a.dat"}},
      {"*", "", kNoCase, {"", "a/b"}, {}},
      {"", "*", kNoCase, {}, {"", "a/b"}},
  };
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

TEST(SourceEntry, Forms) {
  const auto shownEntry = [](const std::string& text) {
    const SourceEntry entry = parseSourceEntry(text);
    const std::string form = !entry.isPair ? "plain" : entry.isClosed ? "pair" : "unclosed";
    return form + "|" + entry.localPath + "|" + entry.pathInTar;
  };
  for (const char* same : {"a/b", "", "a\33b"}) EXPECT_EQ("plain|"s + same + "|", shownEntry(same));
  for (const char* unclosed : {"\33a", "\33"}) EXPECT_EQ("unclosed||", shownEntry(unclosed));
  EXPECT_EQ("pair|a|", shownEntry("\33a\33"));
  EXPECT_EQ("pair|a|b\33c", shownEntry("\33a\33b\33c"));
  EXPECT_EQ("pair|a|b", shownEntry(makePairEntry("a", "b")));
}

// Each word moves its own setting and no other.
TEST(TarOptions, Words) {
  const std::pair<const char*, bool TarOptions::*> kSwitches[] = {
      {"SkipOutputFile", &TarOptions::skipOutputFile},
      {"SkipUnreadable", &TarOptions::skipUnreadable},
      {"WriteExactSizes", &TarOptions::writeExactSizes},
      {"CountSkipsExcluded", &TarOptions::countSkipsExcluded},
      {"NoTotal", &TarOptions::noTotal},
      {"UstarOverflow=fail", &TarOptions::ustarOverflowFails},
      {"UstarPlainPrefix", &TarOptions::ustarPlainPrefix},
      {"PaxExact", &TarOptions::paxExact},
      {"FullRead", &TarOptions::fullRead},
      {"VerifyGzip", &TarOptions::verifyGzip},
      {"GzipAllMembers", &TarOptions::gzipAllMembers},
      {"Bz2Framed", &TarOptions::bz2Framed},
      {"RequireEndOfArchive", &TarOptions::requireEndOfArchive},
      {"EntryEvents", &TarOptions::entryEvents},
  };
  const auto shownOptions = [&](const std::string& words) {
    std::vector<std::string> complaints;
    const TarOptions options = parseTarOptions(words, complaints);
    std::string text;
    for (const auto& [word, member] : kSwitches) {
      if (options.*member) text += word + " "s;
    }
    if (options.confine != Confine::Off)
      text += options.confine == Confine::Beneath ? "beneath " : "nolinks ";
    if (options.maxExtensionBytes != 67108864) text += std::to_string(options.maxExtensionBytes) + " ";
    if (options.fastDeflate != 0) text += "deflate" + std::to_string(options.fastDeflate) + " ";
    for (const std::string& word : complaints) text += "?" + word + " ";
    return text;
  };
  for (const auto& [word, member] : kSwitches) EXPECT_EQ(word + " "s, shownOptions(word));
  for (const char* words :
       {" -> ", ",, , -> ", " fULLrEAD ,confine = BENEATH, -> FullRead beneath ", "FullRead,FullRead=off -> ",
        "FullRead=off,FullRead=on -> FullRead ", "FullRead,FullRead=yes -> FullRead ?FullRead=yes ",
        "FullRead=,NoTotal -> NoTotal ?FullRead= ", "Confine -> ?Confine ",
        "Confine=nolinks,Confine=x -> nolinks ?Confine=x ", "Confine=nolinks,Confine=off -> ",
        "MaxExtensionBytes=5,Bogus,PaxExact=on,=x -> PaxExact 5 ?Bogus ?=x ",
        "MaxExtensionBytes=0,MaxExtensionBytes=-1 -> ?MaxExtensionBytes=0 ?MaxExtensionBytes=-1 ",
        "MaxExtensionBytes=9223372036854775808 -> ?MaxExtensionBytes=9223372036854775808 ",
        "MaxExtensionBytes=5x,MaxExtensionBytes -> ?MaxExtensionBytes=5x ?MaxExtensionBytes ",
        "MaxExtensionBytes=5,MaxExtensionBytes=off -> ",
        "UstarOverflow,UstarOverflow=on,UstarOverflow=off -> ?UstarOverflow ?UstarOverflow=on ",
        "FastDeflate=3,FastDeflate=4 -> deflate3 ?FastDeflate=4 "}) {
    const std::string given = std::string(words).substr(0, std::string(words).find(" -> "));
    EXPECT_EQ(words, given + " -> " + shownOptions(given));
  }
}

}  // namespace
}  // namespace morvane::testing
