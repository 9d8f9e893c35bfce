// ClsTar's methods that read with every check there is: zstd, xz, and any compression told by the content.
#include <algorithm>
#include <optional>

#include "runtime/codec/Codec.h"
#include "runtime/io/BufferedDataSource.h"
#include "tar/door/ClsTarInner.h"
#include "tar/format/ArchiveContent.h"
#include "tar/read/UntarRun.h"
#include "tar/stream/ExpandArchive.h"

namespace morvane {

namespace {

// Stands for "whichever it is": no archive is expected to be plain by name.
constexpr Compression kAny = Compression::None;

}  // namespace

// The compression is the one that the method is named after, whatever the content looks like: the decoder
// then says what is wrong with other data.
bool ClsTar::UntarZst(const XString& tarZstPath, ProgressEvent* progress) {
  return m_inner->untarCheckedPath("UntarZst", tarZstPath, Compression::Zstd, true, progress);
}

bool ClsTar::UntarZst(_mvDataSource& source, ProgressEvent* progress) {
  return m_inner->untarCheckedSource("UntarZst", source, Compression::Zstd, true, progress);
}

bool ClsTar::UntarXz(const XString& tarXzPath, ProgressEvent* progress) {
  return m_inner->untarCheckedPath("UntarXz", tarXzPath, Compression::Xz, true, progress);
}

bool ClsTar::UntarXz(_mvDataSource& source, ProgressEvent* progress) {
  return m_inner->untarCheckedSource("UntarXz", source, Compression::Xz, true, progress);
}

// Here the content tells, so that neither a suffix nor a name has to be right.
bool ClsTar::UntarAny(const XString& tarPath, ProgressEvent* progress) {
  return m_inner->untarCheckedPath("UntarAny", tarPath, kAny, true, progress);
}

bool ClsTar::UntarAny(_mvDataSource& source, ProgressEvent* progress) {
  return m_inner->untarCheckedSource("UntarAny", source, kAny, true, progress);
}

// Verifying is the same run with its output suppressed (liveCheckedSettings).
bool ClsTar::VerifyAny(const XString& tarPath, ProgressEvent* progress) {
  return m_inner->untarCheckedPath("VerifyAny", tarPath, kAny, false, progress);
}

bool ClsTar::VerifyAny(_mvDataSource& source, ProgressEvent* progress) {
  return m_inner->untarCheckedSource("VerifyAny", source, kAny, false, progress);
}

// Opening may wait, for a FIFO or a network, and has a monitor of its own, so that an application can abort
// it: the one with a total needs the size first. A path that cannot be opened leaves no verdict in the log,
// as in the other methods for compressed archives.
bool ClsTar::Inner::untarCheckedPath(const char* name, const XString& path, Compression expected,
                                     bool extract, ProgressEvent* progress) {
  return method(name, MethodForm::Judged, false, [&](MethodFrame& frame) {
    setMatchPatternExactFlags();
    ProgressMonitorPtr waiting(progress, m_abortCheckMs, m_percentScale, 0);
    _mvFileDataSource file;
    if (file.openDataSourceFile(path, m_log, waiting.getPm()))
      return untarChecked(file, expected, extract, progress);
    frame.withoutVerdict();
    return false;
  });
}

// Telling the content needs to look ahead, and a gzip header gives bytes back. A source that can do both is
// read as it is, because a buffer in front of it would copy everything once more.
bool ClsTar::Inner::untarCheckedSource(const char* name, _mvDataSource& source, Compression expected,
                                       bool extract, ProgressEvent* progress) {
  return method(name, MethodForm::Judged, false, [&](MethodFrame&) {
    setMatchPatternExactFlags();
    BufferedDataSource buffered(source);
    return untarChecked(source.canLend() && source.canPeek() ? source : buffered, expected, extract,
                        progress);
  });
}

// A plain archive goes to the pull engine, which seeks over data that it does not want; what comes out of a
// decompressor goes to the push engine. Only an archive that is a file can be met again in the target and has
// to be protected there. A source that does not know where it stands, or how long it is, has no total.
bool ClsTar::Inner::untarChecked(_mvDataSource& source, Compression expected, bool extract,
                                 ProgressEvent* progress) {
  const long long start = std::max(source.ftell64(), 0LL);
  ProgressMonitorPtr monitor(progress, m_abortCheckMs, m_percentScale,
                             std::max(source.sizeIfKnown() - start, 0LL));
  const Io io(m_log, monitor.getPm(), progress);
  std::optional<Compression> found = expected;
  if (expected == kAny && !detectArchive(source, found, io.monitor, m_log)) return false;
  if (!found) {
    // A damaged header is read as one, and says what is wrong with it.
    if (const char* const what = foreignContent(source, io.monitor, m_log)) return io.fail(what);
    found = Compression::None;
  }
  mvFileInfo archive;
  const auto* const file = dynamic_cast<const _mvFileDataSource*>(&source);
  const bool isProtected = file && file->getFileInfo(archive, m_log);
  bool ok = false;
  if (*found == Compression::None) {
    UntarRun run({source, io, m_log, m_xmlListing}, liveCheckedSettings(extract), extract);
    if (isProtected) run.protect(archive);
    ok = run.run() >= 0;
    m_onlyLeftOut = run.onlyLeftOut();
  } else {
    // An engine of its own: the object's goes on from where its last run ended.
    StreamingUntar stream(liveCheckedSettings(extract), m_xmlListing);
    stream.BeginStreamingUntar();
    if (isProtected) stream.protect(archive);
    // The words that switch these checks on have no say in a method that promises all of them.
    CodecOptions options = m_options.codec;
    options.verifyGzip = options.gzipAllMembers = true;
    // The run is finished behind damage, too, because what it made has to be settled. Damage is never called
    // a member that was left out: `expanded` is asked for that.
    const Codec& codec = codecOf(*found);
    const bool expanded = (!codec.readHeader || codec.readHeader(source, io)) &&
                          extractArchive(codec, source, stream, options, m_options.maxRatio, io);
    if (!expanded) stream.endEarly();
    ok = stream.FinishStreamingUntar(io.monitor, m_log) && expanded;
    m_onlyLeftOut = expanded && stream.onlyLeftOut();
  }
  // What follows the archive is not read, and progress would end below the whole.
  if (ok) monitor.consumeRemaining(m_log);
  return ok;
}

}  // namespace morvane
