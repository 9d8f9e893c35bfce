// The pure pieces by themselves, without files: what a change of one of them gains or costs. What it costs to
// go through whole archives is bench/compare's matter. DoNotOptimize keeps the compiler from leaving out work
// whose result nobody uses.
#include <benchmark/benchmark.h>

#include <random>
#include <string>

#include "runtime/buffer/DataBuffer.h"
#include "runtime/codec/MorvaneLzw.h"
#include "runtime/io/_mvMemoryDataSource.h"
#include "runtime/io/_mvOutput.h"
#include "runtime/log/LogNull.h"
#include "tar/format/HeaderBlock.h"
#include "tar/format/Member.h"
#include "tar/format/TarBlock.h"
#include "tar/format/TarHeader.h"
#include "tar/format/TarNumber.h"
#include "tar/settings/NameFilter.h"

namespace morvane {
namespace {

// As long as paths of source trees are, and short enough for the name field of a block.
constexpr char kPath[] = "projects/component/source/runtime/text/WildcardPattern.cpp";

// What a usual file of an archive says, so that all fields take their usual way.
Member someFile() {
  Member member;
  member.mode = 0644;
  member.uid = member.gid = 1000;
  member.size = 4711;
  member.mtime.seconds = 1700000000;
  member.userName = member.groupName = "builder";
  return member;
}

void encode(const Member& member, unsigned char* block) {
  encodeHeaderBlock(member, {kPath, {}}, TarMagic::Ustar, block);
}

// A member's fields into a block, with its checksum.
void headerEncode(benchmark::State& state) {
  const Member member = someFile();
  unsigned char block[kBlockSize];
  for (auto _ : state) {
    encode(member, block);
    benchmark::DoNotOptimize(block);
  }
}
BENCHMARK(headerEncode);

// A block that this library made, back into fields. One header is filled again and again, as the readers do,
// so that its texts keep their memory.
void headerParse(benchmark::State& state) {
  unsigned char block[kBlockSize];
  encode(someFile(), block);
  TarHeader header;
  LogNull log;
  for (auto _ : state) {
    bool end = false;
    // A refused header would be measured as a fast one.
    if (!header.parseFromMemory(block, end, log)) state.SkipWithError("refused");
    benchmark::DoNotOptimize(header);
  }
}
BENCHMARK(headerParse);

// Octal up to 8 GiB, base-256 from there.
void sizeFieldThereAndBack(benchmark::State& state) {
  // Zeros, as a block is when its fields are written.
  unsigned char block[kBlockSize] = {};
  for (auto _ : state) {
    putNumber(block, kSizeField, state.range(0));
    benchmark::DoNotOptimize(block);
    benchmark::DoNotOptimize(parseNumber(block, kSizeField));
  }
}
BENCHMARK(sizeFieldThereAndBack)->Arg(4711)->Arg(1LL << 33);

// GNU's form alone, by the functions of the public interface.
void base256ThereAndBack(benchmark::State& state) {
  // As wide as the size field.
  char field[12];
  long long value = 1LL << 40;
  for (auto _ : state) {
    benchmark::DoNotOptimize(numToBase256(value, field, sizeof field));
    benchmark::DoNotOptimize(base256ToNum(value, field, sizeof field));
  }
}
BENCHMARK(base256ThereAndBack);

// A path of the usual length against patterns of each kind that has a way of its own. mustMatchExact is set
// as the methods set it. The pattern of many stars does not match, and must all the same take no more time
// than the path is long.
void matcher(benchmark::State& state, const char* pattern, bool caseSensitive) {
  NameFilter::Settings settings;
  settings.mustMatch = pattern;
  settings.caseSensitive = caseSensitive;
  settings.mustMatchExact = isPlainName(pattern);
  const NameFilter filter(settings);
  // The filter is made once, as it is for a whole archive.
  for (auto _ : state) benchmark::DoNotOptimize(filter.excludes(kPath));
}
// No pattern at all is the usual case, and has to cost next to nothing.
BENCHMARK_CAPTURE(matcher, none, "", true);
BENCHMARK_CAPTURE(matcher, plainName, "WildcardPattern.cpp", true);
BENCHMARK_CAPTURE(matcher, suffix, "*.cpp", true);
BENCHMARK_CAPTURE(matcher, anyCase, "*/TEXT/*.cpp", false);
BENCHMARK_CAPTURE(matcher, manyStars, "*p*r*o*t*e*x*t*z", true);

// A .Z file of this many codes, each drawn from all that the decoder knows by then: texts of some ten bytes.
// Its seed is fixed, so that runs can be compared. It is made here, because no program writes codes at
// random, and a real file would have to be kept beside the sources.
std::string randomLzw(unsigned codes) {
  std::mt19937 random(7);
  std::string packed("\x1F\x9D\x10", 3);  // 16 bits, no code that clears the table
  // Without block mode there is no clear code, and the first new text is the code 256.
  unsigned width = 9, entries = 256, inGroup = 0, pending = 0, pendingBits = 0;
  // Lowest bits first, as compress packs them. A code never leaves more than seven bits behind.
  const auto put = [&](unsigned code) {
    pending |= code << pendingBits;
    for (pendingBits += width; pendingBits >= 8; pendingBits -= 8, pending >>= 8)
      packed.push_back(static_cast<char>(pending));
    inGroup = (inGroup + 1) % 8;
  };
  for (unsigned i = 0; i < codes; ++i) {
    put(static_cast<unsigned>(random()) % entries);
    // The first code has no text before it, and makes no entry.
    if (i > 0 && entries < 1u << 16) ++entries;
    if (entries < 1u << width || width == 16) continue;
    // Codes come in groups of eight. What is left of one when the width changes is not read, and only has to
    // be there.
    while (inGroup != 0) put(0);
    ++width;
  }
  return packed;
}

// Decompression alone, from memory into an output that only counts. Bytes are those that come out.
void lzwDecode(benchmark::State& state) {
  // True as long as anything has come, which every piece makes sure of.
  struct Counting : _mvOutput {
    bool _writeBytes(const char*, unsigned n, _mvIoParams&, LogBase&) override { return (total += n) > 0; }
    unsigned long long total = 0;
  } out;
  // Made before the clock runs.
  const std::string packed = randomLzw(500000);
  LogNull log;
  _mvIoParams io;
  for (auto _ : state) {
    _mvMemoryDataSource source;
    source.initializeMemSource(reinterpret_cast<const unsigned char*>(packed.data()),
                               static_cast<unsigned>(packed.size()));
    if (!MorvaneLzw::decompressLzwSource64(source, out, true, io, log)) state.SkipWithError("refused");
  }
  // `out` has counted over all rounds, and the rate is of them all.
  state.SetBytesProcessed(static_cast<int64_t>(out.total));
}
BENCHMARK(lzwDecode)->Unit(benchmark::kMillisecond);

// What has arrived and waits: filled in pieces of the argument's size, eaten from the front block by block.
// Pieces below a block, of a little more than two, of a pipe, and of a whole large file: removing from the
// front must not move what is behind it each time.
void pendingBuffer(benchmark::State& state) {
  const std::string piece(static_cast<size_t>(state.range(0)), 'x');
  const auto pieceSize = static_cast<unsigned>(piece.size());
  DataBuffer pending;
  for (auto _ : state) {
    if (!pending.append(piece.data(), pieceSize)) state.SkipWithError("no memory");
    while (pending.getSize() >= kBlockSize) pending.removeChunk(0, kBlockSize);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(pendingBuffer)->Arg(100)->Arg(1030)->Arg(64 << 10)->Arg(64 << 20);

}  // namespace
}  // namespace morvane
