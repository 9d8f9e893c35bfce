// What a build without a codec's library has in its place: it fails as soon as it is to begin, so that a
// write says why before it has written anything.
#pragma once

#include "runtime/codec/Codec.h"
#include "runtime/log/LogBase.h"

namespace morvane {

// `message` is a literal that says what is missing: "This build has no zstd."
class MissingEncoder : public Encoder {
 public:
  explicit MissingEncoder(const char* message) : m_message(message) {}

  bool begin(_mvOutput&, ProgressMonitor*, LogBase& log) override { return fail(log); }
  bool add(const unsigned char*, unsigned, DataBuffer&, ProgressMonitor*, LogBase& log) override {
    return fail(log);
  }
  bool finish(DataBuffer&, ProgressMonitor*, LogBase& log) override { return fail(log); }

 private:
  bool fail(LogBase& log) const {
    log.LogError(m_message);
    return false;
  }

  const char* const m_message;
};

}  // namespace morvane
