// The placer's makings: what each kind of member becomes on the disk, and the end of it.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include "runtime/log/HeldLog.h"
#include "runtime/log/LogNull.h"
#include "tar/format/EntryPath.h"
#include "tar/place/MemberPlacer.h"
#include "tar/place/RunLimits.h"
#include "tar/place/SparseOutput.h"

namespace morvane {

namespace {

using Outcome = ExtractTarget::Outcome;

// Both ends of a link's life say these: where it is met, and behind the last member.
constexpr char kNoTarget[] = "The target of a hard link is not there.";
constexpr char kTargetTooLong[] = "The path of a hard link's target is too long.";
constexpr char kTargetNotExtracted[] = "The target of a hard link was not extracted.";

// Whether the text of a symbolic link, beside the member, leads out of the target by its parts alone. By its
// text, and not by what is on the disk, because it need not be there yet: "a/../../b" leads out although "a"
// might be a link that makes it lead elsewhere. An absolute text always does. A ".." behind another part is
// refused for that reason; those at the front only go up to directories which the member's own path names.
bool leadsOut(const std::string& path, std::string_view text) {
  if (!text.empty() && text.front() == '/') return true;
  long long depth = depthOf(cleanPath(path)) - 1;  // of the directory that the link is in
  bool atFront = true;
  while (!text.empty()) {
    const size_t end = std::min(text.find('/'), text.size());
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (part.empty() || part == ".") continue;
    if (part == ".." && (!atFront || --depth < 0)) return true;
    atFront = atFront && part == "..";
  }
  return false;
}

// The system has no link of no text, nor of one that no path could be. Length and NUL are asked beforehand,
// since a text that was cut would be a link to something else.
bool canBeLinkText(const std::string& text) {
  return !text.empty() && text.size() < PATH_MAX && !hasNul(text);
}

}  // namespace

// What is not restored as itself becomes a file: a link or device without the word is an empty file under its
// name, as the component always made it.
Outcome MemberPlacer::make(const Member& member, const Io& io, Placed& placed) {
  if (restored().link && member.isSymbolicLink()) return makeSymbolicLink(member, io);
  if (restored().link && member.isHardLink()) return makeHardLink(member, io, placed);
  if (restored().special && member.isSpecial()) return makeSpecial(member, io);
  return member.isDirectory ? makeDirectory(member, io) : makeFile(member, io, placed);
}

// Made with a mode that lets members in; its own comes at the end of the run, because it may forbid writing.
// With UntarDiscardPaths nothing is left of most directories' paths, and only one of the engines makes what
// is left.
Outcome MemberPlacer::makeDirectory(const Member& member, const Io& io) {
  if (settings().untarDiscardPaths && !m_manner.makesDiscardedDirectories) return Outcome::Ok;
  ConfinedDir::MadeDirectory made;
  const unsigned mode = restored().any() ? m_restorer.directoryModeToMake() : 0777;
  const Outcome outcome = m_target.makeDirectory(m_path, settings(), mode, made, io.log);
  if (outcome == Outcome::Ok && restored().any()) {
    // Parents first, so that a directory made on the way to an earlier member counts as the run's own.
    noteNewParents();
    m_restorer.noteDirectory(made, member, m_path.entryPath().str());
    if (made.isNew && made.isKnown) noteOwnDirectory(cleanPath(m_path.entryPath().str()));
  }
  return outcome;
}

// A map that makes no sense is found before the file is made. 0666 is what programs make files with; the
// umask does the rest. The output goes behind the one that spreads, which then owns it; `placed.file` still
// leads to the file.
Outcome MemberPlacer::makeFile(const Member& member, const Io& io, Placed& placed) {
  if (member.sparseIsWrong) {
    io.fail(SparseOutput::kMapIsWrong);
    return Outcome::Unusable;
  }
  unsigned mode = 0666;
  if (restored().any()) {
    // Open before the mode is chosen, because that may depend on the directory.
    const Outcome entered = m_target.enter(m_path, settings(), io.log);
    if (entered != Outcome::Ok) return entered;
    mode = modeToMake(member);
  }
  std::unique_ptr<OutputFile> file;
  const Outcome outcome =
      m_target.createFile(m_path, settings(), mode, m_manner.creatingFileTag, io.log, file);
  if (outcome != Outcome::Ok) return outcome;
  placed.file = file.get();
  placed.out = spreading(member, std::move(file), placed.file);
  return outcome;
}

unsigned MemberPlacer::modeToMake(const Member& member) {
  const bool groupIsOwn = !m_restorer.asksForGroup(member) || m_target.givesOwnGroup(m_path);
  return m_restorer.modeToMake(member, groupIsOwn);
}

// An output that is no file has no holes; it gets zeros in their place. The stored size is handed over,
// because only it and the map together show whether they fit.
std::unique_ptr<_mvOutput> MemberPlacer::spreading(const Member& member, std::unique_ptr<_mvOutput> out,
                                                   OutputFile* file) {
  if (!member.sparse.isSparse() && !member.sparseIsWrong) return out;
  return std::make_unique<SparseOutput>(std::move(out), file, member.sparse, member.size,
                                        member.sparseIsWrong);
}

// Links and special files are settled at once, as they have no data to wait for. What is closed is not the
// process's own (ConfinedDir) and stays as it is; a link has no mode that it could lack.
void MemberPlacer::settleNamed(const OsFile& made, const Member& member, const Io& io) {
  if (made.isOpen()) {
    m_restorer.settle(made.fd(), member, m_path.entryPath(), io);
  } else if (restored().mode && !member.isSymbolicLink()) {
    m_restorer.notKept().note(NotKept::Kind::Mode, m_path.entryPath(), EPERM, io);
  } else if (restored().time) {
    m_restorer.notKept().note(NotKept::Kind::Times, m_path.entryPath(), EPERM, io);
  }
}

Outcome MemberPlacer::makeSymbolicLink(const Member& member, const Io& io) {
  const std::string& text = member.linkPath;
  const std::string& path = m_path.entryPath().str();
  const bool isUsable = canBeLinkText(text);
  // Either alone would be too little: the parts say where the text leads if no link is passed, and passesLink
  // that none is.
  const bool leads = settings().options.linksInside &&
                     (leadsOut(path, text) || m_target.passesLink(m_path, settings(), io.log));
  if (!isUsable || leads) {
    io.fail(isUsable ? "The symbolic link leads out of the target."
                     : "The symbolic link has no usable text.");
    return Outcome::Unusable;
  }
  OsFile made;
  const Outcome outcome = m_target.makeSymbolicLink(m_path, settings(), text, made, io.log);
  if (outcome == Outcome::Ok) settleNamed(made, member, io);
  return outcome;
}

// The type decides whether the numbers are looked at; a FIFO has none. With a mode of its own to come, nobody
// else may open it before that. Devices are the superuser's: that somebody else cannot make them is no reason
// to lose the rest, and as it is so for each of them, it is told once.
Outcome MemberPlacer::makeSpecial(const Member& member, const Io& io) {
  const unsigned type = member.typeFlag == kTypeFifo              ? S_IFIFO
                        : member.typeFlag == kTypeCharacterDevice ? S_IFCHR
                                                                  : S_IFBLK;
  // What the system has. The header's fields hold more, of which it would make the number of another device.
  constexpr unsigned kMostMajor = 0xFFF, kMostMinor = 0xFFFFF;
  if (member.isDevice() && (member.deviceMajor > kMostMajor || member.deviceMinor > kMostMinor)) {
    io.fail("The number of the device makes no sense.");
    return Outcome::Unusable;
  }
  const unsigned long long device = member.isDevice() ? makedev(member.deviceMajor, member.deviceMinor) : 0;
  OsFile made;
  const unsigned mode = restored().mode ? 0600 : 0666;
  // What making it says is held back, since the failure of a device is no error where it is noted instead.
  HeldLog held;
  held.beginLike(io.log);
  const Outcome outcome = m_target.makeNode(m_path, settings(), type | mode, device, made, held);
  const bool mayNot = outcome == Outcome::NotCreated && m_target.lastError() == EPERM;
  if (mayNot && member.isDevice()) {
    m_restorer.notKept().note(NotKept::Kind::Device, m_path.entryPath(), EPERM, io);
    return Outcome::LeftOut;
  }
  held.tellTo(io.log);
  if (outcome == Outcome::Ok) settleNamed(made, member, io);
  // EPERM for a FIFO is the file system's word, and holds for this member alone.
  return mayNot ? Outcome::Unusable : outcome;
}

// A link to what has not come yet waits until the end, even if something of that name is there: it is of
// before the run, and what comes would replace it. One that has data of its own needs no target. POSIX pax
// archives may store the data with each name; GNU tar's with the first one only. A target that was skipped is
// never linked to, because what has its name would be of an earlier run.
Outcome MemberPlacer::makeHardLink(const Member& member, const Io& io, Placed& placed) {
  const std::string stored = m_path.targetOf(member.linkPath, settings(), io.log);
  // What the event says of a link is meant as it says it, by the name that the target has on the disk.
  const std::string target = m_linkIsGiven ? stored : m_links.nameNow(stored);
  const std::string& path = m_path.entryPath().str();
  // What is left of a path that the rules or the event take away.
  if (target.empty()) {
    if (member.size > 0) return makeFile(member, io, placed);
    sayNoTarget(stored.empty() ? kNoTarget : kTargetNotExtracted, stored, io);
    return Outcome::Unusable;
  }
  // Asked now, because a link that waits would keep both paths until the end, whatever their length.
  if (const Outcome judged = m_target.judge(m_path, io.log); judged != Outcome::Ok) return judged;
  if (target.size() > ExtractTarget::kLongestPath) {
    io.fail(kTargetTooLong);
    return Outcome::Unusable;
  }
  const LinkTable::Seen seen = seenTarget(stored, m_linkIsGiven);
  ConfinedDir::Linked linked = ConfinedDir::Linked::Missing;
  if (seen == LinkTable::Seen::Made) {
    const Outcome outcome = m_target.makeHardLink(m_path, settings(), target, linked, io.log);
    if (outcome != Outcome::Ok) return outcome;
  }
  if (linked == ConfinedDir::Linked::Ok) return Outcome::Ok;
  if (linked == ConfinedDir::Linked::CannotLink) return copyTarget(member, target, io);
  // There is nothing to link to, but the data are here.
  if (member.size > 0) return makeFile(member, io, placed);
  if (seen == LinkTable::Seen::Unmade) {
    sayNoTarget(kTargetNotExtracted, target, io);
    return Outcome::Unusable;
  }
  // It would wait for itself.
  if (cleanPath(target) == cleanPath(path)) {
    io.fail("A hard link leads to itself.");
    return Outcome::Unusable;
  }
  // As above, for the name that it may have by then.
  if (stored.size() > ExtractTarget::kLongestPath) {
    io.fail(kTargetTooLong);
    return Outcome::Unusable;
  }
  m_links.waitFor({path, stored, m_linkIsGiven});
  return Outcome::Ok;
}

// `target` is stored, or given as a path on the disk. Of a given one that nothing is known of, a member of
// that stored path that was not chosen is it: what lies there is of before the run.
LinkTable::Seen MemberPlacer::seenTarget(const std::string& target, bool isGiven) {
  using Seen = LinkTable::Seen;
  const bool isUnchosen = m_links.isUnchosen(target);
  if (!isGiven && isUnchosen) return Seen::Unmade;
  // It has not come yet.
  if (!isGiven && m_links.isAnothers(target)) return Seen::Nothing;
  const std::string& now = isGiven ? target : m_links.nameNow(target);
  const Seen seen = m_links.seen(now);
  if (seen != Seen::Nothing || m_links.waits(now)) return seen;
  return isMadeWithoutNote(now) ? Seen::Made : isUnchosen ? Seen::Unmade : Seen::Nothing;
}

// In a target that was empty everything is of this run (noteMade). One that is not open yet has nothing of
// it.
bool MemberPlacer::isMadeWithoutNote(const std::string& target) {
  return m_target.holdsOwnAlone() && !m_target.isElsewhere(m_path) && m_target.confined()->isThere(target);
}

// An output that is no SparseOutput has nothing to end: the member has no holes.
bool MemberPlacer::finishSpreading(_mvOutput& out, const Io& io) {
  auto* const sparse = dynamic_cast<SparseOutput*>(&out);
  _mvIoParams params(io.monitor);
  return !sparse || sparse->finish(params, io.log);
}

// A sparse file gets its length here, since the hole at its end has no data behind it. Without anything to
// restore a member gets its modification time alone, as ever. Half of a file does not become somebody's
// program, nor look like the whole by its time: it stays as it was made. A descriptor below 0 is a file that
// was dropped after a failure of its own.
FileEnd MemberPlacer::settle(const Member& member, _mvOutput& out, OutputFile& file, bool isComplete,
                             const MemberTimes& times, const Io& io) {
  isComplete = isComplete && finishSpreading(out, io);
  if (!restored().any()) {
    return settleFile(file, isComplete, io,
                      [&](OutputFile& open) { return setFileTimes(open, times, io.log); });
  }
  return settleFile(file, isComplete, io, [&](OutputFile& open) {
    // Flushed before it is settled, because a later write would change the times and clear set-id bits.
    const bool isWhole = isComplete && open.flush(io.monitor, io.log);
    if (isWhole && open.descriptor() >= 0)
      m_restorer.settle(open.descriptor(), member, m_path.entryPath(), io);
    return true;
  });
}

// ---- The end of a run

// Behind the last member every target that will ever be there is there. Each link is the current member for
// the time; the one that is, if any, may be of another target. A target that is made here may be what a later
// link waits for; takeWaiting has put them into that order.
void MemberPlacer::makeWaitingLinks(const Io& io) {
  std::vector<LinkTable::Waiting> waiting = m_links.takeWaiting();
  if (waiting.empty()) return;
  MemberPath current = std::exchange(m_path, MemberPath(m_target.dirFor(m_path)));
  size_t at = 0;
  try {
    for (; at < waiting.size(); ++at) {
      m_path.rename(waiting[at].path, settings());
      if (makeWaitingLink(waiting[at], io)) m_links.noteMade(waiting[at].path);
    }
  } catch (...) {
    // A callback that throws has been told of this one; those behind it wait on, for the end of the run.
    while (++at < waiting.size()) m_links.waitFor(std::move(waiting[at]));
    throw;
  }
  m_path = std::move(current);
}

// False, and said, when the link was not made.
bool MemberPlacer::makeWaitingLink(const LinkTable::Waiting& link, const Io& io) {
  using Linked = ConfinedDir::Linked;
  const std::string& target = m_links.targetNow(link);
  ConfinedDir* const confined = m_target.confinedFor(m_path, settings(), io.log);
  // A target that has not come may still lie there from before the run, and is good now: nothing in the
  // archive replaces it.
  const bool isAnothers = !link.isGiven && m_links.isAnothers(link.target);
  const bool mayLink =
      !target.empty() && !isAnothers && seenTarget(link.target, link.isGiven) != LinkTable::Seen::Unmade;
  Linked linked = Linked::Missing;
  if (mayLink && confined) linked = confined->makeHardLink(link.path, target, io.log);
  if (linked == Linked::Ok) return true;
  if (linked == Linked::CannotLink && copyTarget(memberLike(target), target, io) == Outcome::Ok) return true;
  // What is kept counts as made, so that links to this name find it.
  if (linked == Linked::Exists) {
    reportExisting(io);
    return true;
  }
  // Nothing has to be linked where the two are one from a run before.
  if (!mayLink && confined && confined->isOneFile(link.path, target)) return true;
  if (linked == Linked::Missing)
    sayNoTarget(mayLink ? kNoTarget : kTargetNotExtracted, target.empty() ? link.target : target, io);
  reportLeftOut(linked == Linked::Refused ? confined->lastRefusal() : nullptr, io);
  return false;
}

void MemberPlacer::sayNoTarget(const char* message, const std::string& target, const Io& io) {
  io.fail(message);
  io.log.LogData("linkPath", target.c_str());
}

// Links first: making one in a directory changes the directory's time.
void MemberPlacer::finishTarget(const Io& io) {
  makeWaitingLinks(io);
  if (ConfinedDir* const target = m_target.confined()) m_restorer.settleDirectories(*target, io);
}

// Counts are told once all members are through, directories among them. What a run has failed for stays the
// cause of its failure, whatever is said here.
void MemberPlacer::finish(const Io& io) {
  if (!restored().any()) return;
  // Put aside, because what is noted below forgets the cause that the log has (NotKept::note).
  const LogBase::Cause cause = io.log.cause();
  io.log.forgetCause();
  finishTarget(io);
  m_restorer.notKept().tellCounts(io);
  m_anyLeftOut |= m_restorer.notKept().any();
  m_restorer.notKept().clear();
  putCauseBack(cause, io.log);
}

void MemberPlacer::putCauseBack(LogBase::Cause cause, LogBase& log) {
  if (cause.message.empty()) return;
  log.forgetCause();
  cause.depth -= log.contextDepth();  // as a held one counts
  log.takeHeldCause(cause);
}

// Directories that wait may be closed to everybody but their owner, so that they are settled even when the
// run ends in an exception.
void MemberPlacer::finishQuietly() noexcept {
  try {
    finishBehind();
    LogNull unwanted;
    finishTarget(Io(unwanted));
  } catch (...) {  // out of memory: there is nothing more that could be done
  }
}

// What is owed is done first, as it needs the target to be open.
void MemberPlacer::releaseTarget() {
  finishQuietly();
  m_target.reset();
}

}  // namespace morvane
