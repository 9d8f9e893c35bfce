// ClsTar's writing methods, and the steps they are made of.
#include <cstring>

#include "runtime/base/ScopeExit.h"
#include "runtime/codec/GzipFormat.h"
#include "runtime/io/OutputFlush.h"
#include "tar/door/ClsTarMethod.h"
#include "tar/format/TarNumber.h"
#include "tar/format/UstarSplit.h"
#include "tar/write/ArchiveWriter.h"
#include "tar/write/MemberHeader.h"
#include "tar/write/ProgressTotal.h"

namespace morvane {

bool ClsTar::WriteTar(const XString& tarPath, ProgressEvent* progress) {
  return method("WriteTar", MethodForm::Judged, false, [&](MethodFrame&) {
    return writeArchive("outputFile", &tarPath, nullptr, Compression::None, progress);
  });
}

bool ClsTar::WriteTar(_mvOutput& out, ProgressEvent* progress) {
  return method("WriteTar", MethodForm::Judged, false, [&](MethodFrame&) {
    return writeArchive(nullptr, nullptr, &out, Compression::None, progress);
  });
}

bool ClsTar::WriteTarGz(const XString& tarGzFilePath, ProgressEvent* progress) {
  return method("WriteTarGz", MethodForm::Judged, false, [&](MethodFrame&) {
    return writeArchive("tarGzFilePath", &tarGzFilePath, nullptr, Compression::Gzip, progress);
  });
}

bool ClsTar::WriteTarGz(_mvOutput& out, ProgressEvent* progress) {
  return method("WriteTarGz", MethodForm::Judged, false, [&](MethodFrame&) {
    return writeArchive(nullptr, nullptr, &out, Compression::Gzip, progress);
  });
}

bool ClsTar::WriteTarBz2(const XString& tarBz2FilePath, ProgressEvent* progress) {
  return method("WriteTarBz2", MethodForm::Judged, false, [&](MethodFrame&) {
    return writeArchive("tarBz2FilePath", &tarBz2FilePath, nullptr, Compression::Bzip2, progress);
  });
}

bool ClsTar::WriteTarBz2(_mvOutput& out, ProgressEvent* progress) {
  return method("WriteTarBz2", MethodForm::Judged, false, [&](MethodFrame&) {
    return writeArchive(nullptr, nullptr, &out, Compression::Bzip2, progress);
  });
}

// Writes to the file at `path`, or to `out` when there is no path. The result is decided after the last byte
// was flushed and the file closed: a full disk may show as late as that.
bool ClsTar::writeArchive(const char* pathTag, const XString* path, _mvOutput* out, Compression compression,
                          ProgressEvent* progress) {
  setMatchPatternExactFlags();
  m_log.LogDataX("tarFormat", m_writeFormat);
  if (path) m_log.LogDataX(pathTag, *path);
  if (path && !isSystemPath(*path, kCannotCreate, m_log)) return false;
  sayWhenUserIsUnknown(progress);
  long long total = 0;
  if (progress && !countTotal(progress, total)) return false;
  ProgressMonitorPtr monitor(progress, m_abortCheckMs, m_percentScale, total);
  ProgressMonitor* const pm = monitor.getPm();
  m_archive->begin(compression, m_options->codec);
  if (!path) return writeTo(*out, compression, pm, progress);
  const std::unique_ptr<OutputFile> file(OutputFile::createFileUtf8(path->getUtf8(), m_log));
  if (!file) return false;
  const bool written = writeTo(*file, compression, pm, progress);
  const bool closed = file->closeHandle(&m_log, pm);
  if (!closed) m_onlyLeftOut = false;
  return closed && written;
}

// Headers then hold the numbers alone, which is right; but it must not pass without a word.
void ClsTar::sayWhenUserIsUnknown(ProgressEvent* progress) {
  lookUpUser();
  if (m_userLookupError == 0) return;
  const char* const reason = std::strerror(m_userLookupError);
  m_log.LogNotice("The user database could not be read; owners are written by number alone.");
  m_log.LogData("reason", reason);
  if (progress) progress->onInfo("userUnknown", reason);
}

bool ClsTar::countTotal(ProgressEvent* progress, long long& total) {
  ProgressMonitorPtr pm(progress, m_abortCheckMs, m_percentScale, 0);
  if (!m_options->noTotal) {
    total = morvane::calcTotalProgressForWrite(m_files, m_dirRoots, liveWriteSettings(), m_log, pm.getPm());
  }
  return !pm.get_Aborted(m_log) && total >= 0;
}

// The whole archive, framed and flushed. An archive that is complete is finished as such also when something
// was left out of it, which makes the result false.
bool ClsTar::writeTo(_mvOutput& out, Compression compression, ProgressMonitor* pm, ProgressEvent* progress) {
  OutputFlush flush(out, pm);
  bool anythingLost = false;
  if (!m_archive->open(out, pm, m_log)) return false;
  if (!writeSources(out, pm, m_log, progress, anythingLost)) return false;
  if (compression == Compression::Gzip) m_log.LogDataInt64("originalDataSize", m_archive->m_uncompressedSize);
  if (!m_archive->close(out, m_log)) return false;
  const bool complete = flush.finish(m_log);
  m_onlyLeftOut = complete && anythingLost;
  return complete && !anythingLost;
}

// No file name is recorded, so the path is of no use.
bool ClsTar::beginGzip(const XString&, _mvOutput& out, ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  return step && writeGzipHeader(out, pm, log);
}

bool ClsTar::endGzip(_mvOutput& out, unsigned int crc32, unsigned int size) {
  const StepGuard step(*this);
  return step && writeGzipTrailer(out, crc32, size, m_log);
}

long long ClsTar::calcTotalProgressForWrite(LogBase& log, ProgressMonitor* pm) {
  const StepGuard step(*this);
  if (!step || !takeOptions(log)) return -1;
  return morvane::calcTotalProgressForWrite(m_files, m_dirRoots, liveWriteSettings(), log, pm);
}

bool ClsTar::writeTarToOutput(_mvOutput& out, ProgressMonitor* pm, LogBase& log, ProgressEvent* progress) {
  const StepGuard step(*this);
  bool anythingLost = false;
  return step && takeOptions(log) && writeSources(out, pm, log, progress, anythingLost) && !anythingLost;
}

bool ClsTar::writeSources(_mvOutput& out, ProgressMonitor* pm, LogBase& log, ProgressEvent* progress,
                          bool& anythingLost) {
  m_archive->m_output = &out;
  ScopeExit forget([this] { m_archive->m_output = nullptr; });
  ArchiveWriter writer(liveWriteSettings(), *m_archive, log, pm, progress);
  mvFileInfo archive;
  const auto* const file = dynamic_cast<const OutputFile*>(&out);
  if (file && file->getFileInfo(archive)) writer.leaveOut(archive);
  const bool complete = writer.writeTarToOutput(m_files, m_dirRoots, m_curDirRootPath);
  anythingLost = writer.anythingLost();
  return complete;
}

bool ClsTar::writeFileToOutput(XString& fullPath, XString& pathInTar, ProgressMonitor* pm, LogBase& log,
                               ProgressEvent* progress) {
  const StepGuard step(*this);
  return step && takeOptions(log) &&
         ArchiveWriter(liveWriteSettings(), *m_archive, log, pm, progress)
             .writeFileToOutput(fullPath, pathInTar);
}

bool ClsTar::copySourceToOutput(_mvDataSource& source, ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  return step && takeOptions(log) &&
         ArchiveWriter(liveWriteSettings(), *m_archive, log, pm, nullptr).copySourceToOutput(source);
}

bool ClsTar::writeTarHeaderToOutput(XString& pathInTar, mvFileInfo& info, ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  if (!step || !takeOptions(log)) return false;
  const WriteSettings settings = writeSettings();
  WriteRun run{settings, *m_archive, log, pm, nullptr};
  return morvane::writeTarHeaderToOutput(run, pathInTar, info);
}

bool ClsTar::writeLongFilenameToOutput(XString& path, mvFileInfo& info, ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  if (!step || !takeOptions(log)) return false;
  const WriteSettings settings = writeSettings();
  WriteRun run{settings, *m_archive, log, pm, nullptr};
  return morvane::writeLongFilenameToOutput(run, path, info);
}

bool ClsTar::writePaxHeaderToOutput(XString& path, mvFileInfo& info, ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  if (!step || !takeOptions(log)) return false;
  const WriteSettings settings = writeSettings();
  WriteRun run{settings, *m_archive, log, pm, nullptr};
  return morvane::writePaxHeaderToOutput(run, path, info);
}

bool ClsTar::writeOut_pm(const unsigned char* data, unsigned int len, ProgressMonitor* pm, LogBase& log) {
  const StepGuard step(*this);
  return step && m_archive->writeOut_pm(data, len, m_abortCheckMs != 0, pm, log);
}

bool ClsTar::splitPathForTar(const XString& path, XString& name, XString& prefix, LogBase& log) {
  // Either result may be the path itself.
  const UstarSplit split = splitUstarPath(path.str());
  std::string splitName(split.error ? "" : split.name), splitPrefix(split.error ? "" : split.prefix);
  if (split.error) log.LogError(split.error);
  name.buffer() = std::move(splitName);
  prefix.buffer() = std::move(splitPrefix);
  return !split.error;
}

unsigned int ClsTar::computeHeaderChecksum(const unsigned char* block) { return headerChecksum(block); }

bool ClsTar::numToBase256(long long value, char* out, int len) {
  return morvane::numToBase256(value, out, len);
}

bool ClsTar::base256ToNum(long long& out, const char* in, int len) {
  return morvane::base256ToNum(out, in, len);
}

}  // namespace morvane
