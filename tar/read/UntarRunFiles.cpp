// The run's members on their way to the disk: made in their turn, or handed to workers, and what workers
// could not do done again.
#include <typeinfo>

#include "runtime/io/OutputDataBuffer.h"
#include "runtime/io/_mvFileDataSource.h"
#include "runtime/io/_mvMemoryDataSource.h"
#include "runtime/log/LogContextExitor.h"
#include "runtime/log/LogNull.h"
#include "tar/read/UntarRun.h"

namespace morvane {

namespace {

// What a member's file ends with, whatever kept it from being made or filled.
constexpr char kCannotExtract[] = "Failed to extract to file.";

}  // namespace

// What has no data (a directory, a link, a special file) is done once it is made. Files under way are seen to
// first: what this member may meet has to be on the disk, and what failed has to be told before it.
bool UntarRun::makeMember(bool& leftOut) {
  // Asked before anything is done again, since that makes another member the current one for the time.
  const WriteBehind::Origin origin = originOfData();
  const MemberPlacer::Turn turn = m_placer.turnOf(m_member, m_io, origin);
  if (!doUndone(turn.waits)) return false;
  WriteBehind::File* const file = turn.isBehind ? m_placer.fileBehind(m_member, m_io, origin) : nullptr;
  if (file) return copyBehind(*file);
  logMaking();
  Placed placed = m_placer.place(m_member, m_io);
  leftOut = placed.result == Placed::Result::LeftOut;
  if (leftOut) return true;
  if (placed.result != Placed::Result::Made) {
    return m_placer.isFirstFailure(m_io, [this] { return doUndone(true); }) &&
           couldNotMake(placed.result, m_member.isDirectory);
  }
  return !placed.file || copyToFile({std::move(placed.out), placed.file}, leftOut);
}

// Before the attempt: a log that ends here shows at which member.
void UntarRun::logMaking() {
  const bool isDirectory = m_member.isDirectory;
  if (isDirectory && m_settings.untarDiscardPaths) return;  // none is made
  const MemberPath& path = m_placer.path();
  if (m_settings.untarDebugLog) m_log.LogDataX(isDirectory ? "dir" : "file", path.entryPath());
  if (m_log.verbose()) m_log.LogDataX(isDirectory ? "createDir" : "outputFile", path.outputPath());
}

// One message for directories, whatever the reason; files tell a missing place from a file that could not be
// made.
bool UntarRun::couldNotMake(Placed::Result result, bool isDirectory) {
  const XString& path = m_placer.path().outputPath();
  if (isDirectory) return failWith("Unable to create directory", "dirPath", path);
  if (result == Placed::Result::NoPlace) {
    return failWith("Failed to ensure directory exists.", "filePath", path);
  }
  {
    // Said in the context in which files are made, for that is where readers of the log look for it.
    LogContextExitor context(m_log, "extractToFile");
    m_placer.target().tellNotCreated(m_log);
    m_io.fail(kCannotCreateOutputFile);
  }
  return failWith(kCannotExtract, "filePath", path);
}

// The header's times are handed over as far as the archive has them; without Restore only the modification
// time and, where it is known, the access time can be set. A file that failed for a reason of its own has had
// its data taken, so that the cursor stands right.
bool UntarRun::copyToFile(FileToFill to, bool& leftOut) {
  const FileEnd end = fillFile(m_context.source, m_member, std::move(to), m_io);
  if (!m_placer.noteEnd(end, m_io)) return failWith(kCannotExtract, "filePath", m_placer.path().outputPath());
  m_cursor.passed(m_member.size);
  leftOut = !end.isWhole;
  return true;
}

FileEnd UntarRun::fillFile(_mvDataSource& source, const Member& member, FileToFill to, const Io& io) {
  const MorvaneFileTime modification = member.mtime.fileTime(), access = member.atime.fileTime(),
                        creation = member.ctime.fileTime();
  // They are local, and borrowed by settle until extractToFile returns.
  MemberTimes times;
  times.modification = &modification;
  if (member.atime.known) times.access = &access;
  if (member.ctime.known) times.creation = &creation;
  return extractToFile(source, std::move(to), times, member.size, m_copyBuffer.get(), m_copyBufferSize, io,
                       [&](FileToFill& filled, bool isComplete) {
                         return m_placer.settle(member, *filled.out, *filled.file, isComplete, times, io);
                       });
}

// Data of some size in an archive on a disk: both the copy and the memory for it are spared. Smaller ones
// come with the headers around them. What the archive has not got is missed in its turn, and so is anything
// that the progress of reading would show.
WriteBehind::Origin UntarRun::originOfData() {
  constexpr long long kFewest = 64 * 1024;
  if (!m_placer.writesBehind() || m_member.size < kFewest || m_member.size > WriteBehind::kMostUnread)
    return {};
  _mvFileDataSource* const archive = archiveFile();
  const OsFile* const file = archive ? archive->sharedFile() : nullptr;
  if (!file || (m_io.monitor && !m_io.monitor->reportsEach(_mvDataSource::kLentPiece))) return {};
  const long long at = archive->ftell64();
  return archive->sizeIfKnown() - at >= m_member.size ? WriteBehind::Origin{file, at} : WriteBehind::Origin{};
}

// None that an application derives: it may lie anywhere in its file, or give other bytes.
_mvFileDataSource* UntarRun::archiveFile() {
  _mvDataSource& source = m_context.source;
  return typeid(source) == typeid(_mvFileDataSource) ? static_cast<_mvFileDataSource*>(&source) : nullptr;
}

// The data are read here, with the events that reading has, or passed over as if they were; only then the
// file is begun. Of data that end too soon the file gets what there was, as always, and the lines about them
// come behind those about earlier files. An exception of a callback leaves what came, too.
bool UntarRun::copyBehind(WriteBehind::File& file) {
  // What reading says has to wait, because earlier files may still have lines to come.
  m_held.beginLike(m_log);
  bool isComplete = false;
  try {
    OutputDataBuffer out(*file.data);
    _mvDataSource& source = m_context.source;
    isComplete = file.origin.file ? source.passUnread(static_cast<unsigned>(m_member.size), file.size,
                                                      m_io.monitor, m_held)
                                  : source.copyNToOutput2PM(out, m_member.size, m_copyBuffer.get(),
                                                            m_copyBufferSize, m_io.monitor, m_held);
  } catch (...) {
    tellHeld();
    leavePart(file);
    throw;
  }
  if (isComplete) {
    // Only data that came whole move the cursor on: a failure ends the run.
    m_cursor.passed(m_member.size);
    m_placer.submitBehind(file);
    return doUndone(false);
  }
  // Earlier files come first. If one of them ends the run, its failure is what the log has, and nothing
  // behind it is begun.
  if (!doUndone(true)) return false;
  leavePart(file);
  tellHeld();
  (void)m_placer.noteEnd({}, m_io);  // it names the member
  return failWith(kCannotExtract, "filePath", m_placer.path().outputPath());
}

// In the context in which a file in its turn is read.
void UntarRun::tellHeld() {
  LogContextExitor context(m_log, "extractToFile");
  m_held.tellTo(m_log);
}

// As far as its data came, and nothing else of it. Why they ended is told by the caller. It is closed with
// the output, unsettled: half of a file keeps the mode and time that it was made with.
void UntarRun::leavePart(WriteBehind::File& file) {
  file.takeSize();
  LogNull unwanted;
  const Io quiet(unwanted);
  const Placed placed = m_placer.place(m_member, quiet);
  if (placed.file) (void)file.writeTo(*placed.out, unwanted);
}

// By the way that a file in its turn takes, so that log and metadata are the same. The archive has another
// reader for it, because the run's is behind these data, and may have failed there.
FileEnd UntarRun::fillAgain(const WriteBehind::File& file, Placed placed, const Io& io) {
  if (file.origin.file) {
    _mvFileDataSource archive;
    (void)archive.adoptFrom(*archiveFile(), file.origin.at, io.log);
    return fillFile(archive, file.member, {std::move(placed.out), placed.file}, io);
  }
  _mvMemoryDataSource source;
  source.initializeMemSource(reinterpret_cast<const unsigned char*>(file.bytes()), file.size);
  return fillFile(source, file.member, {std::move(placed.out), placed.file}, io);
}

// Each has a context of its own in the log, as it would have in its turn; and what comes behind it one again.
// Not behind a failure that ends the run, because another context would have the log forget it.
bool UntarRun::doUndone(bool waitsForAll) {
  return m_placer.doUndone(waitsForAll, [this](const WriteBehind::File& file) {
    nextFileContext();
    const bool goesOn = doAgain(file);
    if (goesOn) nextFileContext();
    return goesOn;
  });
}

// Where there is one: behind a failure there is not.
void UntarRun::nextFileContext() {
  if (!m_isInFileContext) return;
  m_log.leaveContext();
  m_log.enterContext(kFileContext);
}

// Without a monitor: progress was told as the data were read. It was counted as made. A failure that ends the
// run is told with this file's path, because placeAgain has made it the current one.
bool UntarRun::doAgain(const WriteBehind::File& file) {
  const Io io(m_log, nullptr, m_io.event);
  Placed placed = m_placer.placeAgain(file, io);
  if (placed.result == Placed::Result::LeftOut) {
    --m_count;
    return true;
  }
  if (placed.result != Placed::Result::Made) return couldNotMake(placed.result, false);
  const FileEnd end = fillAgain(file, std::move(placed), io);
  if (!m_placer.noteEnd(end, io)) return failWith(kCannotExtract, "filePath", m_placer.path().outputPath());
  if (!end.isWhole) --m_count;
  return true;
}

}  // namespace morvane
