// What a build without a codec's library has in its place: it fails as soon as it is asked for, so that a
// write says why before it has touched anything. The table of codecs keeps its row, because data of that
// kind are still called by their name.
#pragma once

#include "runtime/codec/Codec.h"
#include "runtime/io/Io.h"

namespace morvane {

// `message` is a literal that says what is missing: "This build has no zstd." `add` and `finish` are not
// reached by a caller that looks at the result of `isThere`.
class MissingEncoder : public Encoder {
 public:
  explicit MissingEncoder(const char* message) : m_message(message) {}

  // The line in the log is the only one about it.
  bool isThere(const Io& io) override { return io.fail(m_message); }
  bool add(const unsigned char*, unsigned, DataBuffer&, const Io& io) override { return io.fail(m_message); }
  bool finish(DataBuffer&, bool&, const Io& io) override { return io.fail(m_message); }

 private:
  // The decoder of the same build says the same.
  const char* const m_message;
};

}  // namespace morvane
