// Running CRC-32 with the polynomial of gzip and zip (RFC 1952, section 8). For gzip's trailer, written and
// compared.
#pragma once

#include "runtime/base/Export.h"

namespace morvane {

// Bytes in any pieces give the same sum; n may be 0. Computed by ISA-L where the build found it, else by
// zlib. A value. A run of it takes no memory and cannot fail.
class MORVANE_API ZipCRC {
 public:
  // Forgets what was added before.
  void beginStream() { m_crc = 0; }
  // Takes pieces in their order.
  void moreData(const unsigned char* bytes, unsigned n);
  // The CRC-32 of all bytes since beginStream. May be asked at any time, and more bytes may follow. 0 for
  // no bytes.
  unsigned endStream() const { return m_crc; }

 private:
  // As it would be stored: the inversions before and behind are the libraries' own.
  unsigned m_crc = 0;
};

}  // namespace morvane
