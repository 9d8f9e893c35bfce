// The one way that bytes of an archive leave: straight to the output, or through an encoder. Everything of a
// write goes through one object of this kind; it knows neither headers nor members. One thread: compressors
// with workers keep those to themselves.
#pragma once

#include <memory>

#include "runtime/codec/Codec.h"

namespace morvane {

class OutputFile;
class _mvOutput;
struct Io;

// It lives in the ClsTar object and serves one write after the other. Failures have their reason in the log.
struct ArchiveOutput {
  _mvOutput* m_output = nullptr;     // not owned; set for the length of a write
  bool m_compressLast = false;       // the next write is the last
  long long m_uncompressedSize = 0;  // archive bytes handed to the encoder

  // What the next write goes through. An encoder serves one archive. Called before each write, a failed one
  // included, and before its output is made: false where this build cannot compress so. `options` are taken
  // over by the encoder.
  [[nodiscard]] bool begin(Compression compression, const CodecOptions& options, const Io& io);
  // Lets the encoder go, with its memory and its threads: on every way out of a write.
  void end() { m_encoder = nullptr; }
  // Writes what an encoder puts in front of its data and behind them. Nothing for a plain archive. `out` is
  // the output of the write, which is set later than this.
  [[nodiscard]] bool open(_mvOutput& out, const Io& io);
  [[nodiscard]] bool close(_mvOutput& out, const Io& io);

  // `checkAbort`: whether the abort checks inside a member's data are on. Without an output a plain write
  // fails without a message. The piece is not kept.
  [[nodiscard]] bool writeOut_pm(const unsigned char* data, unsigned len, bool checkAbort, const Io& io);

  // The file that bytes go to as they are; null when they go anywhere else. Owned by whoever began the write.
  OutputFile* plainFile() const;

 private:
  // One piece through the encoder, and what became ready to the output. False, with the reason in the log.
  bool compress(const unsigned char* data, unsigned len, const Io& io);

  std::unique_ptr<Encoder> m_encoder;  // null: plain
  bool m_compressFirst = false;        // the next write starts the encoder
};

}  // namespace morvane
