// The choice of what becomes of a member, in the order that applications have come to know: filters before
// limits of data, limits before events, because an event that was sent for a member must be followed by the
// member or by its skipping, and never by a failure that could have been known.
#include "tar/place/MemberPlacer.h"

#include <cerrno>

#include "tar/format/EntryPath.h"
#include "tar/format/Member.h"
#include "tar/format/ShownMember.h"

namespace morvane {

namespace {

// Until the event has been told, get_FailureCause says why; the run goes on, so that behind it there is no
// failure to be put down to anything.
void tellAndGoOn(const char* what, const MemberPath& path, const Io& io) {
  io.inform(what, path.entryPath().getUtf8());
  io.log.forgetCause();
}

// The line behind the notice has the path, as the event does.
void reportIncomplete(const char* message, const MemberPath& path, const Io& io) {
  io.log.LogNotice(message);
  io.log.LogDataX("entryPath", path.entryPath());
  io.inform("incomplete", path.entryPath().getUtf8());
}

// A full disk, one that cannot be written, or a process that can open nothing more: the next member would
// meet it as well.
bool isLasting(int error) {
  return error == ENOSPC || error == EROFS || error == EMFILE || error == ENFILE || error == ENOMEM;
}

}  // namespace

// The run before may not have been ended: its links and directories are settled first.
void MemberPlacer::beginRun() {
  releaseTarget();
  m_anyLeftOut = false;
  m_links.clear();
  m_target.noteWhetherEmpty(false);
  m_restorer.begin(settings().options);
  m_path = MemberPath();
}

// Properties set in the callback hold for this very member, so that an application can choose UntarFromDir or
// the filters by what the header says.
void MemberPlacer::announce(const Member& member, const Io& io) {
  if (!io.event) return;
  announceHeader(*io.event, member, m_path.entryPath());
  if (m_live.refresh()) setPath(member, io);
}

// Whatever was not chosen is no target for later links, for whatever reason. Where the event has left it no
// name, that is noted already.
MemberPlacer::Choice MemberPlacer::chooseAndNote(Member& member, Aim aim, const Io& io) {
  m_linkIsGiven = m_isRenamed = false;
  const Choice choice = chooseByRules(member, aim, io);
  if (restored().link && aim == Aim::Extract && choice != Choice::Extract && !m_isRenamed) {
    m_links.noteUnchosen(m_path.entryPath().str());
  }
  return choice;
}

// What is only looked at has no depth and no data to be limited, and is not offered to the event. The data
// are counted once the event has let the member pass: those of skipped members cost nothing.
MemberPlacer::Choice MemberPlacer::chooseByRules(Member& member, Aim aim, const Io& io) {
  if (settings().filter.excludes(m_path.entryPath().str())) return Choice::FilteredOut;
  if (aim == Aim::IntoOutput && member.isDirectory) return Choice::Unwanted;
  if (aim == Aim::Look) return Choice::Suppressed;
  // Into an output holes go as zeros. On the disk holes take no room, and only stored bytes count.
  const long long size = aim == Aim::IntoOutput ? member.realSize() : member.dataSize();
  // Asked before the member is announced.
  const bool isAllowed =
      (aim != Aim::Extract || isAllowedDepth()) && m_limits.mayTakeData(size, settings().options);
  if (!isAllowed) return Choice::LimitReached;
  if (isSkippedByEvent(member, aim, io)) return Choice::Skipped;
  if (member.isContinuation) {
    io.fail("The member is continued from another volume.");
    reportLeftOut(nullptr, io);
    return Choice::Skipped;
  }
  if (settings().options.memberEvents && io.event) {
    const Choice choice = offerForChange(member, aim, io);
    if (choice != Choice::Extract) return choice;
  }
  m_limits.tookData(size);
  return Choice::Extract;
}

// Again for each path that an event has given, as the limit is on what is made.
bool MemberPlacer::isAllowedDepth() { return m_limits.mayMake(m_path.entryPath().str(), settings().options); }

// Where files go into an output, the event is how they are chosen; so it comes in both engines.
bool MemberPlacer::isSkippedByEvent(const Member& member, Aim aim, const Io& io) {
  const bool announces =
      m_manner.announcesEveryEntry || aim == Aim::IntoOutput || settings().options.entryEvents;
  if (!io.event || !announces) return false;
  bool skip = false;
  io.event->onTarEntry(m_path.outputPath().getUtf8(), member.dataSize(), member.isDirectory, skip);
  m_live.refresh();
  return skip;
}

// Sends onTarMember and takes what it left. A changed path passes the rules that every path passes; what
// confinement has to say of it comes with its creation. An empty path, from the event or left by the rules,
// is a way to skip. A depth is asked for again, because the event may have made the path deeper.
MemberPlacer::Choice MemberPlacer::offerForChange(Member& member, Aim aim, const Io& io) {
  showMember(member, m_path.entryPath().str(), m_shown);
  // There is no local path while an archive is read.
  m_shown.writing = false;
  m_shown.localPath.clear();
  const std::string path = m_shown.path;
  io.event->onTarMember(m_shown);
  m_live.refresh();
  if (m_shown.skip || m_shown.path.empty()) return Choice::Skipped;
  m_linkIsGiven = m_shown.linkPath != member.linkPath;
  takeShown(m_shown, member);
  if (m_shown.path == path) return Choice::Extract;
  const std::string before = m_path.entryPath().str();
  m_isRenamed = true;
  m_path.rename(m_shown.path, settings());
  if (restored().link) m_links.noteRenamed(before, m_path.entryPath().str());
  if (m_path.entryPath().isEmpty()) return Choice::Skipped;
  return aim != Aim::Extract || isAllowedDepth() ? Choice::Extract : Choice::LimitReached;
}

// A target that changed in the middle of a run is finished before the first member goes elsewhere: the table
// of links and the directories to settle are of one target. Whatever was not made is no target for links.
Placed MemberPlacer::place(const Member& member, const Io& io) { return place(member, Time::First, io); }

// What is done again was noted as made in its turn, and what came behind it may have a later word on its
// name.
Placed MemberPlacer::place(const Member& member, Time time, const Io& io) {
  using Outcome = ExtractTarget::Outcome;
  Placed placed;
  if (restored().any() && m_target.isElsewhere(m_path)) {
    finishTarget(io);
    m_links.clear();
    if (m_behind) m_behind->forgetOwnDirectories();
  }
  // What is no directory may take an empty one's place: a link, by which others are reached from then on.
  if (m_behind && !member.isDirectory && m_behind->isOwnDirectory(cleanPath(m_path.entryPath().str())))
    m_behind->forgetOwnDirectories();
  if (restored().link) m_links.replaceWaiting(m_path.entryPath().str());
  const Outcome outcome = isKeptAsNewer(member, io) ? Outcome::Exists : make(member, io, placed);
  noteNewParents();
  if (restored().link) {
    const std::string& path = m_path.entryPath().str();
    // A link that waits is not there yet.
    // What is kept in a member's place is what later links mean.
    const bool isThere = (outcome == Outcome::Ok && !m_links.waits(path)) || outcome == Outcome::Exists;
    if (!isThere) m_links.noteUnmade(path);
    if (isThere && time == Time::First) noteMade(path);
    if (!m_isRenamed && time == Time::First) m_links.noteKeptName(path);
  }
  if (outcome == Outcome::Ok) return placed;
  if (outcome == Outcome::Exists) {
    reportExisting(io);
    placed.result = Placed::Result::LeftOut;
    return placed;
  }
  if (outcome == Outcome::LeftOut) {
    placed.result = Placed::Result::LeftOut;
  } else if (goesOnWithout(outcome)) {
    m_target.tellNotCreated(io.log);
    reportLeftOut(outcome == Outcome::Refused ? m_target.lastRefusal() : nullptr, io);
    placed.result = Placed::Result::LeftOut;
  } else {
    const bool noPlace = outcome == Outcome::NoTarget || outcome == Outcome::NoParent;
    placed.result = noPlace ? Placed::Result::NoPlace : Placed::Result::NotMade;
  }
  return placed;
}

// Where there was nothing before the run, what is there tells it (makeHardLink), and nothing need be kept of
// each of millions of members.
void MemberPlacer::noteMade(const std::string& path) {
  m_target.holdsOwnAlone() ? m_links.forgetUnmade(path) : m_links.noteMade(path);
}

// The notice first, then the event: a callback that reads the log finds it there. Without a refusal the cause
// is known already.
void MemberPlacer::reportLeftOut(const char* refusal, const Io& io) {
  const std::string message =
      refusal ? std::string("Member refused: ") + refusal + "." : "Member left out: it cannot be created.";
  io.log.LogNotice(message.c_str());
  io.log.LogDataX("entryPath", m_path.entryPath());
  if (refusal) io.log.noteCause(message.c_str(), m_path.entryPath().getUtf8(), refusal);
  tellAndGoOn(refusal ? "refused" : "uncreatable", m_path, io);
  m_anyLeftOut = true;
}

// A newer file is kept for a directory's sake, too; what lies below that then has no place.
bool MemberPlacer::isKeptAsNewer(const Member& member, const Io& io) {
  return settings().options.existing == ExistingFiles::Newer &&
         m_target.isNewerThere(m_path, settings(), member.mtime, io.log);
}

// Where the application asked to be told of what is kept, that is a member left out; else it is what was
// wanted.
void MemberPlacer::reportExisting(const Io& io) {
  const bool isTold = settings().options.existing == ExistingFiles::Keep;
  constexpr char kMessage[] = "Member left out: something is there already.";
  isTold ? io.log.LogNotice(kMessage) : io.log.LogInfo(kMessage);
  io.log.LogDataX("entryPath", m_path.entryPath());
  io.inform(isTold ? "exists" : "kept", m_path.entryPath().getUtf8());
  m_anyLeftOut |= isTold;
}

// A refused member is no reason to leave out the others, nor, with SkipUncreatable, one that the target has
// no place for. A target that cannot be opened would fail each member alike, and so would what isLasting
// knows.
bool MemberPlacer::goesOnWithout(ExtractTarget::Outcome outcome) const {
  using Outcome = ExtractTarget::Outcome;
  if (outcome == Outcome::Refused || outcome == Outcome::Unusable) return true;
  if (outcome == Outcome::NoTarget || !settings().options.skipUncreatable) return false;
  return outcome == Outcome::TooLong || !isLasting(m_target.lastError());
}

// Times that could not be set cost no member its success; that is told and the run is whole. Where members
// are restored, one whose data end too soon is named, because what is left of it is not what the archive
// says: behind an abort as well, because a later run that keeps what is there would take it for whole. A
// failure to write has the file's path already.
bool MemberPlacer::noteEnd(const FileEnd& end, const Io& io) {
  if (end.isWhole) {
    if (!end.timesAreSet) tellAndGoOn("timesNotSet", m_path, io);
    return true;
  }
  if (!end.hasFailedAlone) {
    const bool isNews = restored().any() && io.log.cause().path.empty();
    if (isNews) reportIncomplete("Member incomplete: only a part of it is there.", m_path, io);
    return false;
  }
  reportIncomplete("Member incomplete: it cannot be written.", m_path, io);
  io.log.forgetCause();  // the run goes on
  m_anyLeftOut = true;
  return true;
}

}  // namespace morvane
