// What a build without the library has in place of zstd.
#include "runtime/codec/ZstdCodec.h"
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
    log.LogError("This build has no zstd.");
    return false;
  }
};

}  // namespace

std::unique_ptr<Encoder> makeZstdEncoder(const CodecOptions&) { return std::make_unique<NoEncoder>(); }

bool decodeZstd(_mvDataSource&, _mvOutput&, const CodecOptions&, ProgressMonitor*, LogBase& log) {
  return NoEncoder::fail(log);
}

}  // namespace morvane
