// ClsTar's appending to a plain archive.
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>

#include "runtime/base/ScopeExit.h"
#include "runtime/io/AppendOutput.h"
#include "runtime/log/LogContextExitor.h"
#include "tar/door/ClsTarInner.h"
#include "tar/format/ArchiveContent.h"
#include "tar/format/TarBlock.h"
#include "tar/read/UntarRun.h"
#include "tar/write/ArchiveOutput.h"

namespace morvane {

namespace {

// Said of a path that no file can have and of a file that cannot be opened alike.
constexpr char kCannotOpen[] = "Failed to open the archive.";
// POSIX ends an archive with two blocks of zeros. They stay in their place until everything behind them is
// written, so that a reader meets the end of the old archive till then.
constexpr unsigned kEndMark = 2 * kBlockSize;

// Whether everything that the source still has is zeros. `ok`: whether it could be read. Zeros are what
// archives are filled up with to the size of a tape's record, and may be overwritten. Anything else is
// somebody's data, which appending would destroy.
bool hasZerosAlone(_mvDataSource& source, const Io& io, bool& ok) {
  char piece[32 * 1024];
  // A short piece is the end of the file.
  for (unsigned got = sizeof piece; got == sizeof piece;) {
    ok = source.readFully(piece, sizeof piece, got, io.monitor, io.log);
    if (!ok || std::any_of(piece, piece + got, [](char byte) { return byte != 0; })) return false;
  }
  return true;
}

}  // namespace

// The file is opened once, for the search and for the writing, so that both are of the same file. One that
// was not there before is removed again when nothing comes of it.
bool ClsTar::AppendTar(const XString& tarPath, ProgressEvent* progress) {
  return m_inner->appendMethod(tarPath, progress);
}

// Progress of the search and of the write have a monitor each, and the archive needs no end(): it is plain,
// so that there is no encoder with memory and threads to let go.
bool ClsTar::Inner::appendMethod(const XString& tarPath, ProgressEvent* progress) {
  return method("AppendTar", MethodForm::Judged, false, [&](MethodFrame&) {
    long long total = 0;
    if (!prepareWrite({"tarPath", &tarPath, nullptr}, kCannotOpen, progress, total)) return false;
    const char* const path = tarPath.getUtf8();
    // O_NONBLOCK and O_NOCTTY, because the path may be a device's: opening it must neither wait nor make a
    // terminal the process's own, until findEndOfArchive refuses it.
    constexpr int kFlags = O_RDWR | O_NONBLOCK | O_NOCTTY;
    OsFile file(osOpen(path, kFlags));
    const bool isNew = !file.isOpen() && errno == ENOENT;
    // O_EXCL, so that a file which another process makes in this moment is not taken for one of the run's own
    // and removed after a failure. A link to nothing is refused by it, too.
    if (isNew) file.reset(osOpen(path, kFlags | O_CREAT | O_EXCL, 0666));
    if (!file.isOpen()) {
      logOsError(m_log, kCannotOpen, path, errno);
      return false;
    }
    bool isCommitted = false;
    ScopeExit remove([&] {
      if (isNew && !isCommitted) osRemoveFile(path);
    });
    long long end = 0;
    // With a monitor of its own: progress is about what is written.
    ProgressMonitorPtr searching(progress, m_abortCheckMs, m_percentScale, 0);
    if (!findEndOfArchive(file, tarPath, Io(m_log, searching.getPm(), nullptr), end)) return false;
    ProgressMonitorPtr monitor(progress, m_abortCheckMs, m_percentScale, total);
    const Io io(m_log, monitor.getPm(), progress);
    const std::unique_ptr<AppendOutput> out =
        AppendOutput::create(std::move(file), path, end, kEndMark, m_log);
    if (!out) return false;
    if (!m_archive.begin(Compression::None, m_options.codec, io)) return false;
    const bool written = writeFramed(*out, Compression::None, io);
    // An archive that is complete counts, also when something was left out of it.
    if (!written && !m_onlyLeftOut) return false;
    // The first new bytes replace the old end mark only here.
    isCommitted = out->commit(io.monitor, m_log);
    // What was left out is not all that is missing then.
    if (!isCommitted) m_onlyLeftOut = false;
    return isCommitted && written;
  });
}

// Where new members go: 0 in an empty file, else where the end mark begins. False, with the reason in the
// log, for whatever is no whole plain archive. The application hears nothing of the members that are there;
// it is asked whether to abort.
bool ClsTar::Inner::findEndOfArchive(const OsFile& file, const XString& path, const Io& io, long long& end) {
  LogContextExitor context(m_log, "findEndOfArchive");
  struct stat status;
  if (file.status(status) != 0 || !S_ISREG(status.st_mode)) {
    return io.fail("Only a regular file can be appended to.");
  }
  // An empty file is an archive that has not been begun: new members go to its start, without an end mark.
  if (status.st_size == 0) return true;
  // A source closes the descriptor that it is given; the one for writing has to stay open.
  _mvFileDataSource source;
  if (!source.adopt(file.duplicate(), path.getUtf8(), m_log)) return false;
  std::optional<Compression> found;
  if (!detectArchive(source, found, io.monitor, m_log)) return false;
  if (found && *found != Compression::None) {
    return io.fail("A compressed archive cannot be appended to.");
  }
  const char* const what = found ? nullptr : foreignContent(source, io.monitor, m_log);
  if (what) return io.fail(what);
  // With the full reader, which takes records as other tars do, because the end must be found where they find
  // it. A listing is not wanted of members that were there before.
  LiveSettings<ReadSettings> settings{[this] {
                                        ReadSettings walk = readSettings();
                                        walk.captureXmlListing = false;
                                        walk.options.fullRead = true;
                                        return walk;
                                      },
                                      m_tar.m_changes};
  // Nothing is extracted. The walk shows that every header up to the end mark can be read.
  UntarRun run({source, io, m_log, m_xmlListing}, std::move(settings), false);
  if (run.run() < 0) return false;
  // The first new member would be taken for the one that the record is about.
  if (run.endsBehindRecord()) return io.fail("The archive ends behind a record whose member is missing.");
  end = run.endPosition();
  bool couldRead = false;
  if (hasZerosAlone(source, io, couldRead)) return true;
  // What could not be read has its line in the log already.
  return couldRead && io.fail("There is something behind the end of the archive.");
}

}  // namespace morvane
