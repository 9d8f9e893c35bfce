#include "tar/place/LinkTable.h"

#include <utility>

namespace morvane {

void LinkTable::clear() {
  m_unmade.clear();
  m_renamed.clear();
  m_waiting.clear();
}

void LinkTable::noteMade(const std::string& path) {
  if (!m_unmade.empty()) m_unmade.erase(std::hash<std::string>()(path));
}

bool LinkTable::mayBeTarget(const std::string& path) const {
  return m_unmade.empty() || m_unmade.count(std::hash<std::string>()(path)) == 0;
}

const std::string& LinkTable::nameNow(const std::string& path) const {
  const auto renamed = m_renamed.find(path);
  return renamed == m_renamed.end() ? path : renamed->second;
}

std::vector<LinkTable::Waiting> LinkTable::takeWaiting() { return std::exchange(m_waiting, {}); }

}  // namespace morvane
