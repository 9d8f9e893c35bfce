// The entry point of a fuzzing engine, for one target chosen when this file is compiled.
#include "fuzz/Targets.h"

// -1 would tell the engine not to keep an input; none is turned away here.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  morvane::fuzz::MORVANE_FUZZ_TARGET(data, size);
  return 0;
}
