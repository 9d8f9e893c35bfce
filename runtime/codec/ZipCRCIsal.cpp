#include <isa-l/crc.h>

#include "runtime/codec/ZipCRC.h"

namespace morvane {

void ZipCRC::moreData(const unsigned char* bytes, unsigned n) { m_crc = crc32_gzip_refl(m_crc, bytes, n); }

}  // namespace morvane
