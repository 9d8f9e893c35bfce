// Paths here are members' paths below the target, after the path rules: two spellings of one path are two
// paths, which at worst leaves a link out.
#include "tar/place/LinkTable.h"

#include <utility>

namespace morvane {

void LinkTable::clear() {
  m_unmade.clear();
  m_renamed.clear();
  m_waiting.clear();
}

// Nearly every run skips nothing; then no name is hashed at all.
void LinkTable::noteMade(const std::string& path) {
  if (!m_unmade.empty()) m_unmade.erase(std::hash<std::string>()(path));
}

bool LinkTable::mayBeTarget(const std::string& path) const {
  return m_unmade.empty() || m_unmade.count(std::hash<std::string>()(path)) == 0;
}

// One step: a new name is not itself looked up, because it is a name on the disk and not one of the archive.
const std::string& LinkTable::nameNow(const std::string& path) const {
  const auto renamed = m_renamed.find(path);
  return renamed == m_renamed.end() ? path : renamed->second;
}

// Taken before they are made, so that what throws on the way leaves none of them to be made twice.
std::vector<LinkTable::Waiting> LinkTable::takeWaiting() { return std::exchange(m_waiting, {}); }

}  // namespace morvane
