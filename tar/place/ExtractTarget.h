// Where members are extracted to: plain paths below UntarFromDir, or confined to it (the word Confine).
// MemberPlacer makes all of these calls; an engine asks for the reason of a failure alone. Paths, modes and
// texts arrive here, and nothing else of a member: what an archive says of it before and behind is not known.
#pragma once

#include <memory>

#include "runtime/fs/ConfinedDir.h"
#include "runtime/fs/mvFileInfo.h"
#include "runtime/io/OutputFile.h"
#include "tar/format/TarHeader.h"
#include "tar/place/MemberPath.h"
#include "tar/settings/ReadSettings.h"

namespace morvane {

// One object for a run, or for several of the same engine with reset() between them. Nothing is opened before
// a member needs it, so that a run that makes nothing leaves no target directory behind. One thread, but for
// the files that WriteBehind makes in confined(). What was made stays, whatever fails later.
class ExtractTarget {
 public:
  // Deeper than any tree that is in use; hostile archives go on from here. Bytes.
  static constexpr unsigned kLongestPath = 2 << 20;

  // Only the engines know whether a run ends at one of these; MemberPlacer::goesOnWithout decides it for
  // both. Each but Ok means that the member was not made; of the directories above it some may have been.
  enum class Outcome {
    Ok,
    Refused,     // the path leaves the target, or what stands in the way may not be removed
    Exists,      // something is there, and the word ExistingFiles keeps it
    TooLong,     // said in the log
    LeftOut,     // noted as what is not kept, and left out
    Unusable,    // what the archive says of the member makes no sense here: said in the log
    NoTarget,    // the target itself cannot be opened or made
    NoParent,    // a directory above the member cannot be made
    NotCreated,  // the member itself cannot be made; tellNotCreated says why
  };

  // A file that extraction must not replace: the archive being read. Without effect on the plain way. It
  // holds until reset(). The plain way opens what it is told to, as the user could.
  void protect(const mvFileInfo& archive);
  // Gives up what is held from an earlier run. The directory is opened again when a member needs it.
  void reset();

  // What the path alone decides. Everything below asks it before the disk is touched. It also clears what
  // lastError and lastRefusal tell of the member before.
  Outcome judge(const MemberPath& path, LogBase& log);
  // Makes the missing parents and the empty file. A verbose log says which file is made, under `creatingTag`
  // (null: it does not). Null in `file` unless the outcome is Ok; the caller owns it and settles it. `mode`
  // holds on the confined way, less the umask.
  Outcome createFile(const MemberPath& path, const ReadSettings& settings, unsigned mode,
                     const char* creatingTag, LogBase& log, std::unique_ptr<OutputFile>& file);
  // A directory that is there is Ok. `made` is filled in by the confined way alone. Mode as for files.
  Outcome makeDirectory(const MemberPath& path, const ReadSettings& settings, unsigned mode,
                        ConfinedDir::MadeDirectory& made, LogBase& log);

  // Links and special files are made only through the confined directory, which is opened for them also where
  // members may lie anywhere. `made` is a descriptor that only names what was made, for its owner and times;
  // it is closed when that could not be opened. `text` is not looked at. `device` is the system's number,
  // `mode` has the kind of file in it.
  Outcome makeSymbolicLink(const MemberPath& path, const ReadSettings& settings, const std::string& text,
                           OsFile& made, LogBase& log);
  Outcome makeNode(const MemberPath& path, const ReadSettings& settings, unsigned mode,
                   unsigned long long device, OsFile& made, LogBase& log);
  // `linked` tells what became of it where the outcome is Ok. `target` is a path below the same directory, by
  // the rules that members' paths go by. No metadata is touched.
  Outcome makeHardLink(const MemberPath& path, const ReadSettings& settings, const std::string& target,
                       ConfinedDir::Linked& linked, LogBase& log);
  // Whether what is to be made at the path lies in another target than what was made last. False before
  // anything was made confined.
  bool isElsewhere(const MemberPath& path) const {
    return m_confined.isOpen() && m_confinedDir.str() != path.targetDir().str();
  }
  // Whether there is a link on the way to where the member is to be made. Of a place that cannot be looked at
  // it is true: nobody knows.
  bool passesLink(const MemberPath& path, const ReadSettings& settings, LogBase& log);
  // With ExistingFiles=newer: whether what is at the member's path is as new as that time, or newer. False
  // for nothing, and for a directory.
  bool isNewerThere(const MemberPath& path, const ReadSettings& settings, const TarTime& time, LogBase& log);
  // Whether there was nothing in the target when it was opened; asked then, where `notesEmpty` says so. False
  // where nothing was opened, and where it could not be told.
  void noteWhetherEmpty(bool notesEmpty) { m_notesEmpty = notesEmpty; }
  bool wasEmpty() const { return m_wasEmpty; }
  // Whether all that a member's path may lead to has come there since: no path leads out of the target.
  bool holdsOwnAlone() const { return m_wasEmpty && m_confinedHow != ConfinedDir::Links::Anywhere; }
  // What comes before anything is made on the confined way: the path is judged, and the directory open. Each
  // of the above begins with it.
  Outcome enter(const MemberPath& path, const ReadSettings& settings, LogBase& log);
  // Whether a file gets the process's group when it is made, so that its mode need not wait for its owner.
  // Behind an `enter` of the path that was Ok.
  bool givesOwnGroup(const MemberPath& path) { return m_confined.givesOwnGroup(path.entryPath().str()); }
  // Null until something was made through it. Owned here; gone with the next target or reset().
  ConfinedDir* confined() { return m_confined.isOpen() ? &m_confined : nullptr; }
  // The directory that is open, or would be for the path.
  const XString& dirFor(const MemberPath& path) const {
    return m_confined.isOpen() ? m_confinedDir : path.targetDir();
  }
  // The confined directory, opened for the path where nothing was made yet; null, with the reason in the log,
  // when it cannot be.
  ConfinedDir* confinedFor(const MemberPath& path, const ReadSettings& settings, LogBase& log) {
    return m_confined.isOpen() || openConfined(path, settings, log) ? &m_confined : nullptr;
  }

  // The system's reason (an errno) why the last member was not created; 0 when it was none of the system's.
  // Good until the next member.
  int lastError() const { return m_lastError; }
  // For a member that was created and then came to nothing.
  void noteError(int error) { m_lastError = error; }
  // Why the last member was refused, in words for people.
  const char* lastRefusal() const { return m_refusal; }
  // Logs that reason, unless the log has it already: where it stands is for the engine to say. Does nothing a
  // second time.
  void tellNotCreated(LogBase& log);

 private:
  // Opens the directory unless it is open for the same target and words. False, with the reason in the log.
  bool openConfined(const MemberPath& path, const ReadSettings& settings, LogBase& log);
  // The two ways to make a file. `creatingTag`: null in a log that is not verbose.
  Outcome createConfined(const MemberPath& path, const ReadSettings& settings, unsigned mode,
                         const char* creatingTag, LogBase& log, std::unique_ptr<OutputFile>& file);
  Outcome createPlain(const MemberPath& path, const char* creatingTag, LogBase& log,
                      std::unique_ptr<OutputFile>& file);
  // Takes the confined directory's reason along.
  Outcome outcomeOf(ConfinedDir::Result result);

  // What the confined directory was opened for; it is opened anew when either is another. A copy of the path,
  // because the property may change under it.
  ConfinedDir m_confined;
  XString m_confinedDir;
  ConfinedDir::Links m_confinedHow = ConfinedDir::Links::None;
  bool m_notesEmpty = false, m_wasEmpty = false;
  // Of the member that was made or tried last; judge() clears them.
  int m_lastError = 0;
  const char* m_refusal = "";
  std::string m_untoldPath;  // of a file whose creation failed, while the log does not say so
  // The archive is kept here too, because each confined directory that is opened has to be told of it. It
  // outlasts a change of target, but not reset().
  bool m_hasArchive = false;
  mvFileInfo m_archive;
};

}  // namespace morvane
