// ClsTar's writing methods, and the steps they are made of.
#include <cstring>

#include "runtime/base/ScopeExit.h"
#include "runtime/codec/GzipFormat.h"
#include "runtime/io/AppendOutput.h"
#include "runtime/io/Io.h"
#include "runtime/io/OutputFile.h"
#include "runtime/io/OutputFlush.h"
#include "runtime/log/LogNull.h"
#include "runtime/parallel/WorkerPool.h"
#include "tar/door/ClsTarInner.h"
#include "tar/format/TarNumber.h"
#include "tar/format/UstarSplit.h"
#include "tar/write/ArchiveWriter.h"
#include "tar/write/MemberSource.h"
#include "tar/write/MemberWriter.h"
#include "tar/write/ProgressTotal.h"

namespace morvane {

// ---- The methods. Each names its compression and where the archive goes; what they share comes behind.

bool ClsTar::WriteTar(const XString& tarPath, ProgressEvent* progress) {
  return m_inner->writeMethod("WriteTar", Compression::None, {"outputFile", &tarPath, nullptr}, progress);
}

bool ClsTar::WriteTar(_mvOutput& out, ProgressEvent* progress) {
  return m_inner->writeMethod("WriteTar", Compression::None, {nullptr, nullptr, &out}, progress);
}

bool ClsTar::WriteTarGz(const XString& tarGzFilePath, ProgressEvent* progress) {
  return m_inner->writeMethod("WriteTarGz", Compression::Gzip, {"tarGzFilePath", &tarGzFilePath, nullptr},
                              progress);
}

bool ClsTar::WriteTarGz(_mvOutput& out, ProgressEvent* progress) {
  return m_inner->writeMethod("WriteTarGz", Compression::Gzip, {nullptr, nullptr, &out}, progress);
}

bool ClsTar::WriteTarBz2(const XString& tarBz2FilePath, ProgressEvent* progress) {
  return m_inner->writeMethod("WriteTarBz2", Compression::Bzip2, {"tarBz2FilePath", &tarBz2FilePath, nullptr},
                              progress);
}

bool ClsTar::WriteTarBz2(_mvOutput& out, ProgressEvent* progress) {
  return m_inner->writeMethod("WriteTarBz2", Compression::Bzip2, {nullptr, nullptr, &out}, progress);
}

bool ClsTar::WriteTarZst(const XString& tarZstPath, ProgressEvent* progress) {
  return m_inner->writeMethod("WriteTarZst", Compression::Zstd, {"tarZstPath", &tarZstPath, nullptr},
                              progress);
}

bool ClsTar::WriteTarZst(_mvOutput& out, ProgressEvent* progress) {
  return m_inner->writeMethod("WriteTarZst", Compression::Zstd, {nullptr, nullptr, &out}, progress);
}

bool ClsTar::WriteTarXz(const XString& tarXzPath, ProgressEvent* progress) {
  return m_inner->writeMethod("WriteTarXz", Compression::Xz, {"tarXzPath", &tarXzPath, nullptr}, progress);
}

bool ClsTar::WriteTarXz(_mvOutput& out, ProgressEvent* progress) {
  return m_inner->writeMethod("WriteTarXz", Compression::Xz, {nullptr, nullptr, &out}, progress);
}

// What comes before the first byte, the output opened and closed. The result is decided after the last byte
// was flushed and the file closed: a full disk may show as late as that.
bool ClsTar::Inner::writeMethod(const char* name, Compression compression, const ArchivePlace& place,
                                ProgressEvent* progress) {
  return method(name, MethodForm::Judged, false, [&](MethodFrame&) {
    long long total = 0;
    if (!prepareWrite(place, kCannotCreate, progress, total)) return false;
    ProgressMonitorPtr monitor(progress, m_abortCheckMs, m_percentScale, total);
    const Io io(m_log, monitor.getPm(), progress);
    // An encoder has threads and megabytes, which must not stay until the next write.
    const ScopeExit letGo([this] { m_archive.end(); });
    if (!m_archive.begin(compression, m_options.encoderOptions(), io)) return false;
    if (place.out) return writeFramed(*place.out, compression, io);
    // Only now: an archive that is there is not emptied for a write that does not begin.
    const std::unique_ptr<OutputFile> file(OutputFile::createFileUtf8(place.path->getUtf8(), m_log));
    if (!file) return false;
    const bool written = writeFramed(*file, compression, io);
    // Here, because the destructor could not tell that the last bytes were refused. It is done behind a
    // failure, too, so that what was written is on the disk.
    const bool closed = file->closeHandle(&m_log, io.monitor);
    // What was left out is no longer the only thing that is missing.
    if (!closed) m_onlyLeftOut = false;
    return closed && written;
  });
}

// The path is looked at before the sources are counted, which may take long. The user is looked up here
// already, so that a database which cannot be read is told of before anything was created. Without an event
// nobody sees a total, and none is counted.
bool ClsTar::Inner::prepareWrite(const ArchivePlace& place, const char* unusable, ProgressEvent* progress,
                                 long long& total) {
  setMatchPatternExactFlags();
  m_log.LogDataX("tarFormat", m_writeFormat);
  if (place.path) m_log.LogDataX(place.pathTag, *place.path);
  if (place.path && !isSystemPath(*place.path, unusable, m_log)) return false;
  sayWhenUserIsUnknown(progress);
  return !progress || countSources(progress, total);
}

// Headers then hold the numbers alone, which is right; but it must not pass without a word.
void ClsTar::Inner::sayWhenUserIsUnknown(ProgressEvent* progress) {
  lookUpUser();
  if (m_userLookupError == 0) return;
  const char* const reason = std::strerror(m_userLookupError);
  m_log.LogNotice("The user database could not be read; owners are written by number alone.");
  m_log.LogData("reason", reason);
  if (progress) progress->onInfo("userUnknown", reason);
}

// Only for those who watch: the sources are walked twice for it. An abort while counting ends the write
// before anything was created.
bool ClsTar::Inner::countSources(ProgressEvent* progress, long long& total) {
  ProgressMonitorPtr pm(progress, m_abortCheckMs, m_percentScale, 0);
  if (!m_options.noTotal) {
    total =
        morvane::calcTotalProgressForWrite(m_files, m_dirRoots, liveWriteSettings(), Io(m_log, pm.getPm()));
  }
  // Asked also where nothing was counted, so that NoTotal takes no chance to abort away.
  return !pm.get_Aborted(m_log) && total >= 0;
}

// The compression's frame around the archive, and the flush. An archive that is complete is finished as such
// also when something was left out of it, which makes the result false. On failure the frame is not closed: a
// reader then finds the archive cut instead of complete.
bool ClsTar::Inner::writeFramed(_mvOutput& out, Compression compression, const Io& io) {
  OutputFlush flush(out, io.monitor);
  bool anythingLost = false;
  // What stands around the compressed data goes to `out` itself; the archive's own output is set for the
  // members alone.
  if (!m_archive.open(out, io)) return false;
  if (!writeAllMembers(out, io, anythingLost)) return false;
  // The trailer has the size modulo 2^32 (RFC 1952, section 2.3.1); the log has the whole of it.
  if (compression == Compression::Gzip) m_log.LogDataInt64("originalDataSize", m_archive.m_uncompressedSize);
  if (!m_archive.close(out, io)) return false;
  const bool complete = flush.finish(m_log);
  m_onlyLeftOut = complete && anythingLost;
  return complete && !anythingLost;
}

// No file name is recorded, so the path is of no use.
bool ClsTar::beginGzip(const XString&, _mvOutput& out, ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  return step && writeGzipHeader(out, Io(log, pm));
}

// The size is modulo 2^32, as the trailer has it.
bool ClsTar::endGzip(_mvOutput& out, unsigned int crc32, unsigned int size) {
  const StepGuard step(*this);
  return step && writeGzipTrailer(out, crc32, size, Io(m_log));
}

// The step; -1 also where it is refused.
long long ClsTar::calcTotalProgressForWrite(LogBase& log, ProgressMonitor* pm) {
  const StepGuard step(*this);
  if (!step || !m_inner->takeOptions(log)) return -1;
  return morvane::calcTotalProgressForWrite(m_inner->m_files, m_inner->m_dirRoots,
                                            m_inner->liveWriteSettings(), Io(log, pm));
}

// Here a member that was left out makes the step false by itself: its caller has no onlyLeftOut to ask.
bool ClsTar::writeTarToOutput(_mvOutput& out, ProgressMonitor* pm, LogBase& log, ProgressEvent* progress) {
  const StepGuard step(*this);
  bool anythingLost = false;
  return step && m_inner->takeOptions(log) &&
         m_inner->writeAllMembers(out, Io(log, pm, progress), anythingLost) && !anythingLost;
}

// The tar stream itself, through the output that is set for the length of it.
bool ClsTar::Inner::writeAllMembers(_mvOutput& out, const Io& io, bool& anythingLost) {
  m_archive.m_output = &out;
  // Steps of later callers must not write into an output that is gone.
  ScopeExit forget([this] { m_archive.m_output = nullptr; });
  ArchiveWriter writer(liveWriteSettings(), m_archive, io);
  // The archive is known by the open file, because the walk may meet it under any name. The one that is
  // appended to lies behind an output of its own kind.
  mvFileInfo archive;
  const auto* file = dynamic_cast<const OutputFile*>(&out);
  if (const auto* const append = dynamic_cast<const AppendOutput*>(&out)) file = &append->file();
  if (file && file->getFileInfo(archive)) writer.leaveOut(archive);
  // The worker takes the copy into the archive off this thread, which may be half of all it does.
  OutputFile* const plain = workerCount(m_options.codec.threads) > 0 ? m_archive.plainFile() : nullptr;
  LogNull unwanted;
  const ScopeExit joinQuietly([&] {
    if (plain) plain->endBehind(unwanted);
  });
  if (plain) plain->beginBehind();
  const bool complete = writer.writeTarToOutput(m_files, m_dirRoots, m_curDirRootPath);
  anythingLost = writer.anythingLost();
  // A run that has failed has its reason.
  return complete && (!plain || plain->endBehind(io.log));
}

// Each step has a writer of its own, and so knows nothing of members that others wrote: links to earlier
// names are made within a write only.
bool ClsTar::writeFileToOutput(XString& fullPath, XString& pathInTar, ProgressMonitor* pm, LogBase& log,
                               ProgressEvent* progress) {
  const StepGuard step(*this);
  return step && m_inner->takeOptions(log) &&
         ArchiveWriter(m_inner->liveWriteSettings(), m_inner->m_archive, Io(log, pm, progress))
             .writeFileToOutput(fullPath, pathInTar);
}

// It needs the output of a write that is going on, and fails outside of one.
bool ClsTar::copySourceToOutput(_mvDataSource& source, ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  return step && m_inner->takeOptions(log) &&
         ArchiveWriter(m_inner->liveWriteSettings(), m_inner->m_archive, Io(log, pm, nullptr))
             .copySourceToOutput(source);
}

// The three that write headers by themselves: the member as its path and file information describe it. The
// settings are copied here, because the run refers to them until the header is out.
template <class Write>
bool ClsTar::Inner::writeDescribed(XString& path, const mvFileInfo& info, const Io& io, Write write) {
  const StepGuard step(m_tar);
  if (!step || !takeOptions(io.log)) return false;
  const WriteSettings settings = writeSettings();
  WriteRun run{settings, m_archive, io};
  Member member;
  describeMember(info, settings, path, member);
  MemberWriter writer(run);
  return write(writer, member);
}

// The path comes back in the form that it has in the archive.
bool ClsTar::writeTarHeaderToOutput(XString& pathInTar, mvFileInfo& info, ProgressMonitor* pm, LogBase& log) {
  return m_inner->writeDescribed(pathInTar, info, Io(log, pm),
                                 [](MemberWriter& writer, const Member& member) {
                                   return writer.writeHeader(member, writer.encode(member));
                                 });
}

// Whatever WriteFormat says: the step is GNU's record.
bool ClsTar::writeLongFilenameToOutput(XString& path, mvFileInfo& info, ProgressMonitor* pm, LogBase& log) {
  return m_inner->writeDescribed(path, info, Io(log, pm), [](MemberWriter& writer, const Member& member) {
    return writer.writeLongName(member);
  });
}

// And this one is pax's, with the path alone.
bool ClsTar::writePaxHeaderToOutput(XString& path, mvFileInfo& info, ProgressMonitor* pm, LogBase& log) {
  return m_inner->writeDescribed(path, info, Io(log, pm), [](MemberWriter& writer, const Member& member) {
    return writer.writePaxPath(member);
  });
}

// Outside of a write there is no output, and the step fails without a line (ArchiveOutput).
bool ClsTar::writeOut_pm(const unsigned char* data, unsigned int len, ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  return step && m_inner->m_archive.writeOut_pm(data, len, m_abortCheckMs != 0, Io(log, pm));
}

// On failure both are empty.
bool ClsTar::splitPathForTar(const XString& path, XString& name, XString& prefix, LogBase& log) {
  // The parts are views into the path, and `name` or `prefix` may be the same object as `path`: so they are
  // copied before either is set.
  const UstarSplit split = splitUstarPath(path.str());
  std::string splitName(split.error ? "" : split.name), splitPrefix(split.error ? "" : split.prefix);
  if (split.error) log.LogError(split.error);
  name.buffer() = std::move(splitName);
  prefix.buffer() = std::move(splitPrefix);
  return !split.error;
}

// Rules of tar/format under their public names. They look at nothing of the object and so need neither lock
// nor guard.
unsigned int ClsTar::computeHeaderChecksum(const unsigned char* block) { return headerChecksum(block); }

bool ClsTar::numToBase256(long long value, char* out, int len) {
  return morvane::numToBase256(value, out, len);
}

bool ClsTar::base256ToNum(long long& out, const char* in, int len) {
  return morvane::base256ToNum(out, in, len);
}

}  // namespace morvane
