// FastDeflate for builds without ISA-L. It says that there is none, and MorvaneDeflate then takes zlib's own
// fast levels; the other functions are there to be linked and are never called.
#include "runtime/codec/FastDeflate.h"

namespace morvane {

// Empty, because the pointer to it needs a complete type to be destroyed.
struct FastDeflate::Engine {};

FastDeflate::FastDeflate() = default;
FastDeflate::~FastDeflate() = default;

bool FastDeflate::isAvailable() { return false; }
bool FastDeflate::begin(int) { return false; }
bool FastDeflate::beginBehind(int, const unsigned char*, unsigned) { return false; }
bool FastDeflate::run(const unsigned char*, unsigned, bool, DataBuffer&) { return false; }
bool FastDeflate::runBlock(const unsigned char*, unsigned, bool, DataBuffer&) { return false; }

}  // namespace morvane
