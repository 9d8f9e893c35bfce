// The one gate between a member and the disk. Two ways lead through it: the plain one, for which the path is
// what the archive says and the system follows whatever is there, and the confined one, which the word
// Confine and everything that restores more than data take. The outcome is the same kind of answer for both.
#include "tar/place/ExtractTarget.h"

#include <fcntl.h>

#include <cerrno>
#include <new>

#include "runtime/base/ScopeExit.h"
#include "runtime/fs/DirAutoCreate.h"
#include "runtime/log/LogNull.h"
#include "runtime/text/StringBuffer.h"
#include "tar/format/EntryPath.h"

namespace morvane {

namespace {

// What is restored goes through the confined directory also where members may lie anywhere, because there
// everything is made exclusively; and so does what must not replace anything.
bool isConfined(const TarOptions& options) {
  return options.confine != Confine::Off || options.restore.any() ||
         options.existing != ExistingFiles::Replace;
}

// Off still has a confined directory where something is restored: then it only creates exclusively.
ConfinedDir::Links linksOf(Confine confine) {
  switch (confine) {
    case Confine::Beneath:
      return ConfinedDir::Links::InsideTarget;
    case Confine::NoLinks:
      return ConfinedDir::Links::None;
    case Confine::Off:
      break;
  }
  return ConfinedDir::Links::Anywhere;
}

// The same words as the confined directory has, so that a reader finds both.
constexpr char kCannotOpenTarget[] = "Failed to open the target directory.";

}  // namespace

// The plain way does not look at it, as it replaces what it is told to.
void ExtractTarget::protect(const mvFileInfo& archive) {
  m_hasArchive = true;
  m_archive = archive;
}

// A descriptor that is kept would keep a file system from being unmounted. What is only remembered of the
// last member may stay: judge() clears it.
void ExtractTarget::reset() {
  m_confined = ConfinedDir();
  m_hasArchive = m_wasEmpty = false;
}

// Opened when the first member needs it, and kept: a run has one target, unless UntarFromDir or Confine is
// set from a callback. An empty UntarFromDir is where the process stands.
bool ExtractTarget::openConfined(const MemberPath& path, const ReadSettings& settings, LogBase& log) {
  const XString& dir = path.targetDir();
  const ExistingFiles existing = settings.options.existing;
  // Also where the directory is open already: the word may be another one than when it was opened.
  // ExistingFiles=newer is decided for each member before it is made (isNewerThere), so that what is still in
  // the way then is to be replaced.
  ScopeExit keep(
      [&] { m_confined.keepExisting(existing == ExistingFiles::Keep || existing == ExistingFiles::Skip); });
  const ConfinedDir::Links how = linksOf(settings.options.confine);
  if (m_confined.isOpen() && how == m_confinedHow && m_confinedDir.str() == dir.str()) return true;
  m_confined = ConfinedDir();
  if (m_hasArchive) m_confined.protect(m_archive);
  // Their identity is asked for only where they will get metadata.
  m_confined.noteNewParents(settings.options.restore.any());
  m_confinedHow = how;
  m_confinedDir = dir;
  const bool isOpen = m_confined.open(dir.isEmpty() ? "." : dir.getUtf8(), how, log);
  // Now, before the run has put anything there.
  m_wasEmpty = isOpen && m_notesEmpty && m_confined.isEmpty();
  return isOpen;
}

// The reason is taken at once; the next member overwrites it.
ExtractTarget::Outcome ExtractTarget::outcomeOf(ConfinedDir::Result result) {
  switch (result) {
    case ConfinedDir::Result::Ok:
      return Outcome::Ok;
    case ConfinedDir::Result::Refused:
      m_refusal = m_confined.lastRefusal();
      return Outcome::Refused;
    case ConfinedDir::Result::Exists:
      return Outcome::Exists;
    case ConfinedDir::Result::Failed:
      break;
  }
  m_lastError = m_confined.lastError();
  return Outcome::NotCreated;
}

// What the path rules alone decide about a member, before the disk is touched. A NUL would end the path for
// the system, and the file would be another than the one that filters and events were shown. Both ways ask
// here, so that they refuse the same. A target directory that holds a NUL is refused for the same reason.
ExtractTarget::Outcome ExtractTarget::judge(const MemberPath& path, LogBase& log) {
  m_lastError = 0;
  m_refusal = "its path leaves the target";
  m_untoldPath.clear();
  if (hasNul(path.entryPath().str())) return Outcome::Refused;
  if (const unsigned length = path.entryPath().getSizeUtf8(); length > kLongestPath) {
    log.LogError("The member's path is too long to be created.");
    log.LogDataInt64("pathLength", length);
    return Outcome::TooLong;
  }
  return isSystemPath(path.targetDir(), kCannotOpenTarget, log) ? Outcome::Ok : Outcome::NoTarget;
}

// With SkipUncreatable, an output that fails for a reason of its own drops its file and takes the rest of the
// data in silence: the member is left out and the run goes on.
ExtractTarget::Outcome ExtractTarget::createFile(const MemberPath& path, const ReadSettings& settings,
                                                 unsigned mode, const char* creatingTag, LogBase& log,
                                                 std::unique_ptr<OutputFile>& file) {
  Outcome outcome = judge(path, log);
  if (outcome != Outcome::Ok) return outcome;
  const char* const tag = log.verbose() ? creatingTag : nullptr;
  outcome = isConfined(settings.options) ? createConfined(path, settings, mode, tag, log, file)
                                         : createPlain(path, tag, log, file);
  if (file && settings.options.skipUncreatable) file->dropAfterOwnFailure();
  return outcome;
}

// The path in messages is the whole one, although the file was made by its path below the target.
ExtractTarget::Outcome ExtractTarget::createConfined(const MemberPath& path, const ReadSettings& settings,
                                                     unsigned mode, const char* creatingTag, LogBase& log,
                                                     std::unique_ptr<OutputFile>& file) {
  if (!openConfined(path, settings, log)) return Outcome::NoTarget;
  if (creatingTag) log.LogDataX(creatingTag, path.outputPath());
  OsFile created;
  const Outcome outcome = outcomeOf(m_confined.createFile(path.entryPath().str(), mode, created, log));
  if (outcome != Outcome::Ok) return outcome;
  // The descriptor is closed by then if there is no memory: the member stays as an empty file, and the run
  // ends.
  file.reset(OutputFile::adopt(std::move(created), path.outputPath().getUtf8()));
  if (!file) throw std::bad_alloc();
  return Outcome::Ok;
}

// Not even a confined directory is opened for a path that is refused, because opening it makes a target that
// is missing.
ExtractTarget::Outcome ExtractTarget::enter(const MemberPath& path, const ReadSettings& settings,
                                            LogBase& log) {
  const Outcome judged = judge(path, log);
  return judged != Outcome::Ok || openConfined(path, settings, log) ? judged : Outcome::NoTarget;
}

// Links and special files have no plain way: made by path alone they could be put through a link that an
// earlier member made.
ExtractTarget::Outcome ExtractTarget::makeSymbolicLink(const MemberPath& path, const ReadSettings& settings,
                                                       const std::string& text, OsFile& made, LogBase& log) {
  const Outcome entered = enter(path, settings, log);
  if (entered != Outcome::Ok) return entered;
  return outcomeOf(m_confined.makeSymbolicLink(path.entryPath().str(), text, made, log));
}

ExtractTarget::Outcome ExtractTarget::makeNode(const MemberPath& path, const ReadSettings& settings,
                                               unsigned mode, unsigned long long device, OsFile& made,
                                               LogBase& log) {
  const Outcome entered = enter(path, settings, log);
  if (entered != Outcome::Ok) return entered;
  return outcomeOf(m_confined.makeNode(path.entryPath().str(), mode, device, made, log));
}

// A target that is missing, and a file system that will not link, are answers that the caller has a use for,
// and so are Ok here.
ExtractTarget::Outcome ExtractTarget::makeHardLink(const MemberPath& path, const ReadSettings& settings,
                                                   const std::string& target, ConfinedDir::Linked& linked,
                                                   LogBase& log) {
  const Outcome entered = enter(path, settings, log);
  if (entered != Outcome::Ok) return entered;
  linked = m_confined.makeHardLink(path.entryPath().str(), target, log);
  if (linked == ConfinedDir::Linked::Refused) return outcomeOf(ConfinedDir::Result::Refused);
  if (linked == ConfinedDir::Linked::Exists) return Outcome::Exists;
  if (linked != ConfinedDir::Linked::Failed) return Outcome::Ok;
  m_lastError = m_confined.lastError();
  return Outcome::NotCreated;
}

// A file of which that cannot be told is replaced like any other. A link is looked at by itself and not by
// what it points at. Equal times keep what is there, so that a second run over the same archive changes
// nothing.
bool ExtractTarget::isNewerThere(const MemberPath& path, const ReadSettings& settings, const TarTime& time,
                                 LogBase& log) {
  if (!openConfined(path, settings, log)) return false;
  const OsFile there(m_confined.openExisting(path.entryPath().str(), O_PATH));
  struct stat status;
  if (!there.isOpen() || there.status(status) != 0 || S_ISDIR(status.st_mode)) return false;
  if (status.st_mtim.tv_sec != time.seconds) return status.st_mtim.tv_sec > time.seconds;
  return status.st_mtim.tv_nsec >= static_cast<long>(time.nanoseconds);
}

// For links that have to stay inside the target: a text is judged by its parts from the directory that the
// path names, and that is another one if a link lies on the way. What cannot be opened without passing links
// counts as one. A parent that is missing has none: it will be made as a directory.
bool ExtractTarget::passesLink(const MemberPath& path, const ReadSettings& settings, LogBase& log) {
  if (!openConfined(path, settings, log)) return false;
  const std::string clean = cleanPath(path.entryPath().str());
  const size_t slash = clean.rfind('/');
  if (slash == std::string::npos) return false;
  const OsFile parent(m_confined.openExisting(clean.substr(0, slash), O_PATH | O_DIRECTORY));
  return !parent.isOpen() && errno != ENOENT;
}

// A verbose log says which file is made behind what it says of parents; so parents are seen to first there.
// The reason of the last try is not logged but kept: the engines say it in contexts of their own.
ExtractTarget::Outcome ExtractTarget::createPlain(const MemberPath& path, const char* creatingTag,
                                                  LogBase& log, std::unique_ptr<OutputFile>& file) {
  const char* const outputPath = path.outputPath().getUtf8();
  LogNull untold;
  // Most parents are there: look for a missing one only when the file cannot be made.
  if (!creatingTag) file.reset(OutputFile::createFileUtf8(outputPath, untold));
  if (file) return Outcome::Ok;
  // Asked for, but of no use here.
  StringBuffer parent;
  if (!DirAutoCreate::ensureFileUtf8(outputPath, parent, log, DirAutoCreate::Telling::IfVerbose)) {
    // DirAutoCreate, and below OutputFile, leave errno as the failure set it.
    m_lastError = errno;
    return Outcome::NoParent;
  }
  if (creatingTag) log.LogDataX(creatingTag, path.outputPath());
  file.reset(OutputFile::createFileUtf8(outputPath, untold));
  if (file) return Outcome::Ok;
  m_lastError = errno;
  m_untoldPath = outputPath;
  return Outcome::NotCreated;
}

// The mode is the confined way's; the plain one makes directories as mkdir -p does, through links that are
// there.
ExtractTarget::Outcome ExtractTarget::makeDirectory(const MemberPath& path, const ReadSettings& settings,
                                                    unsigned mode, ConfinedDir::MadeDirectory& made,
                                                    LogBase& log) {
  const Outcome judged = judge(path, log);
  if (judged != Outcome::Ok) return judged;
  if (isConfined(settings.options)) {
    if (!openConfined(path, settings, log)) return Outcome::NoTarget;
    return outcomeOf(m_confined.makeDirectory(path.entryPath().str(), mode, made, log));
  }
  const char* const outputPath = path.outputPath().getUtf8();
  if (*outputPath == '\0') return Outcome::Ok;  // where the process stands
  if (DirAutoCreate::ensureDirUtf8(outputPath, log, DirAutoCreate::Telling::IfVerbose)) return Outcome::Ok;
  m_lastError = errno;
  return Outcome::NotCreated;
}

// Once: what was told is forgotten. On the confined way the path is empty: the directory has logged its
// failure where it arose.
void ExtractTarget::tellNotCreated(LogBase& log) {
  if (m_untoldPath.empty()) return;
  logOsError(log, kCannotCreate, m_untoldPath.c_str(), m_lastError);
  m_untoldPath.clear();
}

}  // namespace morvane
