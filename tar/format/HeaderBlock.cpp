// The one place where a header block is written, for members and for records. The layout is TarBlock.h's;
// what has to go into a record instead has been decided before (FormatLimits.h). This only puts values into
// their fields.
#include "tar/format/HeaderBlock.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tar/format/Member.h"
#include "tar/format/TarBlock.h"
#include "tar/format/TarNumber.h"

namespace morvane {

namespace {

// At most `most` bytes, without a NUL when all are used: POSIX allows that for name, link name and prefix,
// and the block was zero before.
void putText(unsigned char* block, unsigned offset, unsigned most, std::string_view text) {
  text.copy(reinterpret_cast<char*>(block + offset), most);
}

// The last byte is left for the NUL that POSIX demands there. A name that is cut may be somebody else's; the
// number tells whose the member is.
void putName(unsigned char* block, Field field, std::string_view name) {
  if (name.size() < field.width) putText(block, field.offset, field.width - 1, name);
}

// Such a path has been refused long before with UstarOverflow=fail. Without it there is no way left to report
// anything from here, and an archive with a wrong path in it would be found out too late.
void requirePrefixFits(std::string_view prefix) {
  if (prefix.size() <= kLongestPrefix) return;
  std::fprintf(stderr, "morvane_tar: fatal: a ustar prefix of %zu bytes does not fit the header block\n",
               prefix.size());
  std::abort();
}

}  // namespace

// The checksum comes last: it is of all the other bytes.
void encodeHeaderBlock(const Member& member, const StoredPath& path, TarMagic magic, unsigned char* block) {
  requirePrefixFits(path.prefix);
  std::memset(block, 0, kBlockSize);
  putText(block, kNameField.offset, kNameField.width, path.name);
  putText(block, kPrefixField.offset, kLongestPrefix, path.prefix);
  const bool gnu = magic == TarMagic::Gnu;
  // Base-256 is GNU's, but sizes have it in every format, because readers of every kind take it there. An id
  // or a time that neither form holds has been put into a pax record, which readers take in its place, or has
  // been refused.
  const auto put = [&](Field field, long long value) {
    putNumber(block, field, gnu || hasOctalForm(field, value) ? value : 0);
  };
  put(kModeField, member.mode);
  put(kUidField, member.uid);
  put(kGidField, member.gid);
  putNumber(block, kSizeField, member.size);
  put(kMtimeField, member.mtime.seconds);
  block[kTypeFlagField.offset] = static_cast<unsigned char>(member.typeFlag);
  putText(block, kLinkNameField.offset, kLinkNameField.width, member.linkPath);
  std::memcpy(block + kMagicField.offset, gnu ? kGnuMagic : kUstarMagic, kMagicField.width);
  putName(block, kUserNameField, member.userName);
  putName(block, kGroupNameField, member.groupName);
  const bool isDevice = member.typeFlag == kTypeCharacterDevice || member.typeFlag == kTypeBlockDevice;
  // GNU tar leaves both fields zero for what is no device.
  if (!gnu || isDevice) {
    put(kDevMajorField, member.deviceMajor);
    put(kDevMinorField, member.deviceMinor);
  }
  putChecksum(block);
}

}  // namespace morvane
