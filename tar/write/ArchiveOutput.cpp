// Every byte of an archive passes writeOut_pm, headers as well as data: so the writer's question whether to
// abort, the count for the trailer and the choice of plain or compressed stand here once. A file or pipe
// behind it asks by itself, while it waits.
#include "tar/write/ArchiveOutput.h"

#include "runtime/buffer/DataBuffer.h"
#include "runtime/io/Io.h"
#include "runtime/io/OutputFile.h"

namespace morvane {

// Whatever an earlier write left, a failed one too, is forgotten.
bool ArchiveOutput::begin(Compression compression, const CodecOptions& options, const Io& io) {
  m_encoder = compression == Compression::None ? nullptr : codecOf(compression).makeEncoder(options);
  m_compressFirst = true;
  m_compressLast = false;
  m_uncompressedSize = 0;
  return !m_encoder || m_encoder->isThere(io);
}

// The frame's parts do not pass writeOut_pm: they are none of the archive's bytes and must not be compressed.
bool ArchiveOutput::open(_mvOutput& out, const Io& io) { return !m_encoder || m_encoder->begin(out, io); }

bool ArchiveOutput::close(_mvOutput& out, const Io& io) {
  return !m_encoder || m_encoder->end(out, m_uncompressedSize, io);
}

// The abort is asked for by time, not with each piece: a clock is cheaper than a callback.
bool ArchiveOutput::writeOut_pm(const unsigned char* data, unsigned len, bool checkAbort, const Io& io) {
  if (checkAbort && io.monitor && io.monitor->abortCheckTimed(io.log)) {
    return io.fail("TAR aborted by application. (1)");
  }
  if (m_encoder) return compress(data, len, io);
  return m_output && m_output->writeBytesPM(reinterpret_cast<const char*>(data), len, io.monitor, io.log);
}

// For copying without a buffer between: only a plain archive in a file takes its bytes as they are. An output
// that an application derives is never read into, as nobody knows where it keeps its bytes.
OutputFile* ArchiveOutput::plainFile() const {
  return m_encoder ? nullptr : dynamic_cast<OutputFile*>(m_output);
}

// The encoder is finished together with the last piece, because nothing may be added behind it. The first
// piece is never the last: an archive's end alone is two blocks.
bool ArchiveOutput::compress(const unsigned char* data, unsigned len, const Io& io) {
  m_uncompressedSize += len;
  // What came out of the encoder, which may be nothing for many pieces.
  DataBuffer ready;
  const auto writeReady = [&] {
    return ready.isEmpty() || (m_output && m_output->writeDbPM(ready, io.monitor, io.log));
  };
  const bool isLast = m_compressLast && !m_compressFirst;
  m_compressFirst = false;
  if (!m_encoder->add(data, len, ready, io) || !writeReady()) return false;
  for (bool isOut = !isLast; !isOut;) {
    ready.clear();
    if (!m_encoder->finish(ready, isOut, io) || !writeReady()) return false;
  }
  return true;
}

}  // namespace morvane
