// ClsTar's extraction of one member, or of the data of several, from an archive of any compression, into an
// output.
#include <algorithm>
#include <optional>

#include "runtime/codec/Codec.h"
#include "runtime/io/BufferedDataSource.h"
#include "runtime/io/Io.h"
#include "runtime/io/OutputFlush.h"
#include "tar/door/ClsTarInner.h"
#include "tar/format/ArchiveContent.h"
#include "tar/read/UntarRun.h"
#include "tar/stream/ExpandArchive.h"
#include "tar/stream/StreamSink.h"

namespace morvane {

bool ClsTar::UntarMemberToOutput(const XString& tarPath, _mvOutput& out, ProgressEvent* progress) {
  return m_inner->membersFromPath("UntarMemberToOutput", tarPath, out, true, progress);
}

bool ClsTar::UntarMemberToOutput(_mvDataSource& source, _mvOutput& out, ProgressEvent* progress) {
  return m_inner->membersFromSource("UntarMemberToOutput", source, out, true, progress);
}

bool ClsTar::UntarMembersToOutput(const XString& tarPath, _mvOutput& out, ProgressEvent* progress) {
  return m_inner->membersFromPath("UntarMembersToOutput", tarPath, out, false, progress);
}

bool ClsTar::UntarMembersToOutput(_mvDataSource& source, _mvOutput& out, ProgressEvent* progress) {
  return m_inner->membersFromSource("UntarMembersToOutput", source, out, false, progress);
}

// Which compression it is, the content tells: one method for all of them.
bool ClsTar::Inner::membersFromPath(const char* name, const XString& tarPath, _mvOutput& out, bool firstAlone,
                                    ProgressEvent* progress) {
  return method(name, MethodForm::Judged, false, [&](MethodFrame&) {
    m_log.LogDataX("tarPath", tarPath);
    ProgressMonitorPtr waiting(progress, m_abortCheckMs, m_percentScale, 0);
    _mvFileDataSource file;
    return file.openDataSourceFile(tarPath, m_log, waiting.getPm()) &&
           membersToOutput(file, out, firstAlone, progress);
  });
}

// Telling it needs to look ahead, and gzip to give back; a source that cannot do both gets a buffer.
bool ClsTar::Inner::membersFromSource(const char* name, _mvDataSource& source, _mvOutput& out,
                                      bool firstAlone, ProgressEvent* progress) {
  return method(name, MethodForm::Judged, false, [&](MethodFrame&) {
    BufferedDataSource buffered(source);
    return membersToOutput(source.canLend() && source.canPeek() ? source : buffered, out, firstAlone,
                           progress);
  });
}

// No total where one member is wanted: where it lies is not known beforehand. A plain archive goes to the
// pull engine, which can seek over what is not wanted. The output is flushed before success is claimed; that
// no member was wanted counts as left out, not as damage.
bool ClsTar::Inner::membersToOutput(_mvDataSource& source, _mvOutput& out, bool firstAlone,
                                    ProgressEvent* progress) {
  const long long start = std::max(source.ftell64(), 0LL);
  const long long total = firstAlone ? 0 : std::max(source.sizeIfKnown() - start, 0LL);
  ProgressMonitorPtr monitor(progress, m_abortCheckMs, m_percentScale, total);
  const Io io(m_log, monitor.getPm(), progress);
  // First, so that every way out from here passes it.
  OutputFlush flush(out, io.monitor);
  std::optional<Compression> compression;
  if (!detectArchive(source, compression, io.monitor, m_log)) return false;
  bool found = false;
  if (!compression) {
    // What is nothing known goes to the pull engine, too, which says what is wrong with its first header.
    if (const char* const what = foreignContent(source, io.monitor, m_log)) return io.fail(what);
    compression = Compression::None;
  }
  if (*compression == Compression::None) {
    UntarRun run({source, io, m_log, m_xmlListing}, liveMemberSettings(), true);
    run.extractMembersInto(out, firstAlone);
    const int count = run.run();
    if (count < 0) return false;
    // Members that were copied are what this run counts.
    found = count > 0;
  } else {
    // An engine of its own: the object's goes on from where its last run ended. Its settings capture no
    // listing, but the engine wants a place for one.
    XString noListing;
    StreamingUntar stream(liveMemberSettings(), noListing);
    stream.BeginStreamingUntar();
    stream.extractMembersInto(out, firstAlone);
    // Where one is wanted, whether it is complete decides, not what the decompressor returns.
    StreamSink sink(stream, firstAlone ? StreamSink::Until::Member : StreamSink::Until::End);
    const Codec& codec = codecOf(*compression);
    // Small files are not written behind here: nothing is made on the disk.
    const bool ended = (!codec.readHeader || codec.readHeader(source, io)) &&
                       expandArchive(codec, source, sink, m_options.codec, m_options.maxRatio, io);
    found = stream.completeMembers() > 0;
    // A stream that ended well without a member is no damage; the run's own failure is, but behind the one
    // member that was wanted.
    const bool needsEnd = !found || !firstAlone;
    if (needsEnd && !ended) return false;
    const bool finished = !needsEnd || stream.FinishStreamingUntar(io.monitor, m_log);
    if (!finished || stream.anyLeftOut()) return false;
  }
  if (!found) m_log.LogError("No such member.");
  m_onlyLeftOut = !found;
  const bool ok = found && flush.finish(m_log);
  if (ok) monitor.consumeRemaining(m_log);
  return ok;
}

}  // namespace morvane
