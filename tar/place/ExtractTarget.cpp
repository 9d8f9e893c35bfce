#include "tar/place/ExtractTarget.h"

#include <cerrno>
#include <new>

#include "runtime/fs/DirAutoCreate.h"
#include "runtime/log/LogNull.h"
#include "runtime/progress/ProgressMonitor.h"
#include "runtime/text/StringBuffer.h"

namespace morvane {

namespace {

constexpr char kCannotOpenTarget[] = "Failed to open the target directory.";

// Until the event has been told, get_FailureCause says why.
void tellAndGoOn(const char* what, const MemberPath& path, ProgressEvent* event, LogBase& log) {
  if (event) ProgressMonitor::pprogressInfo(*event, what, path.entryPath().getUtf8());
  log.forgetCause();
}

}  // namespace

void ExtractTarget::protect(const mvFileInfo& archive) {
  m_hasArchive = true;
  m_archive = archive;
}

void ExtractTarget::reset() {
  m_confined = ConfinedDir();
  m_hasArchive = false;
}

bool ExtractTarget::openConfined(const XString& dir, Confine how, LogBase& log) {
  if (m_confined.isOpen() && how == m_confinedHow && m_confinedDir.str() == dir.str()) return true;
  m_confined = ConfinedDir();
  if (m_hasArchive) m_confined.protect(m_archive);
  m_confinedHow = how;
  m_confinedDir = dir;
  const auto links = how == Confine::Beneath ? ConfinedDir::Links::InsideTarget : ConfinedDir::Links::None;
  return m_confined.open(dir.isEmpty() ? "." : dir.getUtf8(), links, log);
}

ExtractTarget::Outcome ExtractTarget::outcomeOf(ConfinedDir::Result result) {
  switch (result) {
    case ConfinedDir::Result::Ok:
      return Outcome::Ok;
    case ConfinedDir::Result::Refused:
      return Outcome::Refused;
    case ConfinedDir::Result::Failed:
      break;
  }
  m_lastError = m_confined.lastError();
  return Outcome::NotCreated;
}

// What the path rules alone decide about a member, before the disk is touched.
ExtractTarget::Outcome ExtractTarget::judge(const MemberPath& path, LogBase& log) {
  m_lastError = 0;
  if (hasNul(path.entryPath())) return Outcome::Refused;
  if (path.entryPath().getSizeUtf8() > kLongestPath) return Outcome::TooLong;
  return isSystemPath(path.targetDir(), kCannotOpenTarget, log) ? Outcome::Ok : Outcome::NoTarget;
}

ExtractTarget::Outcome ExtractTarget::createFile(const MemberPath& path, const ReadSettings& settings,
                                                 const char* creatingTag, LogBase& directoryLog, LogBase& log,
                                                 std::unique_ptr<OutputFile>& file) {
  Outcome outcome = judge(path, log);
  if (outcome != Outcome::Ok) return outcome;
  const char* const tag = log.verbose() ? creatingTag : nullptr;
  outcome = settings.options.confine == Confine::Off
                ? createPlain(path, tag, directoryLog, log, file)
                : createConfined(path, settings.options.confine, tag, log, file);
  if (file && settings.options.skipUncreatable) file->dropAfterOwnFailure();
  return outcome;
}

ExtractTarget::Outcome ExtractTarget::createConfined(const MemberPath& path, Confine how,
                                                     const char* creatingTag, LogBase& log,
                                                     std::unique_ptr<OutputFile>& file) {
  if (!openConfined(path.targetDir(), how, log)) return Outcome::NoTarget;
  if (creatingTag) log.LogDataX(creatingTag, path.outputPath());
  OsFile created;
  const Outcome outcome = outcomeOf(m_confined.createFile(path.entryPath().str(), created, log));
  if (outcome != Outcome::Ok) return outcome;
  file.reset(OutputFile::adopt(std::move(created), path.outputPath().getUtf8()));
  if (!file) throw std::bad_alloc();
  return Outcome::Ok;
}

ExtractTarget::Outcome ExtractTarget::createPlain(const MemberPath& path, const char* creatingTag,
                                                  LogBase& directoryLog, LogBase& log,
                                                  std::unique_ptr<OutputFile>& file) {
  const char* const outputPath = path.outputPath().getUtf8();
  // Most parents are there: look for a missing one only when the file cannot be made.
  LogNull firstTry;
  if (!creatingTag) file.reset(OutputFile::createFileUtf8(outputPath, firstTry));
  if (file) return Outcome::Ok;
  StringBuffer parent;
  if (!DirAutoCreate::ensureFileUtf8(outputPath, parent, directoryLog)) {
    m_lastError = errno;
    log.adoptCause(directoryLog);
    return Outcome::NoParent;
  }
  if (creatingTag) log.LogDataX(creatingTag, path.outputPath());
  file.reset(OutputFile::createFileUtf8(outputPath, log));
  m_lastError = errno;
  return file ? Outcome::Ok : Outcome::NotCreated;
}

ExtractTarget::Outcome ExtractTarget::makeDirectory(const MemberPath& path, const ReadSettings& settings,
                                                    LogBase& directoryLog, LogBase& log) {
  const Outcome judged = judge(path, log);
  if (judged != Outcome::Ok) return judged;
  if (settings.options.confine != Confine::Off) {
    if (!openConfined(path.targetDir(), settings.options.confine, log)) return Outcome::NoTarget;
    return outcomeOf(m_confined.makeDirectory(path.entryPath().str(), log));
  }
  if (path.outputPath().isEmpty()) return Outcome::Ok;  // where the process stands
  if (DirAutoCreate::ensureDirUtf8(path.outputPath().getUtf8(), directoryLog)) return Outcome::Ok;
  m_lastError = errno;
  log.adoptCause(directoryLog);
  return Outcome::NotCreated;
}

bool leavesOut(ExtractTarget::Outcome outcome, int error, const MemberPath& path,
               const ReadSettings& settings, ProgressEvent* event, LogBase& log) {
  using Outcome = ExtractTarget::Outcome;
  if (outcome == Outcome::Ok || outcome == Outcome::NoTarget) return false;
  if (outcome == Outcome::TooLong) {
    log.LogError("The member's path is too long to be created.");
    log.LogDataInt64("pathLength", path.entryPath().getSizeUtf8());
  }
  const bool refused = outcome == Outcome::Refused;
  // A full disk, one that cannot be written, or a process that can open nothing more: so it goes on.
  const bool isLasting =
      error == ENOSPC || error == EROFS || error == EMFILE || error == ENFILE || error == ENOMEM;
  if (!refused && (!settings.options.skipUncreatable || (outcome != Outcome::TooLong && isLasting)))
    return false;
  log.LogNotice(refused ? "Member refused: its path leaves the target."
                        : "Member left out: it cannot be created.");
  log.LogDataX("entryPath", path.entryPath());
  tellAndGoOn(refused ? "refused" : "uncreatable", path, event, log);
  return true;
}

void reportIncomplete(const MemberPath& path, ProgressEvent* event, LogBase& log) {
  log.LogNotice("Member incomplete: it cannot be written.");
  log.LogDataX("entryPath", path.entryPath());
  tellAndGoOn("incomplete", path, event, log);
}

void reportTimesNotSet(const MemberPath& path, ProgressEvent* event, LogBase& log) {
  tellAndGoOn("timesNotSet", path, event, log);
}

}  // namespace morvane
