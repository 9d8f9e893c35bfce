// ClsTar's extraction of one member, from an archive of any compression, into an output.
#include "runtime/codec/Codec.h"
#include "runtime/io/BufferedDataSource.h"
#include "runtime/io/Io.h"
#include "runtime/io/OutputFlush.h"
#include "tar/door/ClsTarInner.h"
#include "tar/format/ArchiveContent.h"
#include "tar/stream/RatioLimit.h"
#include "tar/stream/StreamSink.h"

namespace morvane {

// Which compression it is, the content tells: one method for all of them.
bool ClsTar::UntarMemberToOutput(const XString& tarPath, _mvOutput& out, ProgressEvent* progress) {
  return m_inner->method("UntarMemberToOutput", MethodForm::Judged, false, [&](MethodFrame&) {
    m_log.LogDataX("tarPath", tarPath);
    ProgressMonitorPtr waiting(progress, m_abortCheckMs, m_percentScale, 0);
    _mvFileDataSource file;
    return file.openDataSourceFile(tarPath, m_log, waiting.getPm()) &&
           m_inner->memberToOutput(file, out, progress);
  });
}

// Telling it needs to look ahead, and gzip to give back; a source that cannot do both gets a buffer.
bool ClsTar::UntarMemberToOutput(_mvDataSource& source, _mvOutput& out, ProgressEvent* progress) {
  return m_inner->method("UntarMemberToOutput", MethodForm::Judged, false, [&](MethodFrame&) {
    BufferedDataSource buffered(source);
    return m_inner->memberToOutput(source.canLend() && source.canPeek() ? source : buffered, out, progress);
  });
}

// No total: where the member lies is not known beforehand. A plain archive goes to the pull engine, which can
// seek over what is not wanted. The output is flushed before success is claimed; that no member was wanted
// counts as left out, not as damage.
bool ClsTar::Inner::memberToOutput(_mvDataSource& source, _mvOutput& out, ProgressEvent* progress) {
  ProgressMonitorPtr monitor(progress, m_abortCheckMs, m_percentScale, 0);
  const Io io(m_log, monitor.getPm(), progress);
  // First, so that every way out from here passes it.
  OutputFlush flush(out, io.monitor);
  std::optional<Compression> compression;
  if (!detectArchive(source, compression, io.monitor, m_log)) return false;
  bool found = false;
  if (compression.value_or(Compression::None) == Compression::None) {
    const int count = untarMember(source, out, io);
    if (count < 0) return false;
    found = count > 0;
  } else {
    // An engine of its own: the object's goes on from where its last run ended.
    XString noListing;
    StreamingUntar stream(liveMemberSettings(), noListing);
    stream.BeginStreamingUntar();
    stream.extractFirstMemberInto(&out);
    // Whether the member is complete decides, not what the decompressor returns.
    StreamSink sink(stream, StreamSink::Until::Member);
    MeteredSource metered(source);
    RatioLimit limited(sink, metered, m_options.maxRatio);
    const bool ended = codecOf(*compression).decode(metered, limited, m_options.codec, io);
    found = stream.memberIsComplete();
    // A stream that ended well without the member is no damage; the run's own failure is.
    if (!found && (!ended || !stream.FinishStreamingUntar(io.monitor, m_log))) return false;
  }
  if (!found) m_log.LogError("No such member.");
  m_onlyLeftOut = !found;
  return found && flush.finish(m_log);
}

}  // namespace morvane
