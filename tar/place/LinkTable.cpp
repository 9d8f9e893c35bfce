// Paths here are members' paths below the target, after the path rules. Each is brought into one form
// (cleanPath) before it is compared, so that "./a" and "a" are one name; a ".." part stays, and two paths
// that differ by one are two names, which at worst leaves a link out.
#include "tar/place/LinkTable.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "tar/format/EntryPath.h"

namespace morvane {

namespace {

constexpr uint64_t kMadeBit = 1;

// Where the hash is, or would be; there is always a free place.
size_t placeOf(const std::vector<uint64_t>& table, uint64_t hash) {
  const size_t mask = table.size() - 1;  // the size is a power of two
  // The two lowest bits say nothing of the path.
  size_t at = (hash >> 2) & mask;
  while (table[at] != 0 && (table[at] & ~kMadeBit) != hash) at = (at + 1) & mask;
  return at;
}

}  // namespace

// A false hit, once in many billions, leaves a link out, and that is said; or links to a file of before. The
// lowest bit is free for the mark, and the one above it is always set, so that no entry looks like a free
// place.
uint64_t LinkTable::keyOf(const std::string& path, About about) {
  constexpr uint64_t kNotFree = 2;
  // Bits in the middle: the low ones choose the place.
  constexpr unsigned kShift = 40;
  const uint64_t hash = std::hash<std::string>()(cleanPath(path)) ^ static_cast<uint64_t>(about) << kShift;
  return (hash & ~kMadeBit) | kNotFree;
}

// A later note of the same kind takes the entry over. The table is three quarters full at most, which keeps
// searches short and ends them at a free place.
void LinkTable::note(const std::string& path, About about, Seen seen) {
  if (m_seenCount + m_seenCount / 3 >= m_seen.size()) grow();
  m_noted |= maskOf(about);
  const uint64_t key = keyOf(path, about);
  uint64_t& place = m_seen[placeOf(m_seen, key)];
  m_seenCount += place == 0;
  place = key | (seen == Seen::Made ? kMadeBit : 0);
}

LinkTable::Seen LinkTable::find(const std::string& path, About about) const {
  // Most runs have notes of one kind, or of none.
  if ((m_noted & maskOf(about)) == 0) return Seen::Nothing;
  const uint64_t found = m_seen[placeOf(m_seen, keyOf(path, about))];
  return found == 0 ? Seen::Nothing : (found & kMadeBit) != 0 ? Seen::Made : Seen::Unmade;
}

// Only what was noted, because an entry less is room for another.
void LinkTable::takeBack(const std::string& path, About about) {
  if (find(path, about) == Seen::Unmade) note(path, about, Seen::Made);
}

// Every entry is placed anew, as its place depends on the size. That needs no names: what is kept of one is
// its hash.
void LinkTable::grow() {
  constexpr size_t kFirst = 64;
  std::vector<uint64_t> larger(std::max(m_seen.size() * 2, kFirst));
  for (const uint64_t each : m_seen) {
    if (each != 0) larger[placeOf(larger, each & ~kMadeBit)] = each;
  }
  m_seen = std::move(larger);
}

// A link that waits is not there yet, whatever an earlier member of its name was; so a link to it has to wait
// as well.
LinkTable::Seen LinkTable::seen(const std::string& path) const {
  return waits(path) ? Seen::Nothing : find(path, About::Disk);
}

void LinkTable::noteRenamed(const std::string& stored, const std::string& to) {
  takeBack(stored, About::Choice);
  m_renamed[cleanPath(stored)] = to;
  note(to, About::Name, Seen::Unmade);
}

void LinkTable::noteKeptName(const std::string& stored) {
  takeBack(stored, About::Choice);
  takeBack(stored, About::Name);
  if (!m_renamed.empty()) m_renamed.erase(cleanPath(stored));
}

bool LinkTable::isUnchosen(const std::string& stored) const {
  return find(stored, About::Choice) == Seen::Unmade;
}

bool LinkTable::isAnothers(const std::string& stored) const {
  return find(stored, About::Name) == Seen::Unmade && m_renamed.count(cleanPath(stored)) == 0;
}

void LinkTable::clear() {
  m_seen.clear();
  m_seenCount = 0;
  m_noted = 0;
  m_renamed.clear();
  m_waiting.clear();
  m_waitingAt.clear();
}

// Its place in the list stays and has no path from then on, because the numbers in m_waitingAt must go on to
// be right.
void LinkTable::replaceWaiting(const std::string& path) {
  if (m_waitingAt.empty()) return;
  const auto found = m_waitingAt.find(cleanPath(path));
  if (found == m_waitingAt.end()) return;
  m_waiting[found->second].path.clear();
  m_waitingAt.erase(found);
}

bool LinkTable::waits(const std::string& path) const {
  return !m_waitingAt.empty() && m_waitingAt.count(cleanPath(path)) > 0;
}

// The one of that name that came before has given way.
void LinkTable::waitFor(Waiting link) {
  m_waitingAt[cleanPath(link.path)] = m_waiting.size();
  m_waiting.push_back(std::move(link));
}

// One step: a new name is not itself looked up, because it is a name on the disk and not one of the archive.
const std::string& LinkTable::nameNow(const std::string& stored) const {
  if (m_renamed.empty()) return stored;
  const auto renamed = m_renamed.find(cleanPath(stored));
  return renamed == m_renamed.end() ? stored : renamed->second;
}

// Taken before they are made, so that what throws on the way leaves none of them to be made twice. Each waits
// for one other at most. From each the way is followed to the one that waits for none of them, and taken
// back; in a ring it ends where it began. Every link is passed twice, however the archive has them.
std::vector<LinkTable::Waiting> LinkTable::takeWaiting() {
  const auto at = std::exchange(m_waitingAt, {});
  std::vector<Waiting> waiting = std::exchange(m_waiting, {}), taken;
  std::vector<bool> isSeen(waiting.size());
  std::vector<size_t> way;
  for (size_t first = 0; first < waiting.size(); ++first) {
    for (size_t i = first; i < waiting.size() && !isSeen[i] && !waiting[i].path.empty();) {
      isSeen[i] = true;
      way.push_back(i);
      // By the name that the target has now: the event may have renamed it behind the link.
      const auto next = at.find(cleanPath(targetNow(waiting[i])));
      i = next == at.end() ? waiting.size() : next->second;
    }
    for (; !way.empty(); way.pop_back()) taken.push_back(std::move(waiting[way.back()]));
  }
  return taken;
}

}  // namespace morvane
