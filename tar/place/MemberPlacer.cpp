#include "tar/place/MemberPlacer.h"

#include <cerrno>

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

void reportLeftOut(bool refused, const MemberPath& path, const Io& io) {
  io.log.LogNotice(refused ? "Member refused: its path leaves the target."
                           : "Member left out: it cannot be created.");
  io.log.LogDataX("entryPath", path.entryPath());
  tellAndGoOn(refused ? "refused" : "uncreatable", path, io);
}

void reportIncomplete(const MemberPath& path, const Io& io) {
  io.log.LogNotice("Member incomplete: it cannot be written.");
  io.log.LogDataX("entryPath", path.entryPath());
  tellAndGoOn("incomplete", path, io);
}

// A full disk, one that cannot be written, or a process that can open nothing more: the next member would
// meet it as well.
bool isLasting(int error) {
  return error == ENOSPC || error == EROFS || error == EMFILE || error == ENFILE || error == ENOMEM;
}

}  // namespace

void MemberPlacer::beginRun() {
  m_anyLeftOut = false;
  m_target.reset();
  m_path = MemberPath();
}

void MemberPlacer::announce(const Member& member, const Io& io) {
  if (!io.event) return;
  announceHeader(*io.event, member, m_path.entryPath());
  if (m_live.refresh()) setPath(member, io);
}

bool MemberPlacer::isWithinLimits(const Io& io) {
  return m_limits.takeMember(m_path.entryPath().str(), settings().options, io);
}

MemberPlacer::Choice MemberPlacer::choose(Member& member, Aim aim, const Io& io) {
  if (settings().filter.excludes(m_path.entryPath().str())) return Choice::FilteredOut;
  if (aim == Aim::OneFile && member.isDirectory) return Choice::Unwanted;
  if (aim == Aim::Look) return Choice::Suppressed;
  const long long dataSize = member.dataSize();
  // Asked before the member is announced.
  if (aim == Aim::Extract && !(isAllowedDepth(io) && m_limits.mayTakeData(dataSize, settings().options, io)))
    return Choice::LimitReached;
  if (isSkippedByEvent(member, aim, io)) return Choice::Skipped;
  if (settings().options.memberEvents && io.event) {
    const Choice choice = offerForChange(member, aim, io);
    if (choice != Choice::Extract) return choice;
  }
  m_limits.tookData(dataSize);
  return Choice::Extract;
}

bool MemberPlacer::isAllowedDepth(const Io& io) const {
  return RunLimits::mayMake(m_path.entryPath().str(), settings().options, io);
}

bool MemberPlacer::isSkippedByEvent(const Member& member, Aim aim, const Io& io) {
  const bool announces =
      m_manner.announcesEveryEntry || aim == Aim::OneFile || settings().options.entryEvents;
  if (!io.event || !announces) return false;
  bool skip = false;
  io.event->onTarEntry(m_path.outputPath().getUtf8(), member.dataSize(), member.isDirectory, skip);
  m_live.refresh();
  return skip;
}

// Sends onTarMember and takes what it left. A changed path passes the rules that every path passes; what
// confinement has to say of it comes with its creation.
MemberPlacer::Choice MemberPlacer::offerForChange(Member& member, Aim aim, const Io& io) {
  showMember(member, m_path.entryPath().str(), m_shown);
  const std::string path = m_shown.path;
  io.event->onTarMember(m_shown);
  m_live.refresh();
  if (m_shown.skip || m_shown.path.empty()) return Choice::Skipped;
  takeShown(m_shown, member);
  if (m_shown.path == path) return Choice::Extract;
  m_path.rename(m_shown.path, settings());
  if (m_path.entryPath().isEmpty()) return Choice::Skipped;
  return aim != Aim::Extract || isAllowedDepth(io) ? Choice::Extract : Choice::LimitReached;
}

ExtractTarget::Outcome MemberPlacer::make(const Member& member, const Io& io,
                                          std::unique_ptr<OutputFile>& file) {
  if (!member.isDirectory) {
    return m_target.createFile(m_path, settings(), m_manner.creatingFileTag, io.log, file);
  }
  const bool isDiscarded = settings().untarDiscardPaths && !m_manner.makesDiscardedDirectories;
  return isDiscarded ? ExtractTarget::Outcome::Ok : m_target.makeDirectory(m_path, settings(), io.log);
}

Placed MemberPlacer::place(const Member& member, const Io& io) {
  using Outcome = ExtractTarget::Outcome;
  Placed placed;
  const Outcome outcome = make(member, io, placed.file);
  if (outcome == Outcome::Ok) return placed;
  if (goesOnWithout(outcome)) {
    m_target.tellNotCreated(io.log);
    reportLeftOut(outcome == Outcome::Refused, m_path, io);
    m_anyLeftOut = true;
    placed.result = Placed::Result::LeftOut;
  } else {
    const bool noPlace = outcome == Outcome::NoTarget || outcome == Outcome::NoParent;
    placed.result = noPlace ? Placed::Result::NoPlace : Placed::Result::NotMade;
  }
  return placed;
}

// A refused member is no reason to leave out the others, nor, with SkipUncreatable, one that the target has
// no place for.
bool MemberPlacer::goesOnWithout(ExtractTarget::Outcome outcome) const {
  using Outcome = ExtractTarget::Outcome;
  if (outcome == Outcome::Refused) return true;
  if (outcome == Outcome::NoTarget || !settings().options.skipUncreatable) return false;
  return outcome == Outcome::TooLong || !isLasting(m_target.lastError());
}

bool MemberPlacer::noteEnd(const FileEnd& end, const Io& io) {
  if (end.isWhole) {
    if (!end.timesAreSet) tellAndGoOn("timesNotSet", m_path, io);
    return true;
  }
  if (!end.hasFailedAlone) return false;
  reportIncomplete(m_path, io);
  m_anyLeftOut = true;
  return true;
}

}  // namespace morvane
