// ClsTar's methods over compressed archives: decompressed straight into the object, in one pass.
#include "runtime/base/ScopeExit.h"
#include "runtime/codec/MorvaneLzw.h"
#include "runtime/io/BufferedDataSource.h"
#include "tar/ClsTarMethod.h"
#include "tar/GzipFormat.h"
#include "tar/stream/GzipMembers.h"
#include "tar/stream/StreamingUntar.h"

namespace morvane {

namespace {

// A path that cannot be opened leaves no verdict in the log.
bool openArchive(_mvFileDataSource& file, const XString& path, MethodFrame& frame, LogBase& log) {
  if (file.openDataSourceFile(path, log)) return true;
  frame.withoutVerdict();
  return false;
}

}  // namespace

bool ClsTar::UntarGz(const XString& tarGzPath, ProgressEvent* progress) {
  return method("UntarGz", MethodForm::Judged, false, [&](MethodFrame& frame) {
    _mvFileDataSource file;
    setMatchPatternExactFlags();
    return openArchive(file, tarGzPath, frame, m_log) && untarGz(file, progress);
  });
}

bool ClsTar::UntarGz(_mvDataSource& source, ProgressEvent* progress) {
  return method("UntarGz", MethodForm::Judged, false, [&](MethodFrame&) {
    setMatchPatternExactFlags();
    return untarGz(source, progress);
  });
}

bool ClsTar::UntarBz2(const XString& tarBz2Path, ProgressEvent* progress) {
  return method("UntarBz2", MethodForm::Judged, false, [&](MethodFrame& frame) {
    _mvFileDataSource file;
    setMatchPatternExactFlags();
    return openArchive(file, tarBz2Path, frame, m_log) && untarBz2(file, progress);
  });
}

bool ClsTar::UntarBz2(_mvDataSource& source, ProgressEvent* progress) {
  return method("UntarBz2", MethodForm::Judged, false, [&](MethodFrame&) {
    setMatchPatternExactFlags();
    return untarBz2(source, progress);
  });
}

bool ClsTar::UntarZ(const XString& tarZPath, ProgressEvent* progress) {
  return method("UntarZ", MethodForm::Judged, false, [&](MethodFrame& frame) {
    _mvFileDataSource file;
    setMatchPatternExactFlags();
    return openArchive(file, tarZPath, frame, m_log) && untarZ(file, progress);
  });
}

bool ClsTar::UntarZ(_mvDataSource& source, ProgressEvent* progress) {
  return method("UntarZ", MethodForm::Judged, false, [&](MethodFrame&) {
    setMatchPatternExactFlags();
    return untarZ(source, progress);
  });
}

bool ClsTar::untarGz(_mvDataSource& source, ProgressEvent* progress) {
  return untarCompressed(source, progress, [this](_mvDataSource& from, ProgressMonitor* pm) {
    return unTarGz(from, pm, m_log);
  });
}

bool ClsTar::untarBz2(_mvDataSource& source, ProgressEvent* progress) {
  return untarCompressed(source, progress,
                         [this](_mvDataSource& from, ProgressMonitor* pm) { return unTarBz2(from, pm); });
}

bool ClsTar::untarZ(_mvDataSource& source, ProgressEvent* progress) {
  return untarCompressed(source, progress,
                         [this](_mvDataSource& from, ProgressMonitor* pm) { return unTarZ(from, pm); });
}

// What the three have in common: progress over the compressed bytes, a source that lends them, and an end of
// the run that leaves nothing in a buffer.
bool ClsTar::untarCompressed(_mvDataSource& source, ProgressEvent* progress,
                             const std::function<bool(_mvDataSource&, ProgressMonitor*)>& untar) {
  const long long start = std::max(source.ftell64(), 0LL);
  const long long total = std::max(source.sizeIfKnown() - start, 0LL);
  ProgressMonitorPtr pm(progress, m_abortCheckMs, m_percentScale, total);
  BufferedDataSource buffered(source);
  _mvDataSource& lending = source.canLend() ? source : buffered;
  m_archiveSource = dynamic_cast<const _mvFileDataSource*>(&source);
  bool flushed = true;
  bool ok = false;
  {
    // The output of a run that was not finished stays open, also after an exception.
    ScopeExit keepWhatArrived([&] {
      flushed = m_stream->flushOpenOutput(pm.getPm(), m_log);
      m_stream->releaseTarget();
      m_archiveSource = nullptr;
    });
    ok = untar(lending, pm.getPm());
  }
  ok = ok && flushed;
  if (ok) pm.consumeRemaining(m_log);
  return ok;
}

// Begins a streaming run over the archive that is being read.
void ClsTar::beginFramedRun(LogBase& log) {
  BeginStreamingUntar(log);
  protectArchive(log);
}

void ClsTar::protectArchive(LogBase& log) {
  mvFileInfo archive;
  if (m_archiveSource && m_archiveSource->getFileInfo(archive, log)) m_stream->protect(archive);
}

bool ClsTar::unTarGz(_mvDataSource& source, ProgressMonitor* pm, LogBase& log) {
  LogContextExitor context(log, "unTarGz");
  if (!readGzipHeader(source, pm, log)) return false;
  beginFramedRun(log);
  if (!inflateGzipMembers(source, *this, m_options, pm, log)) {
    log.LogError("unTarGz inflate failed (2)");
    return false;
  }
  if (!FinishStreamingUntar(pm, log)) {
    log.LogNotice("unTarGz failed.");  // the cause was said, or is a refused member
    return false;
  }
  return true;
}

bool ClsTar::unTarBz2(_mvDataSource& source, ProgressMonitor* pm) {
  MorvaneBzip2 bzip2;
  if (m_options.bz2Framed) {
    beginFramedRun(m_log);
    return bzip2.DecompressStream(source, *this, m_log, pm) && FinishStreamingUntar(pm, m_log);
  }
  m_stream->beginUnframed();
  protectArchive(m_log);
  return bzip2.DecompressStream(source, *this, m_log, pm) && !m_stream->anyRefused();
}

bool ClsTar::unTarZ(_mvDataSource& source, ProgressMonitor* pm) {
  _mvIoParams io(pm);
  beginFramedRun(m_log);
  if (!MorvaneLzw::decompressLzwSource64(source, *this, true, io, m_log)) {
    m_log.LogError("Invalid compressed data (D)");
    return false;
  }
  if (!FinishStreamingUntar(pm, m_log)) {
    m_log.LogNotice("Untar failed, possible corrupt .Z file.");
    return false;
  }
  return true;
}

}  // namespace morvane
