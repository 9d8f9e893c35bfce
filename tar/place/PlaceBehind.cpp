// The placer's part in writing behind: which members are handed over, and what has to be waited for.
#include <algorithm>
#include <climits>
#include <utility>

#include "runtime/log/LogNull.h"
#include "tar/format/EntryPath.h"
#include "tar/place/MemberPlacer.h"

namespace morvane {

// Only on the confined way, where everything is made exclusively. Whether the target was empty can only be
// seen when it is opened: that is asked for files at its top that go behind, and for hard links.
void MemberPlacer::beginBehind() {
  m_behind.reset();
  unsigned workers = restored().any() ? workerCount(settings().options.codec.threads) : 0;
  // Each has a file open, and the next that the run itself needs must be had.
  if (workers > 0) workers = std::min(workers, filesToSpare());
  if (workers > 0) m_behind = std::make_unique<WriteBehind>(workers);
  m_target.noteWhetherEmpty(m_behind || restored().link);
}

// Only where nobody counts or follows the single steps: a verbose log, UntarMaxCount. As the properties are
// now: a callback may have set any. Words stay as they were when the method began.
bool MemberPlacer::mayWriteBehind(const Io& io) const {
  const ReadSettings& now = settings();
  return m_behind && now.options.existing == ExistingFiles::Replace && !io.log.verbose() &&
         !now.untarDebugLog && now.untarMaxCount == 0 && !now.untarDiscardPaths;
}

// What is made in its turn may lead to what is under way, or stand in the way of it. Directories and symbolic
// links do so by path alone, where they have no other.
MemberPlacer::Turn MemberPlacer::turnOf(const Member& member, const Io& io, WriteBehind::Origin origin) {
  Turn turn;
  if (!m_behind) return turn;
  // Without anything under way there is nothing to be met, and most of what follows is spared.
  const bool isAnyUnderWay = !m_behind->isEmpty();
  if (!mayWriteBehind(io) || m_target.isElsewhere(m_path)) {
    turn.waits = isAnyUnderWay;
    return turn;
  }
  const std::string path = cleanPath(m_path.entryPath().str());
  turn.isBehind = mayGoBehind(member, path, origin.file ? WriteBehind::kMostUnread : WriteBehind::kMostBytes);
  if (!isAnyUnderWay) return turn;
  // A link in place of one of the run's own directories changes the way to files under way: it is no matter
  // of its path alone.
  const bool isLink = member.isSymbolicLink() && restored().link;
  const bool isLinkElsewhere = isLink && !m_behind->isOwnDirectory(path) && !m_behind->hasForgotten();
  const bool meetsByPathAlone = member.isDirectory || isLinkElsewhere;
  const bool isMetByPath = turn.isBehind || (meetsByPathAlone && hasOnePath(path));
  turn.waits = !isMetByPath || m_behind->meets(path);
  return turn;
}

// Only in the target itself or in a directory of the run's own: on the way through any other there may be a
// link, of before the run or one that an archive can turn elsewhere later.
bool MemberPlacer::hasOnePath(const std::string& path) const {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos || m_behind->isOwnDirectory(path.substr(0, slash));
}

// The target is the run's own where there was nothing in it. Noted when it was opened, so that files at its
// top may go behind as well; in one that had something a name might be taken, which only the ordinary way
// clears.
bool MemberPlacer::isInOwnDirectory(const std::string& path) const {
  const bool isInTarget = path.find('/') == std::string::npos;
  return isInTarget ? m_target.wasEmpty() : hasOnePath(path);
}

// An ordinary file, not too large, in a directory of the run's own. Nothing is asked of the disk. What would
// fail by its name alone is left to its turn, and so is what the restorer has more to do with than owner,
// mode and times.
bool MemberPlacer::mayGoBehind(const Member& member, const std::string& path, long long mostBytes) {
  // A name of the system has 255 bytes at most (NAME_MAX); owners' names are kept with each file under way,
  // so that long ones would add up.
  constexpr size_t kLongestName = 255, kLongestOwner = 1024;
  const bool isFile = member.typeFlag == kTypeRegular || member.typeFlag == kTypeOldRegular;
  const bool isPlain = isFile && !member.isDirectory && member.size <= mostBytes &&
                       !member.sparse.isSparse() && !member.sparseIsWrong;
  if (!isPlain || member.userName.size() > kLongestOwner || member.groupName.size() > kLongestOwner)
    return false;
  const size_t slash = path.rfind('/');
  const size_t leaf = slash == std::string::npos ? 0 : slash + 1;
  // The member's own spelling is kept, too, and may be far longer: slashes without end.
  const size_t longest = std::max<size_t>(path.size(), m_path.entryPath().getSizeUtf8());
  if (path.empty() || path.size() - leaf > kLongestName || longest >= PATH_MAX) return false;
  return isInOwnDirectory(path) && !m_behind->isOwnDirectory(path) && m_restorer.isPlain(member);
}

// Everything that a worker needs is worked out here, because nothing of the run may be asked by another
// thread: mode, owner, times, and copies of the texts with which it may have to be done again.
WriteBehind::File* MemberPlacer::fileBehind(const Member& member, const Io& io, WriteBehind::Origin origin) {
  const std::string& entryPath = m_path.entryPath().str();
  ConfinedDir* const target = m_target.confined();
  // A callback may have changed the properties while earlier files were told of.
  const bool mayBeMade = target && target->createsAtOnce() && target->mayBeMade(entryPath);
  if (!mayBeMade || !mayWriteBehind(io)) return nullptr;
  const auto size = static_cast<unsigned>(member.size);  // a few MiB at most: mayGoBehind has seen to it
  WriteBehind::File& file = m_behind->next(*target, cleanPath(entryPath), size, origin);
  file.mode = modeToMake(member);
  file.settlement = m_restorer.plan(member);
  file.entryPath = entryPath;
  file.targetDir = m_path.targetDir();
  file.member.copyPlain(member);
  return &file;
}

// As if it had been made: a failure takes that back.
void MemberPlacer::submitBehind(WriteBehind::File& file) {
  if (restored().link) {
    const std::string& path = m_path.entryPath().str();
    // The steps that place() takes for a file that was made.
    m_links.replaceWaiting(path);
    noteMade(path);
    if (!m_isRenamed) m_links.noteKeptName(path);
  }
  m_behind->submit(file);
}

// The target directory is the one of its own turn: a callback may have chosen another since.
Placed MemberPlacer::placeAgain(const WriteBehind::File& file, const Io& io) {
  m_path = MemberPath(file.targetDir);
  m_path.setAgain(file.entryPath);
  return place(file.member, Time::Again, io);
}

// Without a monitor: progress was told as the data came. Times are the restorer's to set: files are handed
// over only where something is restored.
FileEnd MemberPlacer::fillAgain(const WriteBehind::File& file, const Placed& placed, const Io& io) {
  const bool isWritten = file.writeTo(*placed.out, io.log);
  return settle(file.member, *placed.out, *placed.file, isWritten, {}, io);
}

// What was chosen before is made. Failures have nobody to be told to, and the next file is done all the same.
// The workers are joined by the destructor.
void MemberPlacer::finishBehind() {
  LogNull unwanted;
  const Io quiet(unwanted);
  doUndone(true, [&](const WriteBehind::File& file) {
    const Placed placed = placeAgain(file, quiet);
    if (!placed.file) return true;
    fillAgain(file, placed, quiet);
    return true;
  });
  m_behind.reset();
}

void MemberPlacer::finishBehindQuietly() noexcept {
  try {
    finishBehind();
  } catch (...) {  // out of memory: what is not done is left so
    m_behind.reset();
  }
}

// Directories that were made on the way to the member are the run's own as well as those that are members.
void MemberPlacer::noteNewParents() {
  if (!restored().any() || !m_target.confined()) return;
  const std::vector<ConfinedDir::NewParent> parents = m_target.confined()->takeNewParents();
  m_restorer.noteParents(parents);
  for (const ConfinedDir::NewParent& parent : parents) noteOwnDirectory(parent.path);
}

// A directory that is reached through a link is none of the run's own: its path may lead elsewhere later.
void MemberPlacer::noteOwnDirectory(const std::string& path) {
  if (m_behind && !path.empty() && hasOnePath(path)) m_behind->noteOwnDirectory(path);
}

}  // namespace morvane
