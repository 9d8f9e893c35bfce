// Paths here are members' paths below the target, after the path rules: two spellings of one path are two
// paths, which at worst leaves a link out.
#include "tar/place/LinkTable.h"

#include <algorithm>
#include <utility>

#include "tar/format/EntryPath.h"

namespace morvane {

namespace {

size_t hashOf(const std::string& path) { return std::hash<std::string>()(cleanPath(path)); }

}  // namespace

void LinkTable::noteUnmade(const std::string& path) { m_unmade.insert(hashOf(path)); }

void LinkTable::noteRenamed(const std::string& from, const std::string& to) {
  m_renamed[cleanPath(from)] = to;
}

void LinkTable::forgetRenamed(const std::string& path) {
  if (!m_renamed.empty()) m_renamed.erase(cleanPath(path));
}

void LinkTable::clear() {
  m_unmade.clear();
  m_renamed.clear();
  m_waiting.clear();
}

// Nearly every run skips nothing; then no name is hashed at all.
void LinkTable::noteMade(const std::string& path) {
  if (!m_unmade.empty()) m_unmade.erase(hashOf(path));
}

void LinkTable::replaceWaiting(const std::string& path) {
  if (m_waiting.empty()) return;
  const std::string made = cleanPath(path);
  const auto isReplaced = [&made](const Waiting& link) { return cleanPath(link.path) == made; };
  m_waiting.erase(std::remove_if(m_waiting.begin(), m_waiting.end(), isReplaced), m_waiting.end());
}

bool LinkTable::mayBeTarget(const std::string& path) const {
  return m_unmade.empty() || m_unmade.count(hashOf(path)) == 0;
}

// One step: a new name is not itself looked up, because it is a name on the disk and not one of the archive.
const std::string& LinkTable::nameNow(const std::string& path) const {
  if (m_renamed.empty()) return path;
  const auto renamed = m_renamed.find(cleanPath(path));
  return renamed == m_renamed.end() ? path : renamed->second;
}

// Taken before they are made, so that what throws on the way leaves none of them to be made twice.
std::vector<LinkTable::Waiting> LinkTable::takeWaiting() { return std::exchange(m_waiting, {}); }

}  // namespace morvane
