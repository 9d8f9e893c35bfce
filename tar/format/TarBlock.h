// The 512-byte header block of a tar archive: where each field lies. All offsets and widths are bytes.
//
// POSIX.1-1988 ustar, with the differences of GNU tar in the magic. Writers and readers both take it from
// here.
#pragma once

#include <cstddef>

namespace morvane {

// Archives are a whole number of blocks: a header, its data filled up with zeros to a whole block, the next
// header; two blocks of zeros end them.
constexpr unsigned kBlockSize = 512;

// Where a field lies in a block: its first byte and how many it has.
struct Field {
  unsigned offset, width;
};

// Texts need no NUL at their end when they fill their field, but for user and group name. Numbers are octal
// text; who reads them must take every form that TarNumber.h knows.
constexpr Field kNameField{0, 100};
constexpr Field kModeField{100, 8};
constexpr Field kUidField{108, 8};
constexpr Field kGidField{116, 8};
constexpr Field kSizeField{124, 12};
constexpr Field kMtimeField{136, 12};
constexpr Field kChecksumField{148, 8};
constexpr Field kTypeFlagField{156, 1};
constexpr Field kLinkNameField{157, 100};
constexpr Field kMagicField{257, 8};  // magic and version in one
constexpr Field kUserNameField{265, 32};
constexpr Field kGroupNameField{297, 32};
constexpr Field kDevMajorField{329, 8};
constexpr Field kDevMinorField{337, 8};
// POSIX ustar only. GNU tar's own form has other things from here on (times, the map of a sparse file), which
// is why a prefix is read from blocks of the ustar magic alone.
constexpr Field kPrefixField{345, 155};
// Unused by POSIX.
constexpr Field kTailField{500, 12};

constexpr Field kAllFields[] = {kNameField,     kModeField,     kUidField,      kGidField,
                                kSizeField,     kMtimeField,    kChecksumField, kTypeFlagField,
                                kLinkNameField, kMagicField,    kUserNameField, kGroupNameField,
                                kDevMajorField, kDevMinorField, kPrefixField,   kTailField};

// The table is written by hand; the compiler sees to it that it describes a block.
constexpr bool fieldsTileTheBlock() {
  unsigned next = 0;
  for (const Field& field : kAllFields) {
    if (field.offset != next) return false;
    next += field.width;
  }
  return next == kBlockSize;
}
static_assert(fieldsTileTheBlock(), "no gap, no overlap, 512 bytes in all");

// Magic and version, 8 bytes. POSIX has a NUL and the version "00"; the form of GNU tar has two blanks and a
// NUL.
constexpr char kUstarMagic[] =
    "ustar\0"
    "00";
constexpr char kGnuMagic[] = "ustar  ";
static_assert(sizeof kUstarMagic == 9 && sizeof kGnuMagic == 8, "the last NUL of the gnu form is part of it");

// A prefix of ours may run on into the block's tail: the slash between prefix and name is stored with it. 167
// bytes.
constexpr unsigned kLongestPrefix = kPrefixField.width + kTailField.width;

// Bytes that are not 0 where the map of a sparse member goes on in a further block: in its header block, and
// in each of those. GNU tar's old sparse format: isextended.
constexpr unsigned kSparseGoesOnInHeader = 482, kSparseGoesOnInMap = 504;

// Type flags. A type that is not known here is read as a regular file, as POSIX asks.
constexpr char kTypeRegular = '0';
constexpr char kTypeOldRegular = '\0';
constexpr char kTypeHardLink = '1';
constexpr char kTypeSymbolicLink = '2';
constexpr char kTypeCharacterDevice = '3';
constexpr char kTypeBlockDevice = '4';
constexpr char kTypeDirectory = '5';
constexpr char kTypeFifo = '6';
constexpr char kTypeContiguous = '7';   // POSIX: treated as a regular file by all who have no such thing
constexpr char kTypePax = 'x';          // POSIX: attributes of the next member
constexpr char kTypePaxGlobal = 'g';    // POSIX: attributes of all later members
constexpr char kTypeLongName = 'L';     // GNU: path of the next member
constexpr char kTypeLongLink = 'K';     // GNU: link target of the next member
constexpr char kTypeVolumeLabel = 'V';  // GNU: names the archive
constexpr char kTypeDumpDir = 'D';      // GNU: a directory's listing in an incremental archive
constexpr char kTypeMultiVolume = 'M';  // GNU: the rest of a member begun in another volume
constexpr char kTypeSparse = 'S';       // GNU: a file of pieces, with a map of them
constexpr char kTypeOldNames = 'N';     // GNU, long abandoned: names of other members

// Zero bytes after n data bytes, n >= 0: 0 to 511. Nothing behind a whole block.
constexpr unsigned paddingAfter(long long n) {
  return (kBlockSize - static_cast<unsigned>(n % kBlockSize)) % kBlockSize;
}

// n >= 0 plus m >= 0, where a claim in an archive may be too large for any sum: stops at the largest value.
// So a comparison with the sum is right for every claim.
constexpr long long saturatedSum(long long n, long long m) {
  constexpr long long kMost = 0x7FFFFFFFFFFFFFFF;
  return n > kMost - m ? kMost : n + m;
}

// n data bytes, n >= 0, raised to whole blocks. What to pass over behind a header.
constexpr long long paddedSize(long long n) { return saturatedSum(n, paddingAfter(n)); }

}  // namespace morvane
