// A member's fields encoded as a 512-byte header block.
#pragma once

#include <string_view>

namespace morvane {

enum class TarMagic { Gnu, Ustar };

struct HeaderFields {
  std::string_view name;    // its first 100 bytes are stored
  std::string_view prefix;  // with its joining slash; must fit the prefix field and the block's tail
  unsigned mode = 0, uid = 0, gid = 0;
  long long size = 0;  // bytes, 0 or more
  unsigned mtime = 0;  // Unix seconds
  char typeFlag = '0';
  TarMagic magic = TarMagic::Gnu;        // Ustar also writes the device numbers
  std::string_view userName, groupName;  // the first 31 bytes of each are stored
};

// Fills all 512 bytes. A prefix that does not fit the block stops the process, with a line on standard error:
// there is no place for it, and a wrong path must not be written.
void encodeHeaderBlock(const HeaderFields& fields, unsigned char* block);

// Whether a path (of any member, before normalisation) is that of a script.
bool isScriptPath(std::string_view path);

}  // namespace morvane
