// What a build without the library has in place of xz.
#include "runtime/codec/MissingEncoder.h"
#include "runtime/codec/XzCodec.h"

namespace morvane {

namespace {

// Said when an archive is to be written and when one is to be read.
constexpr char kMissing[] = "This build has no xz.";

}  // namespace

std::unique_ptr<Encoder> makeXzEncoder(const CodecOptions&) {
  return std::make_unique<MissingEncoder>(kMissing);
}

bool decodeXz(_mvDataSource&, _mvOutput&, const CodecOptions&, const Io& io) { return io.fail(kMissing); }

}  // namespace morvane
