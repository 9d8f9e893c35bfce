#include "tar/ExtractTarget.h"

#include "runtime/fs/DirAutoCreate.h"
#include "runtime/log/LogNull.h"
#include "runtime/progress/ProgressMonitor.h"
#include "runtime/text/StringBuffer.h"

namespace morvane {

namespace {

// The system would take the name to end there.
bool hasNul(const MemberPath& path) { return path.entryPath().str().find('\0') != std::string::npos; }

bool isTooLong(const MemberPath& path) {
  return path.entryPath().getSizeUtf8() > ExtractTarget::kLongestPath;
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

bool ExtractTarget::openConfined(const ReadSettings& settings, LogBase& log) {
  const Confine how = settings.options.confine;
  if (m_confined.isOpen() && how == m_confinedHow &&
      m_confinedDir.equalsUtf8(settings.untarFromDir.getUtf8())) {
    return true;
  }
  m_confined = ConfinedDir();
  if (m_hasArchive) m_confined.protect(m_archive);
  m_confinedHow = how;
  m_confinedDir = settings.untarFromDir;
  const auto links = how == Confine::Beneath ? ConfinedDir::Links::InsideTarget : ConfinedDir::Links::None;
  const char* const dir = m_confinedDir.isEmpty() ? "." : m_confinedDir.getUtf8();
  return m_confined.open(dir, links, log);
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
  return Outcome::NotCreated;
}

ExtractTarget::Outcome ExtractTarget::createFile(const MemberPath& path, const ReadSettings& settings,
                                                 const char* creatingTag, LogBase& directoryLog, LogBase& log,
                                                 std::unique_ptr<OutputFile>& file) {
  if (hasNul(path)) return Outcome::Refused;
  if (isTooLong(path)) return Outcome::TooLong;
  const char* const outputPath = path.outputPath().getUtf8();
  if (settings.options.confine != Confine::Off) {
    if (!openConfined(settings, log)) return Outcome::NoTarget;
    if (creatingTag && log.verbose()) log.LogDataX(creatingTag, path.outputPath());
    OsFile created;
    const Outcome outcome = outcomeOf(m_confined.createFile(path.entryPath().str(), created, log));
    if (outcome == Outcome::Ok) file.reset(OutputFile::adopt(std::move(created), outputPath));
    return outcome == Outcome::Ok && !file ? Outcome::NotCreated : outcome;
  }
  // Most parents are there: look for a missing one only when the file cannot be made.
  const bool tells = creatingTag && log.verbose();
  LogNull firstTry;
  if (!tells) file.reset(OutputFile::createFileUtf8(outputPath, firstTry));
  if (file) return Outcome::Ok;
  StringBuffer parent;
  if (!DirAutoCreate::ensureFileUtf8(outputPath, parent, directoryLog)) {
    log.adoptCause(directoryLog);
    return Outcome::NoParent;
  }
  if (tells) log.LogDataX(creatingTag, path.outputPath());
  file.reset(OutputFile::createFileUtf8(outputPath, log));
  return file ? Outcome::Ok : Outcome::NotCreated;
}

ExtractTarget::Outcome ExtractTarget::makeDirectory(const MemberPath& path, const ReadSettings& settings,
                                                    LogBase& directoryLog, LogBase& log) {
  if (hasNul(path)) return Outcome::Refused;
  if (isTooLong(path)) return Outcome::TooLong;
  if (settings.options.confine != Confine::Off) {
    if (!openConfined(settings, log)) return Outcome::NoTarget;
    return outcomeOf(m_confined.makeDirectory(path.entryPath().str(), log));
  }
  if (path.outputPath().isEmpty()) return Outcome::Ok;  // where the process stands
  if (DirAutoCreate::ensureDirUtf8(path.outputPath().getUtf8(), directoryLog)) return Outcome::Ok;
  log.adoptCause(directoryLog);
  return Outcome::NotCreated;
}

bool leavesOut(ExtractTarget::Outcome outcome, const MemberPath& path, const ReadSettings& settings,
               ProgressEvent* event, LogBase& log) {
  using Outcome = ExtractTarget::Outcome;
  if (outcome == Outcome::Ok || outcome == Outcome::NoTarget) return false;
  if (outcome == Outcome::TooLong) {
    log.LogError("The member's path is too long to be created.");
    log.LogDataInt64("pathLength", path.entryPath().getSizeUtf8());
  }
  const bool refused = outcome == Outcome::Refused;
  if (!refused && !settings.options.skipUncreatable) return false;
  log.LogNotice(refused ? "Member refused: its path leaves the target."
                        : "Member left out: it cannot be created.");
  log.LogDataX("entryPath", path.entryPath());
  // Until the event has been sent, get_FailureCause says why.
  if (event) {
    ProgressMonitor::pprogressInfo(*event, refused ? "refused" : "uncreatable", path.entryPath().getUtf8());
  }
  log.forgetCause();  // the run goes on
  return true;
}

}  // namespace morvane
