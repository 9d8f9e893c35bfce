#include "tar/write/ArchiveOutput.h"

#include "runtime/buffer/DataBuffer.h"
#include "runtime/io/OutputFile.h"
#include "runtime/log/LogBase.h"
#include "runtime/progress/ProgressMonitor.h"

namespace morvane {

void ArchiveOutput::beginCompressed(WriteCompression compression, int fastDeflate) {
  m_deflate.setFast(fastDeflate);
  m_writeCompression = compression;
  m_compressing = true;
  m_compressFirst = true;
  m_compressLast = false;
  m_uncompressedSize = 0;
  m_computeCrc = compression == WriteCompression::Gzip;
}

bool ArchiveOutput::writeOut_pm(const unsigned char* data, unsigned len, bool checkAbort, ProgressMonitor* pm,
                                LogBase& log) {
  if (checkAbort && pm && pm->abortCheckTimed(log)) {
    log.LogError("TAR aborted by application. (1)");
    return false;
  }
  if (m_compressing) return compress(data, len, pm, log);
  return m_output && m_output->writeBytesPM(reinterpret_cast<const char*>(data), len, pm, log);
}

OutputFile* ArchiveOutput::plainFile() const {
  return m_compressing ? nullptr : dynamic_cast<OutputFile*>(m_output);
}

bool ArchiveOutput::compress(const unsigned char* data, unsigned len, ProgressMonitor* pm, LogBase& log) {
  m_uncompressedSize += len;
  DataBuffer in, out;
  in.borrowData(data, len);
  const bool deflating = m_writeCompression == WriteCompression::Gzip;
  const auto writeProduced = [&] { return out.isEmpty() || (m_output && m_output->writeDbPM(out, pm, log)); };
  if (m_computeCrc && m_compressFirst) m_crc.beginStream();
  if (m_computeCrc) m_crc.moreData(data, len);

  bool ok;
  if (m_compressFirst) {
    ok = deflating ? m_deflate.BeginCompress(in, out, log, pm) : m_bzip2.BeginCompress(in, out, log, pm);
    m_compressFirst = false;
  } else {
    ok = deflating ? m_deflate.MoreCompress(in, out, log, pm) : m_bzip2.MoreCompress(in, out, log, pm);
    if (ok && m_compressLast) {
      if (!writeProduced()) return false;
      out.clear();
      ok = deflating ? m_deflate.EndCompress(out, log, pm) : m_bzip2.EndCompress(out, log, pm);
    }
  }
  return ok && writeProduced();
}

}  // namespace morvane
