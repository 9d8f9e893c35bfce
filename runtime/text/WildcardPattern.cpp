#include "runtime/text/WildcardPattern.h"

#include <cstring>

#include "runtime/text/Utf8.h"

namespace morvane {

WildcardPattern::WildcardPattern(std::string_view pattern, bool caseSensitive)
    : m_caseSensitive(caseSensitive) {
  const std::string text = caseSensitive ? std::string(pattern) : foldCase(pattern);
  const size_t firstStar = text.find('*');
  m_head = text.substr(0, firstStar);
  if (firstStar == std::string::npos) return;
  m_hasStar = true;
  const size_t lastStar = text.rfind('*');
  m_tail = text.substr(lastStar + 1);
  for (size_t start = firstStar + 1; start < lastStar;) {
    const size_t end = text.find('*', start);
    if (end > start) m_middle.push_back(text.substr(start, end - start));
    start = end + 1;
  }
}

bool WildcardPattern::matches(std::string_view text) const {
  return m_caseSensitive ? matchesFolded(text) : matchesFolded(foldCase(text));
}

bool WildcardPattern::matchesFolded(std::string_view text) const {
  if (!m_hasStar) return text == m_head;
  if (text.size() < m_head.size() + m_tail.size()) return false;
  if (text.compare(0, m_head.size(), m_head) != 0) return false;
  if (text.compare(text.size() - m_tail.size(), m_tail.size(), m_tail) != 0) return false;
  const char* from = text.data() + m_head.size();
  const char* const end = text.data() + text.size() - m_tail.size();
  for (const std::string& piece : m_middle) {
    // memmem is linear whatever the piece; std::string_view::find may take the product of both lengths.
    const void* found = ::memmem(from, static_cast<size_t>(end - from), piece.data(), piece.size());
    if (!found) return false;
    from = static_cast<const char*>(found) + piece.size();
  }
  return true;
}

}  // namespace morvane
