#include "tar/write/ArchiveOutput.h"

#include "runtime/buffer/DataBuffer.h"
#include "runtime/io/OutputFile.h"
#include "runtime/log/LogBase.h"
#include "runtime/progress/ProgressMonitor.h"

namespace morvane {

void ArchiveOutput::begin(Compression compression, const CodecOptions& options) {
  m_encoder = compression == Compression::None ? nullptr : codecOf(compression).makeEncoder(options);
  m_compressFirst = true;
  m_compressLast = false;
  m_uncompressedSize = 0;
}

bool ArchiveOutput::open(_mvOutput& out, ProgressMonitor* pm, LogBase& log) {
  return !m_encoder || m_encoder->begin(out, pm, log);
}

bool ArchiveOutput::close(_mvOutput& out, LogBase& log) {
  return !m_encoder || m_encoder->end(out, m_uncompressedSize, log);
}

bool ArchiveOutput::writeOut_pm(const unsigned char* data, unsigned len, bool checkAbort, ProgressMonitor* pm,
                                LogBase& log) {
  if (checkAbort && pm && pm->abortCheckTimed(log)) {
    log.LogError("TAR aborted by application. (1)");
    return false;
  }
  if (m_encoder) return compress(data, len, pm, log);
  return m_output && m_output->writeBytesPM(reinterpret_cast<const char*>(data), len, pm, log);
}

OutputFile* ArchiveOutput::plainFile() const {
  return m_encoder ? nullptr : dynamic_cast<OutputFile*>(m_output);
}

bool ArchiveOutput::compress(const unsigned char* data, unsigned len, ProgressMonitor* pm, LogBase& log) {
  m_uncompressedSize += len;
  DataBuffer ready;
  const auto writeReady = [&] {
    return ready.isEmpty() || (m_output && m_output->writeDbPM(ready, pm, log));
  };
  const bool isLast = m_compressLast && !m_compressFirst;
  m_compressFirst = false;
  if (!m_encoder->add(data, len, ready, pm, log) || !writeReady()) return false;
  if (!isLast) return true;
  ready.clear();
  return m_encoder->finish(ready, pm, log) && writeReady();
}

}  // namespace morvane
