// One member after the other, from what the archive says of it to what stands on the disk: path rules, the
// application's events, filters, limits, the target, the end of its file.
//
//   placer.setPath(member, io);
//   placer.announce(member, io);
//   if (!placer.isWithinLimits(io, doUndoneOfAll)) ...
//   if (placer.choose(member, ..., io, doUndoneOfAll) == MemberPlacer::Choice::Extract) {
//     Placed placed = placer.place(member, io);
//     ... data into placed.file ...
//     placer.noteEnd(placer.settle(member, *placed.out, *placed.file, ...), io);
//   }
//   placer.finish(io);
//
// The policy of both engines. Each keeps its own order of lines and its own messages: it logs between these
// steps, which themselves log only what both say. What they do differently on purpose is in Manner.
#pragma once

#include "runtime/base/ScopeExit.h"
#include "runtime/io/Io.h"
#include "runtime/log/HeldLog.h"
#include "runtime/progress/TarMember.h"
#include "tar/format/MemberReader.h"
#include "tar/place/ExtractTarget.h"
#include "tar/place/LinkTable.h"
#include "tar/place/MetadataRestorer.h"
#include "tar/place/RunLimits.h"
#include "tar/place/SettleFile.h"
#include "tar/place/WriteBehind.h"
#include "tar/settings/LiveSettings.h"

namespace morvane {

struct Member;

// What became of a member that was to be made. The engine owns the output until the file is settled; `file`
// is good as long as that is there.
struct Placed {
  enum class Result {
    Made,
    LeftOut,  // the run goes on without it, and fails at its end; log and event have heard of it
    NoPlace,  // the target, or a directory above the member, cannot be made
    NotMade,  // the member itself: ExtractTarget::tellNotCreated has the reason, if the log has not
  };
  Result result = Result::Made;
  std::unique_ptr<_mvOutput> out;  // where its data go; null for what takes none
  OutputFile* file = nullptr;      // the same, or what lies behind it
};

// What a run with these words asks of its reader.
inline MemberReader::Demand demandOf(const TarOptions& options) {
  return {options.fullRead, options.restore.sparse};
}

// On the stack of a run, or in an engine that lives longer; one thread. Nothing but the disk outlives it:
// what waits is settled by the destructor. Step after step of one member, then those of the next: path() and
// what was chosen hold from setPath to the next setPath. Failures are said where they arise, unless a comment
// leaves the words to the engine.
class MemberPlacer {
 public:
  // Constants of each engine.
  struct Manner {
    // onTarEntry comes for every member; else only with the word EntryEvents.
    bool announcesEveryEntry;
    // With UntarDiscardPaths a directory is made under the last part of its path; else none is.
    bool makesDiscardedDirectories;
    // What a verbose log calls a file that is made, once its parents are there; null: the engine says it.
    const char* creatingFileTag;
  };

  // The settings are the engine's, which takes them anew at each header; here they are taken anew behind each
  // callback.
  MemberPlacer(LiveSettings<ReadSettings>& live, Manner manner) : m_live(live), m_manner(manner) {}
  ~MemberPlacer() { finishQuietly(); }

  // ---- Of a whole run

  // A file that extraction must not replace (with Confine): the archive.
  void protect(const mvFileInfo& archive) { m_target.protect(archive); }
  // Gives up the descriptors of the target directory. What is owed to it is done before, and nobody hears of
  // that.
  void releaseTarget();
  // Forgets what an earlier run counted / what it left out, its names and its target. A streaming engine
  // needs the two apart, as limits hold over several unframed runs.
  void clearLimits() { m_limits.clear(); }
  // Behind it the parts to restore are those that the words say now, for the whole run.
  void beginRun();
  // The end of a run, however it ends: links that waited for their targets are made, directories get what
  // they are to get. What went wrong is said, and counts as left out.
  void finish(const Io& io);
  // The same where nobody is to hear of it: behind an exception, or for a run that was given up.
  void finishQuietly() noexcept;
  // Whether members were left out since. Notes of what is not kept count only from finish on.
  bool anyLeftOut() const { return m_anyLeftOut; }

  // ---- Of one member, in this order

  // The path rules. Nothing is refused here.
  void setPath(const Member& member, const Io& io) { m_path.set(member, settings(), io.log); }
  // Sends onTarHeader. The rules are applied again if the callback changed any.
  void announce(const Member& member, const Io& io);
  // Counts the member, which filters may yet leave out, by the path after the rules. False, with the word in
  // the log, at a limit, or where a file of before ends the run: `doUndoneOfAll` is the engine's, see inTurn.
  // It is counted by the placer, whatever the engines count as their results.
  template <class DoUndone>
  [[nodiscard]] bool isWithinLimits(const Io& io, DoUndone doUndoneOfAll) {
    return m_limits.takeMember(m_path.entryPath().str(), settings().options) ||
           (doUndoneOfAll() && m_limits.fail(io));
  }

  enum class Choice {
    Extract,
    FilteredOut,
    Unwanted,      // by its kind: a directory where files go into an output
    Suppressed,    // members are not extracted in this run
    Skipped,       // by the event
    LimitReached,  // or a file of before ends the run; the log says which
  };
  // What a run is after: a look, files on the disk, data of files in an output.
  enum class Aim { Look, Extract, IntoOutput };
  // Filters, limits and events, in the order that applications know, as a step in its turn (inTurn). The
  // event may change the member; a path that it changes is path()'s from then on. A member that goes on from
  // another volume is told of with an event, which asks the log why: nothing may be held back then, nor where
  // a limit is told.
  template <class DoUndone>
  Choice choose(Member& member, Aim aim, const Io& io, DoUndone doUndoneOfAll) {
    if (member.isContinuation && !doUndoneOfAll()) return Choice::LimitReached;
    Choice choice = Choice::LimitReached;
    const auto chooses = [&](const Io& step) {
      choice = chooseAndNote(member, aim, step);
      return true;
    };
    if (!inTurn(io, chooses, doUndoneOfAll)) return Choice::LimitReached;
    if (choice == Choice::LimitReached && doUndoneOfAll()) m_limits.fail(io);
    return choice;
  }
  // Makes the member: its missing parents, its directory or its empty file. The reason of a NoPlace is in the
  // log or noted as the cause.
  Placed place(const Member& member, const Io& io);
  // Ends the member's file. `times` are for a run that restores nothing, and then alone. `isComplete` false
  // leaves a file that is not whole without what it would get. The file is closed in any case.
  FileEnd settle(const Member& member, _mvOutput& out, OutputFile& file, bool isComplete,
                 const MemberTimes& times, const Io& io);
  // Puts in front of an output what spreads the member's bytes, where it is sparse. `file` is the output
  // again where that is a file. Any other member's output is handed back as it is.
  static std::unique_ptr<_mvOutput> spreading(const Member& member, std::unique_ptr<_mvOutput> out,
                                              OutputFile* file);
  // The same for such an output of the caller's, behind the member's last byte. False, with the reason in the
  // log, when bytes of it are missing.
  [[nodiscard]] static bool finishSpreading(_mvOutput& out, const Io& io);
  // Takes note of how the member's file ended. False when that ends the run; the reason is in the log.
  [[nodiscard]] bool noteEnd(const FileEnd& end, const Io& io);

  // ---- Writing behind (the word Threads). A run that allows it asks before each member whether to wait,
  // does what workers could not do, and hands over what may be handed over.

  // Behind beginRun. It makes nothing yet: threads come with the work, and not at all with Threads=1.
  void beginBehind();
  // What is to become of the member that was set last.
  struct Turn {
    bool waits = false;     // for everything under way, before it is made
    bool isBehind = false;  // it may be handed over
  };
  // `origin` is where its data may be read later, if that is known.
  Turn turnOf(const Member& member, const Io& io, WriteBehind::Origin origin = {});
  // The file that such a member is, to be filled with its data and submitted; null where it is to be placed
  // as usual after all.
  WriteBehind::File* fileBehind(const Member& member, const Io& io, WriteBehind::Origin origin = {});
  // The file must be whole: its data in `data`, and nothing of them to come; or `size` bytes at its origin.
  void submitBehind(WriteBehind::File& file);
  bool writesBehind() const { return m_behind != nullptr; }
  // Does again, in their order, what workers could not do: of all that is under way, for which it waits, or
  // of what needs no waiting. `doAgain(file)` is the engine's, since messages are: it calls placeAgain and
  // says false for a failure that ends the run. Then nothing more is done again, and this is false too.
  template <class DoAgain>
  bool doUndone(bool waitsForAll, DoAgain doAgain) {
    const WriteBehind::File* file = m_behind ? m_behind->nextUndone(waitsForAll) : nullptr;
    if (!file) return true;
    // The member that the run is at is gone on with afterwards, also behind an exception. Its path is all of
    // it that doing others again changes.
    MemberPath current = std::exchange(m_path, MemberPath());
    const ScopeExit goBack([&] { m_path = std::move(current); });
    bool ok = true;
    while (file && ok) {
      ok = doAgain(*file);
      if (ok) file = m_behind->nextUndone(waitsForAll);
    }
    if (!ok) m_behind->dropAll();
    return ok;
  }
  // Does a step that reads the archive and makes nothing. What it says comes behind what files under way have
  // to say: where one of those ends the run, that is the failure, and nothing of the step is told.
  // `step(io)` and `doUndone()` are the engine's; false is a failure that ends the run.
  template <class Step, class DoUndone>
  bool inTurn(const Io& io, Step step, DoUndone doUndoneOfAll) {
    if (!m_behind || m_behind->isEmpty()) return step(io);
    HeldLog held;
    held.beginLike(io.log);
    bool ok = false;
    try {
      ok = step(Io(held, io.monitor, io.event));
    } catch (...) {
      // Nobody hears any more of what is under way.
      held.tellTo(io.log);
      throw;
    }
    if (held.isEmpty()) return ok;
    if (!doUndoneOfAll()) return false;
    held.tellTo(io.log);
    return ok;
  }
  // For a failure that was told before its turn, as what is said of a directory or link may be: where an
  // earlier file fails, that is the cause, and nothing more is to be said of the other. False then.
  template <class DoUndone>
  bool isFirstFailure(const Io& io, DoUndone doUndoneOfAll) {
    if (!m_behind || m_behind->isEmpty()) return true;
    const LogBase::Cause cause = io.log.cause();
    io.log.forgetCause();
    if (!doUndoneOfAll()) return false;
    putCauseBack(cause, io.log);
    return true;
  }
  // Places such a file in the ordinary way. The path is then its own.
  Placed placeAgain(const WriteBehind::File& file, const Io& io);
  // Puts its data there and ends it. The engines with steps and lines of their own do the same by themselves.
  FileEnd fillAgain(const WriteBehind::File& file, const Placed& placed, const Io& io);
  // The end: for a run that an exception ends, where nobody hears of what is done again, or behind doUndone.
  // No thread is left.
  void finishBehind();
  void finishBehindQuietly() noexcept;

  // Of the member that was set last; good until the next one.
  const MemberPath& path() const { return m_path; }
  MemberPath& path() { return m_path; }
  ExtractTarget& target() { return m_target; }

 private:
  const ReadSettings& settings() const { return m_live.now(); }
  // The steps of choose, in this order. All may run the application's callbacks, and so any of them may
  // throw. A limit is not told by them.
  Choice chooseAndNote(Member& member, Aim aim, const Io& io);
  // Again: by placeAgain.
  enum class Time { First, Again };
  Placed place(const Member& member, Time time, const Io& io);
  // For links, and what they ask.
  void noteMade(const std::string& path);
  LinkTable::Seen seenTarget(const std::string& target, bool isGiven);
  bool isMadeWithoutNote(const std::string& target);
  Choice chooseByRules(Member& member, Aim aim, const Io& io);
  bool isSkippedByEvent(const Member& member, Aim aim, const Io& io);
  Choice offerForChange(Member& member, Aim aim, const Io& io);
  bool isAllowedDepth();
  // Each kind of member; make() tells them apart.
  ExtractTarget::Outcome make(const Member& member, const Io& io, Placed& placed);
  ExtractTarget::Outcome makeFile(const Member& member, const Io& io, Placed& placed);
  unsigned modeToMake(const Member& member);
  ExtractTarget::Outcome makeDirectory(const Member& member, const Io& io);
  ExtractTarget::Outcome makeSymbolicLink(const Member& member, const Io& io);
  void settleNamed(const OsFile& made, const Member& member, const Io& io);
  ExtractTarget::Outcome makeHardLink(const Member& member, const Io& io, Placed& placed);
  ExtractTarget::Outcome makeSpecial(const Member& member, const Io& io);
  ExtractTarget::Outcome copyTarget(const Member& member, const std::string& target, const Io& io);
  // What the log forgot while something else was told in between.
  static void putCauseBack(LogBase::Cause cause, LogBase& log);
  // The parts of finish.
  void makeWaitingLinks(const Io& io);
  static void sayNoTarget(const char* message, const std::string& target, const Io& io);
  // False where it is left out.
  bool makeWaitingLink(const LinkTable::Waiting& link, const Io& io);
  Member memberLike(const std::string& target);
  void reportLeftOut(const char* refusal, const Io& io);
  void reportExisting(const Io& io);
  void finishTarget(const Io& io);
  // As the run began: what is restored of one member is restored of all.
  const KeptParts& restored() const { return m_restorer.parts(); }
  // By ExistingFiles=newer and the member's own time.
  bool isKeptAsNewer(const Member& member, const Io& io);
  // Whether the run does without a member of that outcome.
  bool goesOnWithout(ExtractTarget::Outcome outcome) const;
  // The first: whether the run as it is now allows it at all; the others, of one path or member, whether it
  // is plain enough. Paths are clean here.
  bool mayWriteBehind(const Io& io) const;
  bool mayGoBehind(const Member& member, const std::string& path, long long mostBytes);
  bool hasOnePath(const std::string& path) const;
  bool isInOwnDirectory(const std::string& path) const;
  // Directories that were made count as the run's own from here on, for settling and for files that go
  // behind.
  void noteNewParents();
  void noteOwnDirectory(const std::string& path);

  // The engine's own, and what it differs in.
  LiveSettings<ReadSettings>& m_live;
  // The settings change only in refresh(); references into them do not outlast that.
  const Manner m_manner;
  // Of the current member.
  MemberPath m_path;
  // Of the whole run: where members go, what they may use up, and what is owed to those that are there.
  ExtractTarget m_target;
  RunLimits m_limits;
  MetadataRestorer m_restorer;
  LinkTable m_links;
  std::unique_ptr<WriteBehind> m_behind;  // null: everything is written in its turn. Gone before m_target
  // Of the current member.
  TarMember m_shown;                                // as the event may change it
  bool m_isRenamed = false, m_linkIsGiven = false;  // the event changed its path / where it leads
  bool m_anyLeftOut = false;
};

}  // namespace morvane
