// ClsTar's methods over compressed archives: decompressed straight into the object, in one pass.
#include <algorithm>

#include "runtime/base/ScopeExit.h"
#include "runtime/codec/GzipFormat.h"
#include "runtime/io/BufferedDataSource.h"
#include "runtime/io/Io.h"
#include "tar/door/ClsTarInner.h"
#include "tar/stream/ExpandArchive.h"

namespace morvane {

// Each method is a name for the log and a decompressor; archive and progress are alike.
bool ClsTar::UntarGz(const XString& tarGzPath, ProgressEvent* progress) {
  return m_inner->untarCompressedFile("UntarGz", tarGzPath, progress, &Inner::inflateTar);
}

bool ClsTar::UntarGz(_mvDataSource& source, ProgressEvent* progress) {
  return m_inner->untarCompressedSource("UntarGz", source, progress, &Inner::inflateTar);
}

// From the state of the last run, unlike the other two.
bool ClsTar::UntarBz2(const XString& tarBz2Path, ProgressEvent* progress) {
  return m_inner->untarCompressedFile("UntarBz2", tarBz2Path, progress, &Inner::expandTarBz2);
}

bool ClsTar::UntarBz2(_mvDataSource& source, ProgressEvent* progress) {
  return m_inner->untarCompressedSource("UntarBz2", source, progress, &Inner::expandTarBz2);
}

bool ClsTar::UntarZ(const XString& tarZPath, ProgressEvent* progress) {
  return m_inner->untarCompressedFile("UntarZ", tarZPath, progress, &Inner::expandTarZ);
}

bool ClsTar::UntarZ(_mvDataSource& source, ProgressEvent* progress) {
  return m_inner->untarCompressedSource("UntarZ", source, progress, &Inner::expandTarZ);
}

// A path that cannot be opened leaves no verdict in the log.
bool ClsTar::Inner::untarCompressedFile(const char* name, const XString& path, ProgressEvent* progress,
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
bool ClsTar::Inner::untarCompressedSource(const char* name, _mvDataSource& source, ProgressEvent* progress,
                                          Decompress decompress) {
  return method(name, MethodForm::Judged, false, [&](MethodFrame&) {
    setMatchPatternExactFlags();
    return untarCompressed(source, progress, decompress);
  });
}

// What the three have in common: progress over the compressed bytes, and an end of the run that leaves
// nothing in a buffer. Progress counts from where the source stands, and a source that does not know its size
// has none. What is buffered is written even when the decompressor fails or throws, because what arrived
// before damage is to be kept. A full disk is no member that was left out, whatever the run itself has found.
bool ClsTar::Inner::untarCompressed(_mvDataSource& source, ProgressEvent* progress, Decompress decompress) {
  const long long start = std::max(source.ftell64(), 0LL);
  const long long total = std::max(source.sizeIfKnown() - start, 0LL);
  ProgressMonitorPtr pm(progress, m_abortCheckMs, m_percentScale, total);
  // Null for a source that is no file: nothing of it can be met in the target.
  m_archiveSource = dynamic_cast<const _mvFileDataSource*>(&source);
  // The output of a run that was not finished stays open, also after an exception.
  ScopeExit letGo([this] {
    m_stream.releaseTarget();
    m_archiveSource = nullptr;
  });
  // The inner scope ends before the results are looked at: by then the flush has told how it went.
  bool read = false, flushed = false;
  {
    ScopeExit keepWhatArrived([&] { flushed = m_stream.flushOpenOutput(pm.getPm(), m_log); });
    read = (this->*decompress)(source, Io(m_log, pm.getPm()));
  }
  // Of a run that was not finished, what waits is made or named all the same.
  if (!read) m_stream.endUnframed(pm.getPm(), m_log);
  const bool ok = read && flushed;
  if (!flushed) m_onlyLeftOut = false;
  // Bytes behind the compressed data are never read, and would be missing from the whole.
  if (ok) pm.consumeRemaining(m_log);
  return ok;
}

// The codec from its table, within the limits and threads that the words ask for. The engine is the object's
// own, whose run the caller has begun.
bool ClsTar::Inner::extractFrom(_mvDataSource& source, Compression compression, const Io& io) {
  return extractArchive(codecOf(compression), source, m_stream, m_options.codec, m_options.maxRatio, io);
}

// Begins a streaming run over the archive that is being read.
void ClsTar::Inner::beginFramedRun(LogBase& log) {
  m_stream.BeginStreamingUntar();
  protectArchive(log);
}

// Behind data that ended well, so that nothing but the run itself can have failed.
bool ClsTar::Inner::finishFramedRun(const Io& io) {
  const bool ok = m_stream.FinishStreamingUntar(io.monitor, io.log);
  m_onlyLeftOut = m_stream.onlyLeftOut();
  return ok;
}

// Only a file can be met again in the target.
void ClsTar::Inner::protectArchive(LogBase& log) {
  mvFileInfo archive;
  if (m_archiveSource && m_archiveSource->getFileInfo(archive, log)) m_stream.protect(archive);
}

// The header's fields are read in small pieces, and what follows a member must be given back: the source
// lends. The run begins behind the gzip header, so that a file that is no gzip at all leaves the engine's
// state and the target untouched.
bool ClsTar::Inner::inflateTar(_mvDataSource& source, const Io& io) {
  LogContextExitor context(io.log, "unTarGz");
  BufferedDataSource buffered(source);
  _mvDataSource& lending = source.canLend() ? source : buffered;
  if (!readGzipHeader(lending, io)) return false;
  beginFramedRun(io.log);
  if (!extractFrom(lending, Compression::Gzip, io)) {
    return io.fail("unTarGz inflate failed (2)");
  }
  if (!finishFramedRun(io)) {
    io.log.LogNotice("unTarGz failed.");  // the cause was said, or is a refused member
    return false;
  }
  return true;
}

// Unframed by default: the state of the last run goes on, so that an archive behind one that has ended
// extracts nothing and succeeds. Bz2Framed is the way out. What such a run made is settled all the same.
bool ClsTar::Inner::expandTarBz2(_mvDataSource& source, const Io& io) {
  if (m_options.bz2Framed) {
    beginFramedRun(io.log);
    return extractFrom(source, Compression::Bzip2, io) && finishFramedRun(io);
  }
  m_stream.beginUnframed();
  protectArchive(io.log);
  const bool expanded = extractFrom(source, Compression::Bzip2, io);
  m_stream.endUnframed(io.monitor, io.log);
  // Such a run is never finished: what is left of it to go wrong is known when the data have ended well.
  m_onlyLeftOut = expanded && m_stream.anyLeftOut();
  return expanded && !m_stream.anyLeftOut();
}

// The message blames the data; a member that was left out is in the log before it.
bool ClsTar::Inner::expandTarZ(_mvDataSource& source, const Io& io) {
  beginFramedRun(io.log);
  if (!extractFrom(source, Compression::Compress, io)) {
    return io.fail("Invalid compressed data (D)");
  }
  if (!finishFramedRun(io)) {
    io.log.LogNotice("Untar failed, possible corrupt .Z file.");
    return false;
  }
  return true;
}

}  // namespace morvane
