// ZipCRC over zlib, for builds without ISA-L.
#include "runtime/codec/ZipCRC.h"

#include <zlib.h>

namespace morvane {

// zlib takes what was computed so far and goes on from there.
void ZipCRC::moreData(const unsigned char* bytes, unsigned n) {
  m_crc = static_cast<unsigned>(crc32(m_crc, bytes, n));
}

}  // namespace morvane
