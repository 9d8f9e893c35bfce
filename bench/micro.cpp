// The pure pieces by themselves. What it costs to go through whole archives is bench/compare's matter.
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

constexpr char kPath[] = "projects/component/source/runtime/text/WildcardPattern.cpp";

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

void headerEncode(benchmark::State& state) {
  const Member member = someFile();
  unsigned char block[kBlockSize];
  for (auto _ : state) {
    encode(member, block);
    benchmark::DoNotOptimize(block);
  }
}
BENCHMARK(headerEncode);

void headerParse(benchmark::State& state) {
  unsigned char block[kBlockSize];
  encode(someFile(), block);
  TarHeader header;
  LogNull log;
  for (auto _ : state) {
    bool end = false;
    if (!header.parseFromMemory(block, end, log)) state.SkipWithError("refused");
    benchmark::DoNotOptimize(header);
  }
}
BENCHMARK(headerParse);

// Octal up to 8 GiB, base-256 from there.
void sizeFieldThereAndBack(benchmark::State& state) {
  unsigned char block[kBlockSize] = {};
  for (auto _ : state) {
    putNumber(block, kSizeField, state.range(0));
    benchmark::DoNotOptimize(block);
    benchmark::DoNotOptimize(parseNumber(block, kSizeField));
  }
}
BENCHMARK(sizeFieldThereAndBack)->Arg(4711)->Arg(1LL << 33);

void base256ThereAndBack(benchmark::State& state) {
  char field[12];
  long long value = 1LL << 40;
  for (auto _ : state) {
    benchmark::DoNotOptimize(numToBase256(value, field, sizeof field));
    benchmark::DoNotOptimize(base256ToNum(value, field, sizeof field));
  }
}
BENCHMARK(base256ThereAndBack);

void matcher(benchmark::State& state, const char* pattern, bool caseSensitive) {
  NameFilter::Settings settings;
  settings.mustMatch = pattern;
  settings.caseSensitive = caseSensitive;
  settings.mustMatchExact = isPlainName(pattern);
  const NameFilter filter(settings);
  for (auto _ : state) benchmark::DoNotOptimize(filter.excludes(kPath));
}
BENCHMARK_CAPTURE(matcher, none, "", true);
BENCHMARK_CAPTURE(matcher, plainName, "WildcardPattern.cpp", true);
BENCHMARK_CAPTURE(matcher, suffix, "*.cpp", true);
BENCHMARK_CAPTURE(matcher, anyCase, "*/TEXT/*.cpp", false);
BENCHMARK_CAPTURE(matcher, manyStars, "*p*r*o*t*e*x*t*z", true);

// A .Z file of this many codes, each drawn from all that the decoder knows by then: texts of some ten bytes.
std::string randomLzw(unsigned codes) {
  std::mt19937 random(7);
  std::string packed("\x1F\x9D\x10", 3);  // 16 bits, no code that clears the table
  unsigned width = 9, entries = 256, inGroup = 0, pending = 0, pendingBits = 0;
  const auto put = [&](unsigned code) {
    pending |= code << pendingBits;
    for (pendingBits += width; pendingBits >= 8; pendingBits -= 8, pending >>= 8)
      packed.push_back(static_cast<char>(pending));
    inGroup = (inGroup + 1) % 8;
  };
  for (unsigned i = 0; i < codes; ++i) {
    put(static_cast<unsigned>(random()) % entries);
    if (i > 0 && entries < 1u << 16) ++entries;
    if (entries < 1u << width || width == 16) continue;
    while (inGroup != 0) put(0);
    ++width;
  }
  return packed;
}

void lzwDecode(benchmark::State& state) {
  struct Counting : _mvOutput {
    bool _writeBytes(const char*, unsigned n, _mvIoParams&, LogBase&) override { return (total += n) > 0; }
    unsigned long long total = 0;
  } out;
  const std::string packed = randomLzw(500000);
  LogNull log;
  _mvIoParams io;
  for (auto _ : state) {
    _mvMemoryDataSource source;
    source.initializeMemSource(reinterpret_cast<const unsigned char*>(packed.data()),
                               static_cast<unsigned>(packed.size()));
    if (!MorvaneLzw::decompressLzwSource64(source, out, true, io, log)) state.SkipWithError("refused");
  }
  state.SetBytesProcessed(static_cast<int64_t>(out.total));
}
BENCHMARK(lzwDecode)->Unit(benchmark::kMillisecond);

// What has arrived and waits: filled in pieces of the argument's size, eaten from the front block by block.
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
