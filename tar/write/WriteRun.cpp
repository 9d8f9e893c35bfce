// Padding, and what stands in for data that a file no longer has: the latter may be as long as any file,
// hence pieces.
#include "tar/write/WriteRun.h"

#include <algorithm>

namespace morvane {

bool WriteRun::putZeros(long long n) {
  // A part of one piece does for padding, which is less than a block.
  static constexpr unsigned char kZeros[4096] = {};
  for (; n > 0; n -= static_cast<long long>(sizeof kZeros)) {
    if (!put(kZeros, static_cast<unsigned>(std::min<long long>(n, sizeof kZeros)))) return false;
  }
  return true;
}

}  // namespace morvane
