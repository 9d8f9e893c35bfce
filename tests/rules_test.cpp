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
using State = NumberField::State;
using Block = std::array<unsigned char, kBlockSize>;

void put(Block& block, Field field, const std::string& bytes) {
  ASSERT_LE(bytes.size(), field.width);
  std::memcpy(block.data() + field.offset, bytes.data(), bytes.size());
}

std::string take(const Block& block, Field field) {
  return std::string(reinterpret_cast<const char*>(block.data()) + field.offset, field.width);
}

// A block with these fields and a right checksum.
Block blockOf(const std::vector<std::pair<Field, std::string>>& fields) {
  Block block{};
  for (const auto& [field, bytes] : fields) put(block, field, bytes);
  putChecksum(block.data());
  return block;
}

// A path of n bytes with a slash about every 40 bytes and none at either end.
std::string pathOf(size_t n) {
  std::string path(n, 'p');
  for (size_t i = 39; i + 1 < n; i += 40) path[i] = '/';
  return path;
}

// ---- Numbers

TEST(TarNumber, FieldsAsRead) {
  const struct {
    std::string field;
    State state;
    unsigned long long value;
    unsigned as32;
  } kCases[] = {
      {"00000000017\0"s, State::Ok, 15, 15},
      {"         17 "s, State::Ok, 15, 15},
      {"777777777777"s, State::Ok, 0xFFFFFFFFFull, 0xFFFFFFFFu},
      {"17 9"s, State::Ok, 15, 15},
      {"17\0abc"s, State::Ok, 15, 15},
      {""s, State::Ok, 0, 0},
      {"            "s, State::Ok, 0, 0},
      {"178"s, State::Foreign, 15, 15},
      {"-1"s, State::Foreign, 0, 0},
      {"x"s, State::Foreign, 0, 0},
      {"\x80\0\0\0\0\0\0\2\0\0\0\0"s, State::Ok, 8589934592ull, 0xFFFFFFFFu},
      {"\x80\0\0\0\0\0\0\0\xFF\xFF\xFF\xFF"s, State::Ok, 0xFFFFFFFFull, 0xFFFFFFFFu},
      {"\x80\0\0\0\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s, State::Ok, 0x7FFFFFFFFFFFFFFFull, 0xFFFFFFFFu},
      {"\x80\0\0\0\x80\0\0\0\0\0\0\0"s, State::TooLarge, 0x7FFFFFFFFFFFFFFFull, 0xFFFFFFFFu},
      {"\xBF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s, State::TooLarge, 0x7FFFFFFFFFFFFFFFull,
       0xFFFFFFFFu},
      {"\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s, State::Negative, 0, 0},
      {"\xC0\0\0\0\0\0\0\0\0\0\0\1"s, State::Negative, 0, 0},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.field);
    Block block{};
    put(block, kSizeField, each.field);
    const NumberField number = parseNumber(block.data(), kSizeField);
    EXPECT_EQ(each.state, number.state);
    EXPECT_EQ(each.value, number.value);
    EXPECT_EQ(each.as32, number.as32());

    // As a member's size only State::Ok will do; as its time every one of them.
    for (const Field field : {kSizeField, kMtimeField}) {
      TarHeader header;
      _mvLogger log;
      bool end = false;
      const bool usable = field.offset == kMtimeField.offset || each.state == State::Ok;
      EXPECT_EQ(usable, header.parseFromMemory(blockOf({{field, each.field}}).data(), end, log));
      if (usable && field.offset == kSizeField.offset) {
        EXPECT_EQ(each.value, static_cast<unsigned long long>(header.m_size));
      } else if (usable) {
        EXPECT_EQ(each.as32, header.m_mtime);
      }
    }
  }
}

TEST(TarNumber, SizesThereAndBack) {
  for (int bit = 0; bit < 63; ++bit) {
    for (const long long n : {(1LL << bit) - 1, 1LL << bit, (1LL << bit) + 1}) {
      Block block{};
      putSize(block.data(), n);
      EXPECT_EQ(n < 8589934592LL, block[kSizeField.offset] < 0x80) << n;
      EXPECT_EQ(static_cast<unsigned long long>(n), parseNumber(block.data(), kSizeField).value) << n;
    }
  }
  Block block{};
  putSize(block.data(), 8589934591LL);
  EXPECT_EQ("77777777777\0"s, take(block, kSizeField));
  putSize(block.data(), 8589934592LL);
  EXPECT_EQ("\x80\0\0\0\0\0\0\2\0\0\0\0"s, take(block, kSizeField));
  putOctal(block.data(), kModeField, 012345670123);  // keeps its low digits
  EXPECT_EQ("5670123\0"s, take(block, kModeField));
}

TEST(TarNumber, Base256OfEveryLength) {
  for (int len = 1; len <= 12; ++len) {
    for (const long long value : {0LL, 1LL, 63LL, 64LL, 255LL, 256LL, 65535LL, 1LL << 33, (1LL << 62) + 5,
                                  0x7FFFFFFFFFFFFFFFLL, -1LL, -256LL}) {
      SCOPED_TRACE(std::to_string(value) + " in " + std::to_string(len));
      const bool fits = value >= 0 && (len >= 8 || value >> (8 * len) == 0);
      std::string field(static_cast<size_t>(len), '\0');
      EXPECT_EQ(fits, ClsTar::numToBase256(value, field.data(), len));
      EXPECT_NE(0, field[0] & 0x80);
      long long back = -1;
      const bool signBit = (field[0] & 0x40) != 0;
      EXPECT_EQ(!signBit, ClsTar::base256ToNum(back, field.data(), len));
      // The marker and the sign take two bits of the first byte.
      const bool whole = fits && (len > 8 || value >> (8 * len - 2) == 0);
      EXPECT_TRUE(whole ? back == value : !signBit || back == 0) << back;
      field[0] = static_cast<char>(field[0] & 0x7F);  // the marker is not required
      EXPECT_EQ(!signBit, ClsTar::base256ToNum(back, field.data(), len));
    }
  }
}

std::string octal(unsigned value, size_t width, char pad) {
  std::string digits(width, pad);
  for (size_t i = width; i-- > 0 && value > 0; value /= 8) digits[i] = static_cast<char>('0' + value % 8);
  return digits;
}

TEST(TarNumber, ChecksumsOfNewAndOldWriters) {
  EXPECT_EQ(0u, ClsTar::computeHeaderChecksum(nullptr));
  for (unsigned seed = 0; seed < 300; ++seed) {
    Block block;
    const std::string bytes = noise(kBlockSize, seed);
    std::memcpy(block.data(), bytes.data(), bytes.size());
    unsigned sum = 256;
    int signedSum = 256;
    for (unsigned i = 0; i < kBlockSize; ++i) {
      if (i >= 148 && i < 156) continue;
      sum += block[i];
      signedSum += static_cast<signed char>(block[i]);
    }
    EXPECT_EQ(sum, ClsTar::computeHeaderChecksum(block.data()));
    const auto isValid = [&](unsigned stored) {
      int valid = 0;
      for (const std::string& form : {octal(stored, 6, '0') + "\0 "s, octal(stored, 6, '0') + " \0"s,
                                      octal(stored, 7, ' ') + " ", octal(stored, 8, '0')}) {
        put(block, kChecksumField, form);
        valid += hasValidChecksum(block.data());
      }
      EXPECT_TRUE(valid == 0 || valid == 4) << seed;
      return valid == 4;
    };
    EXPECT_TRUE(isValid(sum));
    EXPECT_FALSE(isValid(sum + 1));
    EXPECT_TRUE(signedSum <= 0 || isValid(static_cast<unsigned>(signedSum)));
  }
}

// ---- Header blocks and records as written

// Erases what it finds right; what nobody asked for must be zero.
class Eater {
 public:
  explicit Eater(const std::string& bytes) : m_bytes(bytes) { EXPECT_EQ(kBlockSize, bytes.size()); }
  ~Eater() { EXPECT_EQ(std::string(kBlockSize, '\0'), m_bytes); }
  Eater& is(unsigned offset, const std::string& expected) {
    EXPECT_EQ(expected, m_bytes.substr(offset, expected.size())) << "at " << offset;
    std::fill_n(m_bytes.begin() + offset, expected.size(), '\0');
    return *this;
  }
  Eater& hasChecksum() {
    unsigned sum = 256;
    for (size_t i = 0; i < m_bytes.size(); ++i) {
      if (i < 148 || i >= 156) sum += static_cast<unsigned char>(m_bytes[i]);
    }
    return is(148, octal(sum, 6, '0') + "\0 "s);
  }

 private:
  std::string m_bytes;
};

// The writing side of one header, by itself.
struct Encoder {
  Encoder() {
    settings.userName = std::string(40, 'u');
    settings.groupName = "group";
    settings.userId = 8 + 1;
    settings.groupId = 64 + 2;
    archive.m_output = &out;
  }
  bool write(const std::string& path, bool isDirectory = false, long long size = 0) {
    mvFileInfo info;
    info.m_isDirectory = isDirectory;
    info.m_size = size;
    info.m_lastModified = MorvaneFileTime::fromUnixTime32(4294967295u);
    XString pathInTar(path);
    WriteRun run{settings, archive, log, nullptr, nullptr};
    return writeTarHeaderToOutput(run, pathInTar, info);
  }
  // The blocks of one header, cut; each is 512 bytes.
  std::string block(size_t i) const { return out.bytes.substr(i * kBlockSize, kBlockSize); }
  size_t blocks() const { return out.bytes.size() / kBlockSize; }

  WriteSettings settings;
  ArchiveOutput archive;
  LimitedOutput out;
  _mvLogger log;
};

TEST(HeaderBlock, EveryByteOfAMember) {
  const struct {
    WriteFormat format;
    std::string path;
    bool isDirectory;
    long long size;
    std::string name, mode, sizeField;
  } kCases[] = {
      {WriteFormat::Gnu, "f", false, 10, "f", "0000644", "00000000012\0"s},
      {WriteFormat::Pax, "a\\b.sh", false, 8589934591LL, "a/b.sh", "0000755", "77777777777\0"s},
      {WriteFormat::Ustar, "x.bash", false, 8589934592LL, "x.bash", "0000755", "\x80\0\0\0\0\0\0\2\0\0\0\0"s},
      {WriteFormat::Ustar, "x.sh", true, 4096, "x.sh/", "0000711", "00000000000\0"s},
      {WriteFormat::Gnu, "a/b/", true, 0, "a/b/", "0000711", "00000000000\0"s},
      {WriteFormat::Gnu, "a.SH", false, 0, "a.SH", "0000644", "00000000000\0"s},
      {WriteFormat::Gnu, "a.bsh", false, 0, "a.bsh", "0000755", "00000000000\0"s},
      {WriteFormat::Pax, "a.csh", false, 0, "a.csh", "0000755", "00000000000\0"s},
      {WriteFormat::Gnu, pathOf(100), false, 0, pathOf(100), "0000644", "00000000000\0"s},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.path);
    Encoder encoder;
    encoder.settings.format = each.format;
    encoder.settings.dirMode = 0711;
    ASSERT_TRUE(encoder.write(each.path, each.isDirectory, each.size));
    ASSERT_EQ(1u, encoder.blocks());
    Eater eater(encoder.block(0));
    eater.hasChecksum().is(0, each.name).is(100, each.mode + "\0"s);
    eater.is(108, "0000011\0"s).is(116, "0000102\0"s).is(124, each.sizeField).is(136, "37777777777\0"s);
    eater.is(156, each.isDirectory ? "5" : "0").is(265, std::string(31, 'u') + "\0"s).is(297, "group\0"s);
    if (each.format == WriteFormat::Gnu) {
      eater.is(257, "ustar  \0"s);
    } else {
      eater.is(257, "ustar\0"s + "00").is(329, "0000000\0"s).is(337, "0000000\0"s);
    }
  }
}

TEST(HeaderBlock, EveryByteOfALongName) {
  for (const WriteFormat format : {WriteFormat::Gnu, WriteFormat::Ustar}) {
    for (const size_t length : {101u, 256u, 511u, 512u, 1023u, 70000u}) {
      if (format == WriteFormat::Ustar && length < 256) continue;
      SCOPED_TRACE(length);
      Encoder encoder;
      encoder.settings.format = format;
      const std::string path = pathOf(length);
      ASSERT_TRUE(encoder.write(path));
      Eater eater(encoder.block(0));
      eater.hasChecksum().is(0, "././@LongLink").is(100, "0000000\0"s).is(108, "0000000\0"s);
      eater.is(116, "0000000\0"s).is(124, octal(static_cast<unsigned>(length + 1), 11, '0') + "\0"s);
      eater.is(136, "00000000000\0"s).is(156, "L").is(257, "ustar  \0"s);
      eater.is(265, std::string(31, 'u') + "\0"s).is(297, "group\0"s);
      const size_t dataBlocks = (length + 1 + 511) / 512;
      ASSERT_EQ(dataBlocks + 2, encoder.blocks());
      std::string data = path;
      data.resize(dataBlocks * kBlockSize, '\0');
      EXPECT_EQ(data, encoder.out.bytes.substr(kBlockSize, data.size()));
      EXPECT_EQ(path.substr(0, 100), encoder.block(dataBlocks + 1).substr(0, 100));
    }
  }
}

TEST(HeaderBlock, EveryByteOfAPaxPath) {
  for (const size_t length : {101u, 200u, 989u, 990u, 9988u, 9989u}) {
    SCOPED_TRACE(length);
    Encoder encoder;
    encoder.settings.format = WriteFormat::Pax;
    const std::string path = pathOf(length - 3) + ".sh";
    ASSERT_TRUE(encoder.write(path));
    const std::string stated = std::to_string(length < 990 ? length + 10 : length + 11);
    const std::string record = stated + " path=" + path + "\n";
    Eater eater(encoder.block(0));
    // A script's own mode is in the member's header only.
    eater.hasChecksum().is(0, path.substr(0, 100)).is(100, "0000644\0"s).is(108, "0000011\0"s);
    eater.is(116, "0000102\0"s).is(124, octal(static_cast<unsigned>(record.size()), 11, '0') + "\0"s);
    eater.is(136, "37777777777\0"s).is(156, "x").is(257, "ustar\0"s + "00");
    eater.is(329, "0000000\0"s).is(337, "0000000\0"s);
    const size_t dataBlocks = (record.size() + 511) / 512;
    ASSERT_EQ(dataBlocks + 2, encoder.blocks());
    std::string data = record;
    data.resize(dataBlocks * kBlockSize, '\0');
    EXPECT_EQ(data, encoder.out.bytes.substr(kBlockSize, data.size()));
    EXPECT_EQ(path.substr(0, 100) + "0000755", encoder.block(dataBlocks + 1).substr(0, 107));
  }
}

TEST(HeaderBlock, MissingOutputHasThreeAnswers) {
  for (const auto& [format, line] :
       {std::pair(WriteFormat::Gnu, "No output object for writing file to tar.\n"),
        std::pair(WriteFormat::Pax, ""),
        std::pair(WriteFormat::Ustar, "No output object for writing file to tar..\n")}) {
    Encoder encoder;
    encoder.settings.format = format;
    encoder.archive.m_output = nullptr;
    EXPECT_FALSE(encoder.write(pathOf(120)));
    const std::string expected = *line ? "writeTarHeaderToOutput:\n    "s + line : "";
    EXPECT_EQ(expected, encoder.log.text());
  }
}

// Which record carries a path, for every length; and it comes back whole.
TEST(HeaderBlock, EveryPathLengthThereAndBack) {
  for (const WriteFormat format : {WriteFormat::Gnu, WriteFormat::Pax, WriteFormat::Ustar}) {
    for (size_t length = 1; length <= 1030; ++length) {
      SCOPED_TRACE(std::to_string(static_cast<int>(format)) + " length " + std::to_string(length));
      Encoder encoder;
      encoder.settings.format = format;
      const std::string path = pathOf(length);
      ASSERT_TRUE(encoder.write(path)) << encoder.log.text();
      const bool fits = length <= 100 || (format == WriteFormat::Ustar && length <= 255);
      EXPECT_EQ(fits ? '0' : format == WriteFormat::Pax ? 'x' : 'L', encoder.block(0)[156]);

      // As a reader has it: the record, if any, merged into the last block.
      _mvLogger log;
      bool end = false;
      TarHeader record, header;
      const auto block = [&](size_t i) { return encoder.block(i); };
      const auto parse = [&](TarHeader& to, const std::string& bytes) {
        return to.parseFromMemory(reinterpret_cast<const unsigned char*>(bytes.data()), end, log);
      };
      ASSERT_TRUE(parse(header, block(encoder.blocks() - 1)));
      if (fits) {
        EXPECT_EQ(path, header.m_path.str());
        continue;
      }
      ASSERT_TRUE(parse(record, block(0)));
      const std::string data = encoder.out.bytes.substr(kBlockSize, static_cast<size_t>(record.m_size));
      if (format == WriteFormat::Pax) {
        ASSERT_TRUE(parsePaxExtendedHeader(data.c_str(), record, log));
        combineHeaderPaxExtended(header, record);
        EXPECT_EQ(path.substr(0, 999), record.m_path.str());
      } else {
        EXPECT_EQ(path + "\0"s, data);
      }
    }
  }
}

// ---- The ustar split

TEST(UstarSplit, LeftmostSlashThatLeavesAName) {
  std::mt19937 random(1);
  for (int round = 0; round < 5000; ++round) {
    std::string path(1 + random() % 265, 'a');
    const unsigned slashes = static_cast<unsigned>(random() % 8);
    for (unsigned i = 0; i < slashes; ++i) path[random() % path.size()] = '/';
    SCOPED_TRACE(path);
    // The plain reading of the rule.
    std::string name = path, prefix, error;
    if (path.size() > 255) {
      error = "Max path length for ustar format is 255 bytes.";
    } else if (path.size() > 100) {
      error = "Max lengths for ustar format are 100 bytes for the filename and 155 bytes for the prefix.";
      for (size_t i = path.size(); i-- > 0;) {
        const size_t left = path.size() - i - 1;
        if (path[i] != '/' || left < 1 || left > 100) continue;
        prefix = path.substr(0, i + 1);
        name = path.substr(i + 1);
        error.clear();
      }
    }
    ClsTar tar;
    _mvLogger log;
    XString gotName("x"), gotPrefix("x");
    EXPECT_EQ(error.empty(), tar.splitPathForTar(path, gotName, gotPrefix, log));
    EXPECT_EQ(error.empty() ? "" : error + "\n", log.text());
    EXPECT_EQ(error.empty() ? name : "", gotName.str());
    EXPECT_EQ(error.empty() ? prefix : "", gotPrefix.str());
  }
}

// Every prefix a block can hold, as our writer stores it and as others do; longer ones stop the process.
TEST(UstarSplit, EveryPrefixLengthComesBack) {
  _mvLogger log;
  for (size_t length = 2; length <= 167; ++length) {
    const std::string prefix = std::string(length - 1, 'd') + "/";
    for (const size_t nameLength : {1u, 87u, 100u}) {
      const std::string name(nameLength, 'n');
      TarHeader header;
      bool end = false;
      Block block;
      HeaderFields fields;
      fields.name = name;
      fields.prefix = prefix;
      fields.magic = TarMagic::Ustar;
      encodeHeaderBlock(fields, block.data());
      ASSERT_TRUE(header.parseFromMemory(block.data(), end, log));
      EXPECT_EQ(prefix + name, header.m_path.str());
      EXPECT_EQ(prefix, header.m_prefix.str());
      if (length > 156) continue;
      fields.prefix = std::string_view(prefix).substr(0, length - 1);
      encodeHeaderBlock(fields, block.data());
      ASSERT_TRUE(header.parseFromMemory(block.data(), end, log));
      EXPECT_EQ(prefix + name, header.m_path.str());
    }
  }
}

TEST(UstarSplitDeathTest, PrefixThatFitsNoBlockStopsTheProcess) {
  for (const size_t length : {168u, 200u}) {
    Encoder encoder;
    encoder.settings.format = WriteFormat::Ustar;
    EXPECT_DEATH(encoder.write(std::string(length - 1, 'd') + "/name"),
                 "prefix of " + std::to_string(length));
  }
}

TEST(PaxPathRecord, LengthRule) {
  for (size_t length = 1; length <= 12000; ++length) {
    const std::string path(length, 'p');
    const std::string exact = paxPathRecord(path, true), plain = paxPathRecord(path, false);
    EXPECT_EQ(paxRecord("path", path), exact);
    EXPECT_EQ(length + (length >= 990 ? 11 : 10), std::stoul(plain));
    EXPECT_EQ(length >= 90 && length <= 9988, std::stoul(plain) == plain.size()) << length;
  }
}

// ---- Blocks as read

TEST(TarHeader, PathFromNameAndPrefix) {
  const std::string ustar = "ustar\0"s + "00", gnu = "ustar  \0"s;
  const std::string p155(155, 'p'), n100(100, 'n');
  const Field both{kPrefixField.offset, kLongestPrefix};
  const struct {
    std::string magic, prefix, name, path;
  } kCases[] = {
      {ustar, "usr/share", "doc/a.txt", "usr/share/doc/a.txt"},
      {ustar, "usr/share/", "doc/a.txt", "usr/share/doc/a.txt"},
      {ustar, "", n100, n100},
      {"ustar\0\0\0"s, "p", "n", "p/n"},
      {"ustar\0xx"s, "p", "n", "p/n"},
      {gnu, "p", "n", "n"},
      {"", "p", "n", "n"},
      {"ustar 00", "p", "n", "n"},
      {ustar, p155, n100, p155 + "/" + n100},
      {ustar, p155 + "tail/", "n", p155 + "tail/n"},
      {ustar, p155 + "tail", "n", p155 + "/n"},  // no slash at the end: no prefix of ours
      {ustar, p155 + "tail/\0/"s, "n", p155 + "tail/n"},
      {ustar, p155.substr(1) + "\0tail/"s, "n", p155.substr(1) + "/n"},
      {ustar, p155 + "elevenchars/", "n", p155 + "elevenchars/n"},
      {ustar, "a\0b/"s, "n\0m"s, "a/n"},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.prefix + " | " + each.name);
    TarHeader header;
    _mvLogger log;
    bool end = false;
    const Block block = blockOf({{kMagicField, each.magic}, {both, each.prefix}, {kNameField, each.name}});
    ASSERT_TRUE(header.parseFromMemory(block.data(), end, log));
    EXPECT_EQ(each.path, header.m_path.str());
    EXPECT_FALSE(end);
  }
}

TEST(TarHeader, WhatIsADirectory) {
  const std::string cut(99, 'd');
  const struct {
    std::string name, typeFlag, size;
    bool isDirectory;
  } kCases[] = {
      {"d", "5", "", true},       {"d/", "5", "17", true},
      {"d/", "0", "", true},      {"d/", "\0"s, "", true},
      {"d/", "0", "1", false},    {"d", "0", "", false},
      {"d/", "1", "", false},     {"d/", "2", "", false},
      {"d/", "7", "", false},     {"/", "0", "", true},
      {"", "0", "", false},       {cut + "/", "0", "", false},
      {cut + "/", "5", "", true}, {cut.substr(1) + "/", "0", "", true},
      {"d/\0x"s, "0", "", true},
  };
  for (const auto& each : kCases) {
    for (const std::string& magic : {"ustar\0"s + "00", "ustar  \0"s, ""s}) {
      SCOPED_TRACE(each.name + " " + each.typeFlag + " " + each.size);
      TarHeader header;
      _mvLogger log;
      bool end = false;
      const Block block = blockOf({{kNameField, each.name},
                                   {kTypeFlagField, each.typeFlag},
                                   {kSizeField, each.size},
                                   {kMagicField, magic}});
      ASSERT_TRUE(header.parseFromMemory(block.data(), end, log));
      EXPECT_EQ(each.isDirectory, header.m_isDirectory);
    }
  }
}

TEST(TarHeader, EachParseStartsAnew) {
  const Block full = blockOf({{kNameField, "n"},
                              {kPrefixField, "p"},
                              {kMagicField, "ustar\0"s + "00"},
                              {kLinkNameField, "target"},
                              {kUserNameField, "u"},
                              {kGroupNameField, "g"},
                              {kModeField, "644"},
                              {kUidField, "7"},
                              {kGidField, "11"},
                              {kMtimeField, "17"}});
  const Block bare = blockOf({{kNameField, "m"}});
  TarHeader header;
  _mvLogger log;
  bool end = false;
  ASSERT_TRUE(header.parseFromMemory(full.data(), end, log));
  EXPECT_STREQ("target", header.linkPath());
  EXPECT_EQ(0644u, header.m_mode);
  EXPECT_EQ(7u, header.m_uid);
  EXPECT_EQ(9u, header.m_gid);
  EXPECT_STREQ("u", header.userName());
  EXPECT_STREQ("g", header.groupName());
  ASSERT_TRUE(parsePaxExtendedHeader("1 atime=5\n1 ctime=6\n1 linkpath=l\n1 uname=U\n", header, log));
  EXPECT_STREQ("l", header.linkPath());
  ASSERT_TRUE(header.parseFromMemory(bare.data(), end, log));
  EXPECT_EQ("m", header.m_path.str());
  EXPECT_EQ(0u, header.m_paxFieldsSet + header.m_atime + header.m_ctime + header.m_mtime + header.m_uid);
  EXPECT_STREQ("", header.linkPath());
  EXPECT_STREQ("", header.userName());
  EXPECT_STREQ("", header.groupName());
  EXPECT_TRUE(header.m_prefix.isEmpty());
  EXPECT_FALSE(end);
  const Block zeros{};
  EXPECT_TRUE(header.parseFromMemory(zeros.data(), end, log));
  EXPECT_TRUE(end);
  EXPECT_TRUE(header.parseFromMemory(bare.data(), end, log));
  EXPECT_TRUE(end);  // the flag is only ever set
}

// ---- pax text, the plain way

TEST(PaxRecords, OneLineEach) {
  const std::string k99(99, 'k'), v999(999, 'v');
  const struct {
    std::string text;
    unsigned bits;
    std::string shown;  // path|linkpath|uname|gname|size|uid|gid|mtime|atime|ctime
  } kCases[] = {
      {"30 path=a/very/long/name/x.txt\n", PAX_PATH, "a/very/long/name/x.txt||||0|0|0|0|0|0"},
      {"7 bogus\n", 0, "||||0|0|0|0|0|0"},
      {"path=x\n", 0, "||||0|0|0|0|0|0"},
      {"1   path=x\n", PAX_PATH, "x||||0|0|0|0|0|0"},
      {"1 path=x", PAX_PATH, "x||||0|0|0|0|0|0"},
      {"\n\n99 path=\n", PAX_PATH, "||||0|0|0|0|0|0"},
      {"1 path=a=b\n", PAX_PATH, "a=b||||0|0|0|0|0|0"},
      {"1 Path=x\n1 paths=x\n1 =x\n", 0, "||||0|0|0|0|0|0"},
      {"1 " + k99 + "=x\n1 k" + k99 + "=x\n1 uid=3\n", PAX_UID, "||||0|3|0|0|0|0"},
      {"1 path=" + v999 + "w\n", PAX_PATH, v999 + "||||0|0|0|0|0|0"},
      {"1 size=4294967295\n1 mtime=1700000000.5\n", PAX_SIZE | PAX_MTIME,
       "||||4294967295|0|0|1700000000|0|0"},
      {"1 size=4294967296\n1 uid=99999999999999999999\n1 gid=12x\n", PAX_SIZE | PAX_UID | PAX_GID,
       "||||4294967295|4294967295|12|0|0|0"},
      {"1 atime=\n1 ctime=-1\n1 gid=x\n", PAX_ATIME | PAX_CTIME | PAX_GID, "||||0|0|0|0|0|0"},
      {"1 comment=x\n1 charset=y\n1 uname=u\n1 gname=g\n1 linkpath=l\n", PAX_UNAME | PAX_GNAME | PAX_LINKPATH,
       "|l|u|g|0|0|0|0|0|0"},
      {"1 path=a\n1 path=b\n1 atime=7\n1 ctime=8\n", PAX_PATH | PAX_ATIME | PAX_CTIME, "b||||0|0|0|0|7|8"},
      {"12 path=a\n11 path=evil\n", PAX_PATH, "evil||||0|0|0|0|0|0"},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.text);
    TarHeader record;
    _mvLogger log;
    ASSERT_TRUE(ClsTar::parsePaxExtendedHeader(each.text.c_str(), record, log));
    EXPECT_EQ(each.bits, record.m_paxFieldsSet);
    std::string shown = record.m_path.str() + "|" + record.linkPath() + "|" + record.userName() + "|" +
                        record.groupName() + "|" + std::to_string(record.m_size);
    for (const unsigned n : {record.m_uid, record.m_gid, record.m_mtime, record.m_atime, record.m_ctime}) {
      shown += "|" + std::to_string(n);
    }
    EXPECT_EQ(each.shown, shown);
    const bool reduced = each.text.find("4294967296") != std::string::npos;
    EXPECT_EQ(reduced, log.text().find("paxValue: 99999999999999999999") != std::string::npos);
  }
}

// Every subset of keywords: what a record gave stays, the rest is the member's, and each name has one owner.
TEST(PaxRecords, MergingEverySubset) {
  const char* const kRecords[] = {"1 atime=1\n",     "1 ctime=2\n", "1 gid=3\n",   "1 gname=Pg\n",
                                  "1 linkpath=Pl\n", "1 mtime=5\n", "1 path=Pp\n", "1 size=6\n",
                                  "1 uid=7\n",       "1 uname=Pu\n"};
  const auto block = [](const char* name, const char* number, const char* typeFlag) {
    return blockOf({{kNameField, name},
                    {kModeField, number},
                    {kUidField, number},
                    {kGidField, number},
                    {kSizeField, number},
                    {kMtimeField, number},
                    {kTypeFlagField, typeFlag},
                    {kUserNameField, name},
                    {kGroupNameField, name}});
  };
  for (unsigned set = 0; set < 1024; ++set) {
    SCOPED_TRACE(set);
    TarHeader staged, following;
    _mvLogger log;
    bool end = false;
    std::string text;
    for (unsigned i = 0; i < 10; ++i) text += set >> i & 1 ? kRecords[i] : "";
    const auto given = [set](unsigned i) { return (set >> i & 1) != 0; };
    ASSERT_TRUE(staged.parseFromMemory(block("x", "10", "x").data(), end, log));
    ASSERT_TRUE(ClsTar::parsePaxExtendedHeader(text.c_str(), staged, log));
    ASSERT_TRUE(following.parseFromMemory(block("m", "20", "5").data(), end, log));
    ClsTar::combineHeaderPaxExtended(following, staged);
    EXPECT_EQ('5', staged.m_typeFlag);
    EXPECT_TRUE(staged.m_isDirectory);
    EXPECT_EQ(16u, staged.m_mtime);  // the member's own time wins
    EXPECT_EQ(given(7) ? 6 : 16, staged.m_size);
    EXPECT_EQ(given(6) ? "Pp" : "m", staged.m_path.str());
    EXPECT_STREQ(given(3) ? "Pg" : "m", staged.groupName());
    EXPECT_STREQ(given(9) ? "Pu" : "m", staged.userName());
    EXPECT_EQ(given(3), following.m_groupName != nullptr);
    EXPECT_EQ(given(9), following.m_userName != nullptr);
    // Not the member's, but those of the record's own block.
    EXPECT_EQ(8u, staged.m_mode);
    EXPECT_EQ(given(8) ? 7u : 8u, staged.m_uid);
    EXPECT_EQ(given(2) ? 3u : 8u, staged.m_gid);
    EXPECT_EQ(given(0) ? 1u : 0u, staged.m_atime);
    EXPECT_EQ(given(1) ? 2u : 0u, staged.m_ctime);
    EXPECT_EQ(given(4), staged.m_linkPath != nullptr);

    ASSERT_TRUE(following.parseFromMemory(block("n", "30", "0").data(), end, log));
    ClsTar::combineHeaderLongFilename(following, staged);
    EXPECT_EQ(given(6) ? "Pp" : "m", staged.m_path.str());
    EXPECT_EQ(24u * 4 + 24, staged.m_mode + staged.m_uid + staged.m_gid + staged.m_mtime +
                                static_cast<unsigned>(staged.m_size));
    EXPECT_EQ(given(0) ? 1u : 0u, staged.m_atime);
    EXPECT_STREQ("n", staged.userName());
    EXPECT_STREQ("n", staged.groupName());
    EXPECT_TRUE(!following.m_userName && !following.m_groupName && !staged.m_isDirectory);
  }
}

// ---- pax text, the full way

TEST(FullExtensions, OneHeaderEach) {
  const std::string good = paxRecord("path", "p");
  const struct {
    std::string text;
    bool ok;
    std::string path;
    long long size;
  } kCases[] = {
      {good, true, "p", 1},
      {good + std::string(20, '\0'), true, "p", 1},
      {paxRecord("path", "a\nb"), true, "a\nb", 1},
      {paxRecord("comment", "x\n11 path=evil") + good, true, "p", 1},
      {paxRecord("SCHILY.xattr.user.x", "\0\n11 path=evil\n"s), true, "block", 1},
      {good + paxRecord("path", ""), true, "block", 1},
      {paxRecord("size", "9223372036854775807"), true, "block", 9223372036854775807LL},
      {paxRecord("size", "9223372036854775808"), false, "block", 1},
      {paxRecord("size", "-1"), false, "block", 1},
      {paxRecord("size", "1x"), false, "block", 1},
      {paxRecord("mtime", "x"), false, "block", 1},
      {"7 path=p\n", false, "block", 1},
      {"11 path=p\n", false, "block", 1},
      {"99999999999999999999999 path=p\n", false, "block", 1},
      {"-10 path=p\n", false, "block", 1},
      {"10 path p\n", false, "block", 1},
      {"5 =p\n", false, "block", 1},
      {"x", false, "block", 1},
      {"10", false, "block", 1},
      {"", true, "block", 1},
      {paxRecord("path", std::string(9988, 'p')), true, std::string(9988, 'p'), 1},
      {paxPathRecord(std::string(9989, 'p'), false), true, std::string(9989, 'p'), 1},  // ours, one too few
      {paxPathRecord(std::string(99990, 'p'), false), true, std::string(99990, 'p'), 1},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.text.substr(0, 60));
    FullExtensions extensions;
    _mvLogger log;
    TarHeader header;
    bool end = false;
    const Block block = blockOf({{kNameField, "block"}, {kSizeField, "1"}, {kTypeFlagField, "0"}});
    ASSERT_TRUE(header.parseFromMemory(block.data(), end, log));
    EXPECT_EQ(each.ok, extensions.take('x', each.text, log)) << log.text();
    EXPECT_EQ(each.ok, log.text().empty());
    if (!each.ok) continue;
    extensions.complete(header);
    EXPECT_EQ(each.path, header.m_path.str());
    EXPECT_EQ(each.size, header.m_size);
    extensions.complete(header);  // spent
    ASSERT_TRUE(header.parseFromMemory(block.data(), end, log));
    extensions.complete(header);
    EXPECT_EQ("block", header.m_path.str());
  }
}

TEST(FullExtensions, GlobalRecordsLastAndNameNoFile) {
  FullExtensions extensions;
  _mvLogger log;
  ASSERT_TRUE(extensions.take('g', paxRecord("path", "evil") + paxRecord("uname", "all"), log));
  EXPECT_NE(std::string::npos, log.text().find("paxName: path")) << log.text();
  ASSERT_TRUE(extensions.take('K', "longlink\0rest"s, log));
  ASSERT_TRUE(extensions.take('L', "longname\0rest"s, log));
  for (const bool first : {true, false}) {
    TarHeader header;
    bool end = false;
    const Block block = blockOf({{kNameField, "n"}, {kLinkNameField, "l"}, {kUserNameField, "u"}});
    ASSERT_TRUE(header.parseFromMemory(block.data(), end, log));
    extensions.complete(header);
    EXPECT_EQ(first ? "longname" : "n", header.m_path.str());
    EXPECT_STREQ(first ? "longlink" : "l", header.linkPath());
    EXPECT_STREQ("all", header.userName());
  }
}

TEST(FullExtensions, Times) {
  const struct {
    const char* text;
    bool known;
    long long seconds;
    unsigned nanoseconds;
  } kCases[] = {
      {"0", true, 0, 0},
      {"1700000000.5", true, 1700000000, 500000000},
      {"1.0000000019", true, 1, 1},
      {"1.", true, 1, 0},
      {"-1.25", true, -2, 750000000},
      {"-1", true, -1, 0},
      {"9223372036854775807", true, 9223372036854775807LL, 0},
      {"99999999999999999999", true, 9223372036854775807LL, 0},
      {"", false, 0, 0},
      {".5", false, 0, 0},
      {"--1", false, 0, 0},
      {"1e9", false, 0, 0},
      {"1.5x", false, 0, 0},
      {" 1", false, 0, 0},
  };
  for (const auto& each : kCases) {
    const TarTime time = parsePaxTime(each.text);
    EXPECT_EQ(each.known, time.known) << each.text;
    EXPECT_EQ(each.seconds, time.known ? time.seconds : 0) << each.text;
    EXPECT_EQ(each.nanoseconds, time.known ? time.nanoseconds : 0) << each.text;
  }
}

// ---- Names

TEST(EntryPath, Rules) {
  const struct {
    std::string path, plain, noSlash, discarded;
  } kCases[] = {
      {"a/b", "a/b", "a/b", "b"},
      {"//etc/x", "//etc/x", "etc/x", "x"},
      {"a\\b\\c.txt", "a/b/c.txt", "a/b/c.txt", "c.txt"},
      {"\\\\x\\y", "//x/y", "x/y", "y"},
      {"../a/..", "../a/..", "../a/..", ".."},
      {"///", "///", "", ""},
      {"", "", "", ""},
      {"d/", "d/", "d/", ""},
      {"C:\\x", "C:/x", "C:/x", "x"},
      {"./a", "./a", "./a", "a"},
  };
  for (const auto& each : kCases) {
    const auto apply = [&](bool discard, bool noAbsolute) {
      StringBuffer path(each.path);
      applyEntryPathRules(path, discard, noAbsolute);
      return path.str();
    };
    EXPECT_EQ(each.plain, apply(false, false));
    EXPECT_EQ(each.noSlash, apply(false, true));
    EXPECT_EQ(each.discarded, apply(true, false));
    EXPECT_EQ(each.discarded, apply(true, true));
  }
}

TEST(NameFilter, EveryRule) {
  const struct {
    const char *mustMatch, *mustNotMatch;
    bool caseSensitive, prepared;  // prepared: a writing method has looked at the patterns
    const char* path;
    bool excluded;
  } kCases[] = {
      {"", "", false, true, "any/thing", false},
      {"*.txt", "", false, true, "a/b.txt", false},
      {"*.txt", "", false, true, "a/b.dat", true},
      {"*.txt", "", false, true, "a/b.TXT", false},
      {"*.txt", "", true, true, "a/b.TXT", true},
      {"name", "", false, true, "name", false},
      {"name", "", false, true, "dir/name", false},
      {"name", "", false, true, "dir/name2", true},
      {"name", "", false, true, "dir/name/x", true},
      {"name", "", false, false, "dir/name", true},  // not looked at: a wildcard pattern without a star
      {"name", "", false, false, "NAME", false},
      {"name", "", true, true, "dir/NAME", false},  // the final part: case the other way round
      {"name", "", false, true, "dir/NAME", true},
      {"name", "", true, true, "NAME", true},  // no slash, no final part
      {"name", "", false, true, "NAME", false},
      {"dir/name", "", false, true, "x/dir/name", true},
      {"dir\\name", "", false, true, "x/dir\\name", true},
      {"", "name", false, true, "name", true},
      {"", "name", false, true, "dir/name", false},  // inside a directory it is taken
      {"", "name", false, true, "Name", true},
      {"", "name", true, true, "Name", false},
      {"", "*name", false, true, "dir/name", true},
      {"", "*/name", false, true, "dir/name", true},
      {"*.txt", "a*", false, true, "a.txt", true},
      {"*.txt", "a*", false, true, "b.txt", false},
      {"*.txt", "a*", false, true, "b.dat", true},
      {"name", "", false, true, "", true},
      {"*", "", false, true, "", false},
      {"", "*", false, true, "", true},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(std::string(each.mustMatch) + " ! " + each.mustNotMatch + " : " + each.path);
    ClsTar tar;
    tar.put_MustMatch(each.mustMatch);
    tar.put_MustNotMatch(each.mustNotMatch);
    tar.put_MatchCaseSensitive(each.caseSensitive);
    if (each.prepared) tar.setMatchPatternExactFlags();
    EXPECT_EQ(each.excluded, tar.excludeByMatch(each.path, tar.log()));
  }
  for (const auto& [pattern, plain] :
       {std::pair("", false), std::pair("name", true), std::pair("a*", false), std::pair("a/b", false),
        std::pair("a\\b", false), std::pair("a?[b]", true)}) {
    EXPECT_EQ(plain, isPlainName(pattern)) << pattern;
  }
}

TEST(SourceEntry, Forms) {
  const struct {
    std::string entry;
    bool isPair, isClosed;
    std::string local, inTar;
  } kCases[] = {
      {"a/b", false, true, "a/b", ""},
      {"", false, true, "", ""},
      {"a\x1B"
       "b",
       false, true,
       "a\x1B"
       "b",
       ""},
      {"\x1B"
       "a",
       true, false, "", ""},
      {"\x1B", true, false, "", ""},
      {"\x1B"
       "a\x1B",
       true, true, "a", ""},
      {"\x1B"
       "a\x1B"
       "b\x1B"
       "c",
       true, true, "a",
       "b\x1B"
       "c"},
      {makePairEntry("a", "b"), true, true, "a", "b"},
      {makePairEntry("", ""), true, true, "", ""},
  };
  for (const auto& each : kCases) {
    const SourceEntry parsed = parseSourceEntry(each.entry);
    EXPECT_EQ(each.isPair, parsed.isPair) << each.entry;
    EXPECT_EQ(each.isClosed, parsed.isClosed) << each.entry;
    EXPECT_EQ(each.local, parsed.localPath);
    EXPECT_EQ(each.inTar, parsed.pathInTar);
  }
}

TEST(TarOptions, Words) {
  const struct {
    const char* words;
    std::string complaints;  // joined by "|"
    bool fullRead;
    Confine confine;
    long long maxExtension;
  } kCases[] = {
      {"", "", false, Confine::Off, 67108864},
      {"FullRead", "", true, Confine::Off, 67108864},
      {" fULLrEAD ,confine = BENEATH,", "", true, Confine::Beneath, 67108864},
      {"FullRead=off", "", false, Confine::Off, 67108864},
      {"FullRead,FullRead=off", "", false, Confine::Off, 67108864},
      {"FullRead=off,FullRead=on", "", true, Confine::Off, 67108864},
      {"FullRead,FullRead=yes", "FullRead=yes", true, Confine::Off, 67108864},
      {"FullRead=", "FullRead=", false, Confine::Off, 67108864},
      {"Confine", "Confine", false, Confine::Off, 67108864},
      {"Confine=nolinks,Confine=x", "Confine=x", false, Confine::NoLinks, 67108864},
      {"Confine=nolinks,Confine=off", "", false, Confine::Off, 67108864},
      {"MaxExtensionBytes=5,Bogus,FullRead=on,=x", "Bogus|=x", true, Confine::Off, 5},
      {"MaxExtensionBytes=0,MaxExtensionBytes=-1,MaxExtensionBytes=9223372036854775808,MaxExtensionBytes=5x",
       "MaxExtensionBytes=0|MaxExtensionBytes=-1|MaxExtensionBytes=9223372036854775808|MaxExtensionBytes=5x",
       false, Confine::Off, 67108864},
      {"MaxExtensionBytes=5,MaxExtensionBytes=off", "", false, Confine::Off, 67108864},
      {",, ,", "", false, Confine::Off, 67108864},
      {"UstarOverflow,UstarOverflow=on,FastDeflate=4", "UstarOverflow|UstarOverflow=on|FastDeflate=4", false,
       Confine::Off, 67108864},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.words);
    std::vector<std::string> complaints;
    const TarOptions options = parseTarOptions(each.words, complaints);
    std::string joined;
    for (const std::string& word : complaints) joined += (joined.empty() ? "" : "|") + word;
    EXPECT_EQ(each.complaints, joined);
    EXPECT_EQ(each.fullRead, options.fullRead);
    EXPECT_EQ(each.confine, options.confine);
    EXPECT_EQ(each.maxExtension, options.maxExtensionBytes);
  }
}

// Each switch moves its own setting and no other.
TEST(TarOptions, EverySwitch) {
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
  for (const auto& [word, member] : kSwitches) {
    std::vector<std::string> complaints;
    const TarOptions options = parseTarOptions(word, complaints);
    for (const auto& [otherWord, other] : kSwitches)
      EXPECT_EQ(member == other, options.*other) << word << otherWord;
    EXPECT_TRUE(complaints.empty());
  }
}

}  // namespace
}  // namespace morvane::testing
