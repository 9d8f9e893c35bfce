// Opening an archive, finding out what it is, reading it by the method for that, and saying how it ended:
// what every command that reads does in the same way.
#include "cli/ReadArchive.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "cli/InterruptEvent.h"
#include "cli/StandardStreams.h"
#include "runtime/fs/OsFile.h"
#include "runtime/log/LogCause.h"
#include "runtime/progress/ProgressMonitor.h"

namespace mvtar {

namespace {

using morvane::ClsTar;
using morvane::Compression;
using morvane::OsFile;

constexpr char kStandardInput[] = "standard input";

// It would wait for somebody to type an archive.
bool isNoTerminal(int descriptor, const std::string& name, Report& report) {
  if (!isatty(descriptor)) return true;
  report.problem(name, "an archive is not read from a terminal");
  return false;
}

}  // namespace

// A program's output is looked at like a file: it should be a plain archive, but a program that left it
// compressed is no reason to fail.
bool ArchiveReader::open(const CommandLine& line, Report& report) {
  const bool isOpen = !line.filterProgram.empty() ? openThroughProgram(line, report)
                      : line.usesStandardStream() ? openStandardInput(report)
                                                  : openPath(line.archive, report);
  if (!isOpen) return false;
  morvane::LogCause log;
  // The first bytes of a slow pipe may be long in coming.
  InterruptEvent event;
  morvane::ProgressMonitor monitor(event, 1, 0, 0);
  if (!detectArchive(m_source, m_compression, &monitor, log)) {
    const auto& cause = log.cause();
    if (!isInterrupted()) report.problem(line.archive, cause.reason.empty() ? cause.message : cause.reason);
    return false;
  }
  // "checksum is wrong" would tell nobody what is wrong with something else.
  const char* const what = m_compression ? nullptr : morvane::foreignContent(m_source, &monitor, log);
  if (what) report.problem(line.archive, what);
  return what == nullptr;
}

// The source closes the descriptor that it has, so it gets one of its own.
bool ArchiveReader::openStandardInput(Report& report) {
  if (!isNoTerminal(STDIN_FILENO, kStandardInput, report)) return false;
  morvane::LogCause log;
  if (m_source.adopt(OsFile(furtherDescriptor(STDIN_FILENO)), kStandardInput, log)) return true;
  report.problem(kStandardInput, log.cause().reason);
  return false;
}

// The program gets the file itself; what it expands is read from a pipe.
bool ArchiveReader::openThroughProgram(const CommandLine& line, Report& report) {
  OsFile file(line.usesStandardStream() ? furtherDescriptor(STDIN_FILENO)
                                        : ::open(line.archive.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file.isOpen()) {
    // The wait for a FIFO may be interrupted, which the end of the command says.
    if (!isInterrupted()) report.problem(line.archive, std::strerror(errno));
    return false;
  }
  if (!isNoTerminal(file.fd(), line.usesStandardStream() ? kStandardInput : line.archive, report))
    return false;
  // The program has its own copy of the file's descriptor; this process closes its own with this function.
  OsFile expanded(m_program.startReading(line.filterProgram, file.fd(), report));
  if (!expanded.isOpen()) return false;
  morvane::LogCause log;
  if (m_source.adopt(std::move(expanded), line.archive.c_str(), log)) return true;
  report.problem(line.archive, log.cause().reason);
  return false;
}

// A program that still has something to write would be ended by SIGPIPE if the pipe were closed now, and its
// own check of the end of its data would be lost. Therefore the rest is read first, where the archive was
// read to its end.
bool ArchiveReader::finishProgram(FilterProcess::End end, Report& report) {
  if (!m_program.isRunning()) return true;
  InterruptEvent event;
  morvane::ProgressMonitor monitor(event, 1, 0, 0);
  morvane::LogNull unwanted;
  const bool isDrained = end == FilterProcess::End::Well && m_source.skip(LLONG_MAX, &monitor, unwanted);
  (void)isDrained;  // a program that has ended says so by its status
  m_source.close();
  return m_program.finish(end, report);
}

// A FIFO is waited for, but an interrupt ends the wait.
bool ArchiveReader::openPath(const std::string& path, Report& report) {
  InterruptEvent event;
  morvane::ProgressMonitor monitor(event, 1, 0, 0);
  morvane::LogCause log;
  if (m_source.openDataSourceFile(path, log, &monitor))
    return isNoTerminal(m_source.descriptor(), path, report);
  // The end of a reading command says that it was interrupted.
  if (!isInterrupted()) report.problem(path, log.cause().reason);
  return false;
}

// What begins with a damaged header is read as a plain archive, which then says what is wrong with it.
bool ArchiveReader::isPlain() const { return m_compression.value_or(Compression::None) == Compression::None; }

// A table from compression to method. The methods find the archive's end in their own ways; see
// docs/format.md.
bool ArchiveReader::read(ClsTar& tar, morvane::ProgressEvent& event) {
  using Untar = bool (ClsTar::*)(morvane::_mvDataSource&, morvane::ProgressEvent*);
  static constexpr std::pair<Compression, Untar> kMethods[] = {{Compression::Gzip, &ClsTar::UntarGz},
                                                               {Compression::Bzip2, &ClsTar::UntarBz2},
                                                               {Compression::Compress, &ClsTar::UntarZ},
                                                               {Compression::Zstd, &ClsTar::UntarZst},
                                                               {Compression::Xz, &ClsTar::UntarXz}};
  for (const auto& [compression, untar] : kMethods) {
    if (m_compression == compression) return (tar.*untar)(m_source, &event);
  }
  // Where nothing is extracted VerifyTar seeks over the data, and asks for the end mark.
  const bool ok =
      tar.get_SuppressOutput() ? tar.VerifyTar(m_source, &event) : tar.Untar(m_source, &event) >= 0;
  if (ok) takeRestOfRecord();
  return ok;
}

// The listing ends with its closing line even when the archive is damaged.
bool ArchiveReader::listPlainXml(ClsTar& tar, morvane::_mvOutput& xml, morvane::ProgressEvent& event) {
  const bool ok = tar.ListXml(m_source, xml, &event);
  if (ok) takeRestOfRecord();
  return ok;
}

// Who writes an archive into a pipe writes whole records, and would be ended by a reader that left at the end
// mark. 20 blocks are tar's usual record. A file is left alone: nobody waits for its end. What is there is
// passed over without a look, and failing to is no failure of the command's.
void ArchiveReader::takeRestOfRecord() {
  constexpr long long kRecord = 20 * 512;
  if (m_source.ftell64() >= 0) return;
  const long long rest = (kRecord - m_source.bytesPassed() % kRecord) % kRecord;
  InterruptEvent event;
  morvane::ProgressMonitor monitor(event, 0, 0, 0);
  morvane::LogNull unwanted;
  (void)m_source.skip(rest, &monitor, unwanted);
}

// The path is not asked for: the caller has a better one.
std::string failureReason(ClsTar& tar) {
  morvane::XString path, reason;
  tar.get_FailureCause(path, reason);
  return reason.str();
}

// An interrupted run may have left out members, too, and has not come to the end.
bool cameToTheEnd(ClsTar& tar, bool ok) { return ok || (tar.get_OnlyLeftOut() && !isInterrupted()); }

// An interrupt has a status of its own and comes before every other way to end.
int finish(ClsTar& tar, const CommandLine& line, Report& report, bool ok, const char* rest) {
  // Before the lines about how it ended, so that those stay the last.
  if (line.printLog) report.log(tar);
  if (isInterrupted()) {
    report.notice(line.archive, "interrupted; the archive was not read to its end");
    // What was printed before belongs to the user. Whether it arrives does not change the status any more.
    StandardOutput::flush();
    return interruptStatus();
  }
  if (!ok) {
    report.failure(tar, line.archive);
    morvane::XString path, reason;
    tar.get_FailureCause(path, reason);
    // A path that is not the archive's is the target's: the archive itself goes on.
    if (rest && !path.isEmpty() && path.str() != line.archive) report.notice(line.archive, rest);
  }
  return report.finish();
}

// Everything that does not depend on the command itself.
bool ReadJob::open() {
  if (!archive.open(m_line, report)) return false;
  // Without a bar no parts: the component then reads as suits it best, since nobody sees how far it is.
  tar.put_PercentScale(bar.mayBeShown() ? ProgressBar::kScale : 0);
  tar.put_UncommonOptions(m_line.readingWords().c_str());
  tar.put_Charset(m_line.charset);
  tar.put_NoAbsolutePaths(!m_line.keepNames);
  // Names are changed whole: where they are, the command's event takes the last part of what comes of them.
  tar.put_UntarDiscardPaths(m_line.stripPaths && !m_line.changes.anyWhenReading());
  if (!m_line.targetDir.empty()) tar.put_UntarFromDir(m_line.targetDir);
  return true;
}

// A limit that ended the run is named by its word, in place of the component's reason.
int ReadJob::finish(const MemberEvent& event, bool ok, const char* rest) {
  // First, because a program that failed makes the status 2, and totals and the closing line come behind its
  // message.
  using End = FilterProcess::End;
  const bool isUnwanted = event.enoughSeen() || isInterrupted();
  archive.finishProgram(isUnwanted ? End::Any : cameToTheEnd(tar, ok) ? End::Well : End::BrokenOff, report);
  if (m_line.totals) report.totals(event.members(), event.bytes());
  if (event.limit().empty()) return mvtar::finish(tar, m_line, report, ok, rest);
  report.problem(m_line.archive, "limit reached (" + event.limit() + ")");
  if (rest) report.notice(m_line.archive, rest);
  return mvtar::finish(tar, m_line, report, true);
}

}  // namespace mvtar
