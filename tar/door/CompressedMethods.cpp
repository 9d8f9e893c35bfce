// ClsTar's methods over compressed archives: decompressed straight into the object, in one pass.
#include "runtime/base/ScopeExit.h"
#include "runtime/codec/GzipFormat.h"
#include "runtime/io/BufferedDataSource.h"
#include "tar/door/ClsTarMethod.h"
#include "tar/stream/ExpandArchive.h"
#include "tar/stream/StreamSink.h"

namespace morvane {

// Each method is a name for the log and a decompressor; archive and progress are alike.
bool ClsTar::UntarGz(const XString& tarGzPath, ProgressEvent* progress) {
  return untarCompressedFile("UntarGz", tarGzPath, progress, &ClsTar::inflateTar);
}

bool ClsTar::UntarGz(_mvDataSource& source, ProgressEvent* progress) {
  return untarCompressedSource("UntarGz", source, progress, &ClsTar::inflateTar);
}

// From the state of the last run, unlike the other two.
bool ClsTar::UntarBz2(const XString& tarBz2Path, ProgressEvent* progress) {
  return untarCompressedFile("UntarBz2", tarBz2Path, progress, &ClsTar::expandTarBz2);
}

bool ClsTar::UntarBz2(_mvDataSource& source, ProgressEvent* progress) {
  return untarCompressedSource("UntarBz2", source, progress, &ClsTar::expandTarBz2);
}

bool ClsTar::UntarZ(const XString& tarZPath, ProgressEvent* progress) {
  return untarCompressedFile("UntarZ", tarZPath, progress, &ClsTar::expandTarZ);
}

bool ClsTar::UntarZ(_mvDataSource& source, ProgressEvent* progress) {
  return untarCompressedSource("UntarZ", source, progress, &ClsTar::expandTarZ);
}

// A path that cannot be opened leaves no verdict in the log.
bool ClsTar::untarCompressedFile(const char* name, const XString& path, ProgressEvent* progress,
                                 Decompress decompress) {
  return method(name, MethodForm::Judged, false, [&](MethodFrame& frame) {
    setMatchPatternExactFlags();
    ProgressMonitorPtr waiting(progress, m_abortCheckMs, m_percentScale, 0);
    _mvFileDataSource file;
    if (file.openDataSourceFile(path, m_log, waiting.getPm()))
      return untarCompressed(file, progress, decompress);
    frame.withoutVerdict();
    return false;
  });
}

// The source is the caller's and stays open.
bool ClsTar::untarCompressedSource(const char* name, _mvDataSource& source, ProgressEvent* progress,
                                   Decompress decompress) {
  return method(name, MethodForm::Judged, false, [&](MethodFrame&) {
    setMatchPatternExactFlags();
    return untarCompressed(source, progress, decompress);
  });
}

// What the three have in common: progress over the compressed bytes, and an end of the run that leaves
// nothing in a buffer. Progress counts from where the source stands, and a source that does not know its size
// has none. What is buffered is written even when the decompressor fails or throws, because what arrived
// before damage is to be kept. onlyLeftOut needs the flush too: a full disk is no member that was left out.
bool ClsTar::untarCompressed(_mvDataSource& source, ProgressEvent* progress, Decompress decompress) {
  const long long start = std::max(source.ftell64(), 0LL);
  const long long total = std::max(source.sizeIfKnown() - start, 0LL);
  ProgressMonitorPtr pm(progress, m_abortCheckMs, m_percentScale, total);
  m_archiveSource = dynamic_cast<const _mvFileDataSource*>(&source);
  // The output of a run that was not finished stays open, also after an exception.
  ScopeExit letGo([this] {
    m_stream->releaseTarget();
    m_archiveSource = nullptr;
  });
  bool read = false, flushed = false;
  {
    ScopeExit keepWhatArrived([&] { flushed = m_stream->flushOpenOutput(pm.getPm(), m_log); });
    read = (this->*decompress)(source, pm.getPm(), m_log);
  }
  const bool ok = read && flushed;
  m_onlyLeftOut = !ok && flushed && m_stream->onlyLeftOut();
  // Bytes behind the compressed data are never read, and would be missing from the whole.
  if (ok) pm.consumeRemaining(m_log);
  return ok;
}

// The codec from its table, within the limits and threads that the words ask for.
bool ClsTar::expandInto(_mvOutput& sink, _mvDataSource& source, Compression compression, ProgressMonitor* pm,
                        LogBase& log) {
  return expandArchive(codecOf(compression), source, sink, m_options->codec, m_options->maxRatio,
                       Io(log, pm));
}

// Begins a streaming run over the archive that is being read.
void ClsTar::beginFramedRun(LogBase& log) {
  m_stream->BeginStreamingUntar();
  protectArchive(log);
}

// Only a file can be met again in the target.
void ClsTar::protectArchive(LogBase& log) {
  mvFileInfo archive;
  if (m_archiveSource && m_archiveSource->getFileInfo(archive, log)) m_stream->protect(archive);
}

// The header's fields are read in small pieces, and what follows a member must be given back: the source
// lends. The run begins behind the gzip header, so that a file that is no gzip at all leaves the engine's
// state and the target untouched.
bool ClsTar::inflateTar(_mvDataSource& source, ProgressMonitor* pm, LogBase& log) {
  LogContextExitor context(log, "unTarGz");
  BufferedDataSource buffered(source);
  _mvDataSource& lending = source.canLend() ? source : buffered;
  if (!readGzipHeader(lending, pm, log)) return false;
  beginFramedRun(log);
  StreamSink sink(*m_stream);
  if (!expandInto(sink, lending, Compression::Gzip, pm, log)) {
    log.LogError("unTarGz inflate failed (2)");
    return false;
  }
  if (!m_stream->FinishStreamingUntar(pm, log)) {
    log.LogNotice("unTarGz failed.");  // the cause was said, or is a refused member
    return false;
  }
  return true;
}

// Unframed by default: the state of the last run goes on, so that an archive behind one that has ended
// extracts nothing and succeeds. Bz2Framed is the way out. What such a run made is settled all the same.
bool ClsTar::expandTarBz2(_mvDataSource& source, ProgressMonitor* pm, LogBase& log) {
  StreamSink sink(*m_stream);
  if (m_options->bz2Framed) {
    beginFramedRun(log);
    return expandInto(sink, source, Compression::Bzip2, pm, log) && m_stream->FinishStreamingUntar(pm, log);
  }
  m_stream->beginUnframed();
  protectArchive(log);
  const bool expanded = expandInto(sink, source, Compression::Bzip2, pm, log);
  m_stream->endUnframed(pm, log);
  return expanded && !m_stream->anyLeftOut();
}

// The message blames the data; a member that was left out is in the log before it.
bool ClsTar::expandTarZ(_mvDataSource& source, ProgressMonitor* pm, LogBase& log) {
  beginFramedRun(log);
  StreamSink sink(*m_stream);
  if (!expandInto(sink, source, Compression::Compress, pm, log)) {
    log.LogError("Invalid compressed data (D)");
    return false;
  }
  if (!m_stream->FinishStreamingUntar(pm, log)) {
    log.LogNotice("Untar failed, possible corrupt .Z file.");
    return false;
  }
  return true;
}

}  // namespace morvane
