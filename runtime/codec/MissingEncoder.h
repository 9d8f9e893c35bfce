// What a build without a codec's library has in its place: it fails as soon as it is to begin, so that a
// write says why before it has written anything.
#pragma once

#include "runtime/codec/Codec.h"
#include "runtime/io/Io.h"

namespace morvane {

// `message` is a literal that says what is missing: "This build has no zstd."
class MissingEncoder : public Encoder {
 public:
  explicit MissingEncoder(const char* message) : m_message(message) {}

  bool begin(_mvOutput&, const Io& io) override { return io.fail(m_message); }
  bool add(const unsigned char*, unsigned, DataBuffer&, const Io& io) override { return io.fail(m_message); }
  bool finish(DataBuffer&, const Io& io) override { return io.fail(m_message); }

 private:
  const char* const m_message;
};

}  // namespace morvane
