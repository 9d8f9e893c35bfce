// ClsTar's extraction of one member, from an archive of any compression, into an output.
#include "runtime/codec/Codec.h"
#include "runtime/io/BufferedDataSource.h"
#include "runtime/io/OutputFlush.h"
#include "tar/door/ClsTarMethod.h"
#include "tar/format/ArchiveContent.h"
#include "tar/stream/ExpandArchive.h"
#include "tar/stream/StreamingUntar.h"

namespace morvane {

namespace {

// Feeds the streaming engine, and stops the decompressor once the member is complete. The decompressor takes
// the refusal for a failed write, and what it returns then is not asked: whether the member is complete
// decides.
class UntilMember : public _mvOutput {
 public:
  explicit UntilMember(StreamingUntar& stream) : m_stream(stream) {}
  bool _writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) override {
    bool finished = false;
    const auto* const data = reinterpret_cast<const unsigned char*>(bytes);
    return m_stream.StreamingUntarNext(data, n, finished, io.monitor(), log) && !m_stream.memberIsComplete();
  }

 private:
  StreamingUntar& m_stream;
};

}  // namespace

// Which compression it is, the content tells: one method for all of them.
bool ClsTar::UntarMemberToOutput(const XString& tarPath, _mvOutput& out, ProgressEvent* progress) {
  return method("UntarMemberToOutput", MethodForm::Judged, false, [&](MethodFrame&) {
    m_log.LogDataX("tarPath", tarPath);
    ProgressMonitorPtr waiting(progress, m_abortCheckMs, m_percentScale, 0);
    _mvFileDataSource file;
    return file.openDataSourceFile(tarPath, m_log, waiting.getPm()) && memberToOutput(file, out, progress);
  });
}

// Telling it needs to look ahead, and gzip to give back; a source that cannot do both gets a buffer.
bool ClsTar::UntarMemberToOutput(_mvDataSource& source, _mvOutput& out, ProgressEvent* progress) {
  return method("UntarMemberToOutput", MethodForm::Judged, false, [&](MethodFrame&) {
    BufferedDataSource buffered(source);
    return memberToOutput(source.canLend() && source.canPeek() ? source : buffered, out, progress);
  });
}

// No total: where the member lies is not known beforehand. A plain archive goes to the pull engine, which can
// seek over what is not wanted. The output is flushed before success is claimed; that no member was wanted
// counts as left out, not as damage.
bool ClsTar::memberToOutput(_mvDataSource& source, _mvOutput& out, ProgressEvent* progress) {
  ProgressMonitorPtr monitor(progress, m_abortCheckMs, m_percentScale, 0);
  ProgressMonitor* const pm = monitor.getPm();
  // First, so that every way out from here passes it.
  OutputFlush flush(out, pm);
  std::optional<Compression> compression;
  if (!detectArchive(source, compression, pm, m_log)) return false;
  bool found = false;
  if (compression.value_or(Compression::None) == Compression::None) {
    const int count = untarMember(source, out, pm, progress);
    if (count < 0) return false;
    found = count > 0;
  } else {
    // An engine of its own: the object's goes on from where its last run ended.
    XString noListing;
    StreamingUntar stream(liveMemberSettings(), noListing);
    stream.BeginStreamingUntar();
    stream.extractFirstMemberInto(&out);
    UntilMember sink(stream);
    const Codec& codec = codecOf(*compression);
    const bool ended =
        (!codec.readHeader || codec.readHeader(source, pm, m_log)) &&
        expandArchive(codec, source, sink, m_options->codec, m_options->maxRatio, Io(m_log, pm));
    found = stream.memberIsComplete();
    // A stream that ended well without the member is no damage; the run's own failure is.
    if (!found && (!ended || !stream.FinishStreamingUntar(pm, m_log))) return false;
  }
  if (!found) m_log.LogError("No such member.");
  m_onlyLeftOut = !found;
  return found && flush.finish(m_log);
}

}  // namespace morvane
