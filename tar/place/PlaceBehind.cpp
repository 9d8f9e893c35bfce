// The placer's part in writing behind: which members are handed over, and what has to be waited for.
#include <climits>

#include "tar/format/EntryPath.h"
#include "tar/place/MemberPlacer.h"

namespace morvane {

// Only on the confined way, where everything is made exclusively, and only where nobody counts or follows the
// single steps: a verbose log, UntarMaxCount.
void MemberPlacer::beginBehind(const Io& io) {
  m_behind.reset();
  const ReadSettings& now = settings();
  const long long threads = now.options.codec.threads;
  const unsigned workers = threads == 1 ? 0 : workerCount(threads);
  const bool mayWrite = workers > 0 && restored().any() && now.options.existing == ExistingFiles::Replace &&
                        !io.log.verbose() && !now.untarDebugLog && now.untarMaxCount == 0 &&
                        !now.untarDiscardPaths;
  if (mayWrite) m_behind = std::make_unique<WriteBehind>(workers);
}

// A link may lead to what is under way, or stand in the way of it; so may a file that is made in its turn.
// Directories and symbolic links are met by path alone.
bool MemberPlacer::hasToWait(const Member& member) {
  if (!m_behind || m_behind->isEmpty()) return false;
  const std::string path = cleanPath(m_path.entryPath().str());
  if (m_target.isElsewhere(m_path) || m_behind->meets(path)) return true;
  if (member.isDirectory) return false;
  if (member.isSymbolicLink() && restored().link) return m_behind->isOwnDirectory(path);
  return !mayGoBehind(member, path);
}

// An ordinary file of little data, in a directory of the run's own. Nothing is asked of the disk.
bool MemberPlacer::mayGoBehind(const Member& member, const std::string& path) {
  const bool isFile = member.typeFlag == kTypeRegular || member.typeFlag == kTypeOldRegular;
  if (!isFile || member.isDirectory || member.size > WriteBehind::kMostBytes || member.sparse.isSparse() ||
      member.sparseIsWrong)
    return false;
  if (path != m_path.entryPath().str() || path.size() >= PATH_MAX || m_behind->isOwnDirectory(path))
    return false;
  const size_t slash = path.rfind('/');
  return m_behind->isOwnDirectory(slash == std::string::npos ? "" : path.substr(0, slash));
}

// What the restorer has more to do with than owner, mode and times is made in its turn.
WriteBehind::File* MemberPlacer::fileBehind(const Member& member) {
  const std::string& path = m_path.entryPath().str();
  ConfinedDir* const target = m_target.confined();
  if (!m_behind || !target || m_target.isElsewhere(m_path) || !mayGoBehind(member, path) ||
      !target->mayBeMade(path))
    return nullptr;
  WriteBehind::File& file = m_behind->next();
  file.mode = m_restorer.modeToMake(member, m_target.handsOnGroup());
  if (!m_restorer.plan(member, file.settlement)) return nullptr;
  file.target = target;
  file.path = path;
  file.member = member;
  file.data.clear();
  return &file;
}

// As if it had been made: a failure takes that back.
void MemberPlacer::submitBehind() {
  if (restored().link) {
    const std::string& path = m_path.entryPath().str();
    m_links.replaceWaiting(path);
    m_links.noteMade(path);
    if (!m_isRenamed) m_links.forgetRenamed(path);
  }
  m_behind->submit();
}

Placed MemberPlacer::placeAgain(const WriteBehind::File& file, const Io& io) {
  m_path.rename(file.path, settings());
  m_isRenamed = true;  // what became of its stored name was noted in its turn
  return place(file.member, io);
}

// The target itself counts as the run's own while there is nothing in it.
void MemberPlacer::noteOwnDirectory(const ConfinedDir::MadeDirectory& made) {
  if (m_behind && made.isNew && made.isKnown) m_behind->noteOwnDirectory(cleanPath(m_path.entryPath().str()));
}

}  // namespace morvane
