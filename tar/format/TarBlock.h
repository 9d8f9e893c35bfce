// The 512-byte header block of a tar archive: where each field lies. All offsets and widths are bytes.
//
// POSIX.1-1988 ustar, with the differences of GNU tar in the magic. Writers and readers both take it from
// here.
#pragma once

#include <cstddef>

namespace morvane {

// Archives are a whole number of blocks: a header, its data filled up with zeros to a whole block, the next
// header; two blocks of zeros end them. A reader may find the first of the two only, or bytes behind them:
// what that means is the reader's to say.
constexpr unsigned kBlockSize = 512;

// Where a field lies in a block: its first byte and how many it has.
struct Field {
  unsigned offset, width;
};

// Texts need no NUL at their end when they fill their field, but for user and group name. Numbers are octal
// text; who reads them must take every form that TarNumber.h knows. The name is the whole path, or what is
// behind its prefix.
constexpr Field kNameField{0, 100};
// The twelve permission bits; some writers put the file's type in front of them.
constexpr Field kModeField{100, 8};
// Seven octal digits: 0 to 2,097,151. What is more goes into base-256 or a pax record.
constexpr Field kUidField{108, 8};
constexpr Field kGidField{116, 8};
// Bytes of data behind the block. Eleven octal digits: less than 8 GiB; base-256 from there on.
constexpr Field kSizeField{124, 12};
// Unix seconds, which eleven octal digits hold until the year 2242. Times before 1970 have no octal form.
constexpr Field kMtimeField{136, 12};
// The sum of all bytes of the block as unsigned numbers, with these eight as blanks.
constexpr Field kChecksumField{148, 8};
// One of the type flags below.
constexpr Field kTypeFlagField{156, 1};
// What a hard link is another name of, or the text of a symbolic link.
constexpr Field kLinkNameField{157, 100};
// It tells who wrote the block, and so what lies behind kDevMinorField.
constexpr Field kMagicField{257, 8};  // magic and version in one
// Names count before ids where the reader's system knows them; the last byte is a NUL.
constexpr Field kUserNameField{265, 32};
constexpr Field kGroupNameField{297, 32};
// Of devices alone. GNU tar leaves them empty for everything else.
constexpr Field kDevMajorField{329, 8};
constexpr Field kDevMinorField{337, 8};
// POSIX ustar only. GNU tar's own form has other things from here on (times, the map of a sparse file), which
// is why a prefix is read from blocks of the ustar magic alone.
constexpr Field kPrefixField{345, 155};
// Unused by POSIX.
constexpr Field kTailField{500, 12};

// In the order of the block, for those who show a block field by field.
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
// NUL. The first literal ends in front of the digits, or its "\0" would take them for more octal ones.
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
// Archives from before POSIX; a slash at the end of the name makes a directory of it.
constexpr char kTypeOldRegular = '\0';
// Of a member before it. Its size is 0 as a rule, but some writers repeat the data behind it.
constexpr char kTypeHardLink = '1';
// Its text is in the link name, or in a record; it has no data.
constexpr char kTypeSymbolicLink = '2';
constexpr char kTypeCharacterDevice = '3';
constexpr char kTypeBlockDevice = '4';
// It has no data as a rule. POSIX lets the size be a limit for what is in it.
constexpr char kTypeDirectory = '5';
constexpr char kTypeFifo = '6';
constexpr char kTypeContiguous = '7';  // POSIX: treated as a regular file by all who have no such thing
// Records have a block of their own, which looks like a member's, and their text as its data. What they say
// goes before what the member's block says.
constexpr char kTypePax = 'x';          // POSIX: attributes of the next member
constexpr char kTypePaxGlobal = 'g';    // POSIX: attributes of all later members
constexpr char kTypeLongName = 'L';     // GNU: path of the next member
constexpr char kTypeLongLink = 'K';     // GNU: link target of the next member
constexpr char kTypeVolumeLabel = 'V';  // GNU: names the archive
constexpr char kTypeDumpDir = 'D';      // GNU: a directory's listing in an incremental archive
constexpr char kTypeMultiVolume = 'M';  // GNU: the rest of a member begun in another volume
constexpr char kTypeSparse = 'S';       // GNU: a file of pieces, with a map of them
constexpr char kTypeOldNames = 'N';     // GNU, long abandoned: names of other members

// Zero bytes after n data bytes, n >= 0: 0 to 511. Nothing behind a whole block. A size that is negative
// never gets here, because no header with one is valid.
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
