// A whole-text wildcard pattern. Only "*" is special: it stands for any run of characters, none and "/"
// included.
//
// The pattern is cut at its stars once. Matching then looks for the pieces in order, each as far to the left
// as it goes, so its cost grows with the text's length alone, however many stars there are.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "runtime/base/Export.h"

namespace morvane {

// A value; asking it changes nothing, so that several threads may. There is no way to write a star that
// means itself. For names of members, which are hostile, and patterns of users, which may be long.
class MORVANE_API WildcardPattern {
 public:
  WildcardPattern() : WildcardPattern("", true) {}
  // Without regard to case, both sides are folded by foldCase, beyond ASCII too. The pattern's bytes need not
  // be UTF-8.
  WildcardPattern(std::string_view pattern, bool caseSensitive);

  // An empty pattern matches empty text alone.
  bool matches(std::string_view text) const;
  // Whether a path or any directory above it matches: the text up to one of its slashes, or all of it. In
  // time that grows with the path's length, as above.
  bool matchesUpToASlash(std::string_view path) const;

 private:
  // What the public two do with text that has been folded if it has to be.
  bool matchesFolded(std::string_view text) const;
  bool matchesFoldedUpToASlash(std::string_view path) const;
  // Where the text goes on behind head and middle; the largest number when these do not match.
  size_t behindLastPiece(std::string_view text) const;
  // Once, when the pattern is made.
  void findTailBorders();

  bool m_caseSensitive;
  bool m_hasStar = false;
  std::string m_head;  // before the first star, or the whole pattern when it has none
  std::vector<std::string> m_middle;
  std::string m_tail;  // after the last star
  // For each beginning of the tail, the length of the longest shorter one that it ends with.
  std::vector<size_t> m_tailBorders;
};

}  // namespace morvane
