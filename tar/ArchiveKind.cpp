#include "tar/ArchiveKind.h"

#include <algorithm>
#include <cstring>

#include "runtime/io/_mvDataSource.h"
#include "tar/TarBlock.h"
#include "tar/TarNumber.h"

namespace morvane {

namespace {

bool startsWith(const unsigned char* bytes, unsigned n, const char* signature, unsigned length) {
  return n >= length && std::memcmp(bytes, signature, length) == 0;
}

// Compressed bytes are no number where the checksum stands. Read as 0, that would agree with the sum of their
// bytes as signed ones in one of some thousand archives.
bool isPlainBlock(const unsigned char* bytes, unsigned n) {
  if (n < kBlockSize) return false;
  const NumberField stored = parseNumber(bytes, kChecksumField);
  const bool isNumber = stored.state == NumberField::State::Ok && stored.value > 0;
  return (isNumber && hasValidChecksum(bytes)) ||
         std::all_of(bytes, bytes + kBlockSize, [](unsigned char b) { return b == 0; });
}

bool isBzip2(const unsigned char* bytes, unsigned n) {
  constexpr unsigned kMagicAt = 4, kMagicSize = 6;
  if (!startsWith(bytes, n, "BZh", 3) || n < kMagicAt + kMagicSize) return false;
  const unsigned char* const magic = bytes + kMagicAt;
  const bool block = std::memcmp(magic, "\x31\x41\x59\x26\x53\x59", kMagicSize) == 0;
  const bool emptyStream = std::memcmp(magic, "\x17\x72\x45\x38\x50\x90", kMagicSize) == 0;
  return bytes[3] >= '1' && bytes[3] <= '9' && (block || emptyStream);
}

}  // namespace

ArchiveKind recogniseArchive(const unsigned char* bytes, unsigned n) {
  if (isPlainBlock(bytes, n)) return ArchiveKind::Plain;
  if (startsWith(bytes, n, "\x1F\x8B", 2)) return ArchiveKind::Gzip;
  if (isBzip2(bytes, n)) return ArchiveKind::Bzip2;
  if (startsWith(bytes, n, "\x1F\x9D", 2)) return ArchiveKind::Compress;
  return ArchiveKind::Unknown;
}

bool detectArchiveKind(_mvDataSource& source, ArchiveKind& kind, ProgressMonitor* pm, LogBase& log) {
  const char* bytes = nullptr;
  unsigned n = 0;
  if (!source.peekBytes(kBlockSize, bytes, n, pm, log)) return false;
  kind = recogniseArchive(reinterpret_cast<const unsigned char*>(bytes), n);
  return true;
}

}  // namespace morvane
