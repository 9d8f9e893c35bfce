// What a build without the library has in place of xz.
#include "runtime/codec/XzCodec.h"
#include "runtime/log/LogBase.h"

namespace morvane {

namespace {

// An encoder that fails as soon as it is to begin, so that a write says why before it has written anything.
class NoEncoder : public Encoder {
 public:
  bool begin(_mvOutput&, ProgressMonitor*, LogBase& log) override { return fail(log); }
  bool add(const unsigned char*, unsigned, DataBuffer&, ProgressMonitor*, LogBase& log) override {
    return fail(log);
  }
  bool finish(DataBuffer&, ProgressMonitor*, LogBase& log) override { return fail(log); }

  static bool fail(LogBase& log) {
    log.LogError("This build has no xz.");
    return false;
  }
};

}  // namespace

std::unique_ptr<Encoder> makeXzEncoder(const CodecOptions&) { return std::make_unique<NoEncoder>(); }

bool decodeXz(_mvDataSource&, _mvOutput&, const CodecOptions&, ProgressMonitor*, LogBase& log) {
  return NoEncoder::fail(log);
}

}  // namespace morvane
