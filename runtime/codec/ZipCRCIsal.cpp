// ZipCRC over ISA-L, which uses the processor's vector instructions; for builds that found it.
#include <isa-l/crc.h>
#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "runtime/codec/ZipCRC.h"

namespace morvane {

namespace {

#if defined(__x86_64__)
// ISA-L leaves the upper halves of the vector registers in use. Until they are cleared, code compiled for SSE
// runs slower everywhere in the process: zlib's deflate took 12 % longer.
__attribute__((target("avx"))) void clearUpperHalves() { _mm256_zeroupper(); }

// A processor without AVX has no upper halves, and would not know the instruction. Asked once: the answer
// stays.
void afterVectorCode() {
  static const bool hasAvx = __builtin_cpu_supports("avx") != 0;
  if (hasAvx) clearUpperHalves();
}
#else
void afterVectorCode() {}
#endif

}  // namespace

void ZipCRC::moreData(const unsigned char* bytes, unsigned n) {
  m_crc = crc32_gzip_refl(m_crc, bytes, n);
  afterVectorCode();
}

}  // namespace morvane
