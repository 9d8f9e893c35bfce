// Matching whose cost no pattern and no name can blow up: patterns come from users, but names come from
// archives. A pattern of many stars is tried without going back: once a piece stands as far to the left as it
// can, no other place for it would leave more to those behind it.
#include "runtime/text/WildcardPattern.h"

#include <cstring>

#include "runtime/text/Utf8.h"

namespace morvane {

namespace {

constexpr size_t kNoMatch = static_cast<size_t>(-1);

}  // namespace

// Two stars side by side are one, so that no piece is empty. A pattern that is folded once need not be
// folded with each text.
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
  findTailBorders();
}

// The failure table of Knuth, Morris and Pratt: where to go on in the tail when the next byte does not fit.
void WildcardPattern::findTailBorders() {
  m_tailBorders.assign(m_tail.size() + 1, 0);
  for (size_t end = 1, border = 0; end < m_tail.size(); ++end) {
    while (border > 0 && m_tail[end] != m_tail[border]) border = m_tailBorders[border];
    if (m_tail[end] == m_tail[border]) ++border;
    m_tailBorders[end + 1] = border;
  }
}

// Folding takes a copy of the text; a case-sensitive pattern takes none.
bool WildcardPattern::matches(std::string_view text) const {
  return m_caseSensitive ? matchesFolded(text) : matchesFolded(foldCase(text));
}

// Folding leaves slashes where they are among the characters.
bool WildcardPattern::matchesUpToASlash(std::string_view path) const {
  return m_caseSensitive ? matchesFoldedUpToASlash(path) : matchesFoldedUpToASlash(foldCase(path));
}

// Head and tail must not overlap in the text: "ab*ba" does not match "aba".
bool WildcardPattern::matchesFolded(std::string_view text) const {
  if (!m_hasStar) return text == m_head;
  if (text.size() < m_head.size() + m_tail.size()) return false;
  // The tail has one possible place, at the end, so the pieces in between have to fit in front of it.
  const size_t rest = text.size() - m_tail.size();
  return text.substr(rest) == m_tail && behindLastPiece(text.substr(0, rest)) != kNoMatch;
}

// An empty pattern matches no directory, or it would match the one above all absolute paths. With a star at
// the end whatever follows is part of the match, and so the whole path is one.
bool WildcardPattern::matchesFoldedUpToASlash(std::string_view path) const {
  const auto endsAt = [path](size_t at) { return at == path.size() || path[at] == '/'; };
  if (!m_hasStar) return !m_head.empty() && path.substr(0, m_head.size()) == m_head && endsAt(m_head.size());
  size_t at = behindLastPiece(path);
  if (at == kNoMatch || m_tail.empty()) return at != kNoMatch;
  // The tail may stand in many places, one over another, and only one that ends a part counts: Knuth, Morris
  // and Pratt's way looks at each byte once, whatever an archive's names are like. How much of the tail's
  // beginning ends here.
  size_t matched = 0;
  for (; at < path.size(); ++at) {
    while (matched > 0 && (matched == m_tail.size() || path[at] != m_tail[matched]))
      matched = m_tailBorders[matched];
    if (path[at] == m_tail[matched]) ++matched;
    if (matched == m_tail.size() && endsAt(at + 1)) return true;
  }
  return false;
}

// Where the text goes on behind the pieces up to the last star, each found as far to the left as it goes.
size_t WildcardPattern::behindLastPiece(std::string_view text) const {
  if (text.substr(0, m_head.size()) != m_head) return kNoMatch;
  const char* from = text.data() + m_head.size();
  const char* const end = text.data() + text.size();
  for (const std::string& piece : m_middle) {
    // memmem is linear whatever the piece; std::string_view::find may take the product of both lengths.
    const void* const found = ::memmem(from, static_cast<size_t>(end - from), piece.data(), piece.size());
    if (!found) return kNoMatch;
    from = static_cast<const char*>(found) + piece.size();
  }
  return static_cast<size_t>(from - text.data());
}

}  // namespace morvane
