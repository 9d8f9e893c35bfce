// A member encoded as a 512-byte header block.
#pragma once

#include <string_view>

namespace morvane {

struct Member;

// Which magic a block has, and so how far its fields go: pax archives have ustar blocks.
enum class TarMagic { Gnu, Ustar };

// A path as it stands in a block. Bytes as they are stored; the views need to live for the call only.
struct StoredPath {
  std::string_view name;    // its first 100 bytes are stored
  std::string_view prefix;  // with its joining slash; must fit the prefix field and the block's tail
};

// Fills all 512 bytes: numbers, type flag, names, link and device (with Ustar, as GNU's form leaves it out
// for what is none) from the member, the path as given. A number that has no octal form in its field is
// written in base-256 where the magic is GNU's, as 0 elsewhere, but for the size; what has to go into a
// record instead FormatLimits.h tells. A prefix that does not fit the block stops the process, with a line on
// standard error: there is no place for it, and a wrong path must not be written. `block` has kBlockSize
// bytes, all of which are overwritten.
void encodeHeaderBlock(const Member& member, const StoredPath& path, TarMagic magic, unsigned char* block);

}  // namespace morvane
