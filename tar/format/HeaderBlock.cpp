#include "tar/format/HeaderBlock.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tar/format/TarBlock.h"
#include "tar/format/TarNumber.h"

namespace morvane {

namespace {

void putText(unsigned char* block, unsigned offset, unsigned most, std::string_view text) {
  text.copy(reinterpret_cast<char*>(block + offset), most);
}

void requirePrefixFits(std::string_view prefix) {
  if (prefix.size() <= kLongestPrefix) return;
  std::fprintf(stderr, "morvane_tar: fatal: a ustar prefix of %zu bytes does not fit the header block\n",
               prefix.size());
  std::abort();
}

}  // namespace

void encodeHeaderBlock(const HeaderFields& fields, unsigned char* block) {
  requirePrefixFits(fields.prefix);
  std::memset(block, 0, kBlockSize);
  putText(block, kNameField.offset, kNameField.width, fields.name);
  putText(block, kPrefixField.offset, kLongestPrefix, fields.prefix);
  putOctal(block, kModeField, fields.mode);
  putOctal(block, kUidField, fields.uid);
  putOctal(block, kGidField, fields.gid);
  putSize(block, fields.size);
  putOctal(block, kMtimeField, fields.mtime);
  block[kTypeFlagField.offset] = static_cast<unsigned char>(fields.typeFlag);
  const bool gnu = fields.magic == TarMagic::Gnu;
  std::memcpy(block + kMagicField.offset, gnu ? kGnuMagic : kUstarMagic, kMagicField.width);
  putText(block, kUserNameField.offset, kUserNameField.width - 1, fields.userName);
  putText(block, kGroupNameField.offset, kGroupNameField.width - 1, fields.groupName);
  if (!gnu) {
    putOctal(block, kDevMajorField, 0);
    putOctal(block, kDevMinorField, 0);
  }
  putChecksum(block);
}

bool isScriptPath(std::string_view path) {
  for (const std::string_view ending : {".sh", ".csh", ".bash", ".bsh"}) {
    if (path.size() >= ending.size() && path.substr(path.size() - ending.size()) == ending) return true;
  }
  return false;
}

}  // namespace morvane
