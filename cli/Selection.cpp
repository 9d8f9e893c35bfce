// Which members a command is about. The rules are a person's, not the component's filters: names mean what is
// below them, patterns mean parts of a path, and a name that was asked for and not found is told.
#include "cli/Selection.h"

#include <fnmatch.h>

#include <algorithm>
#include <clocale>

namespace mvtar {

namespace {

// The root, "/", ends in its own slash.
bool isBelow(std::string_view path, const std::string& dir) {
  return !dir.empty() && path.size() > dir.size() && path.substr(0, dir.size()) == dir &&
         (path[dir.size()] == '/' || dir.back() == '/');
}

}  // namespace

// "./a/" is a. So that what was typed, what a shell completed and what is stored are compared alike. Leading
// slashes stay.
std::string_view comparablePath(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  while (path.size() > 2 && path.substr(0, 2) == "./") {
    path.remove_prefix(2);
    while (path.size() > 1 && path.front() == '/') path.remove_prefix(1);
  }
  return path;
}

// Most patterns have no more than stars, for which there is a matcher whose time does not grow with their
// number. The C library looks at the others, in the characters of the user's locale.
Selection::Pattern Selection::patternOf(std::string_view text) {
  const bool isStarsAlone = text.find_first_of("?[\\") == std::string_view::npos;
  if (!isStarsAlone) setlocale(LC_CTYPE, "");
  return {std::string(text), morvane::WildcardPattern(text, true), isStarsAlone,
          text.find('/') != std::string_view::npos};
}

bool Selection::Pattern::matches(std::string_view path) const {
  if (isStarsAlone) return stars.matches(path);
  return fnmatch(text.c_str(), std::string(path).c_str(), 0) == 0;
}

bool Selection::Pattern::matchesUpToASlash(std::string_view path) const {
  if (isStarsAlone) return stars.matchesUpToASlash(path);
  return fnmatch(text.c_str(), std::string(path).c_str(), FNM_LEADING_DIR) == 0;
}

std::vector<Selection::Pattern> Selection::patternsOf(const std::vector<std::string>& given) {
  std::vector<Pattern> patterns;
  for (const std::string& text : given) {
    patterns.push_back(patternOf(comparablePath(text)));
    // A slash at the end is no part of it, but means the whole path.
    patterns.back().isForWholePath = text.find('/') != std::string::npos;
  }
  return patterns;
}

// The path or a directory above it matches, or a single component does. A pattern with a slash is not tried
// on single parts, which have none.
bool Selection::matches(std::string_view path, const Pattern& pattern) {
  if (pattern.matchesUpToASlash(path)) return true;
  if (pattern.isForWholePath) return false;
  for (size_t start = 0; start < path.size();) {
    const size_t end = std::min(path.find('/', start), path.size());
    if (end > start && pattern.matches(path.substr(start, end - start))) return true;
    start = end + 1;
  }
  return false;
}

bool Selection::anyMatches(std::string_view path, const std::vector<Pattern>& patterns) {
  return std::any_of(patterns.begin(), patterns.end(),
                     [path](const Pattern& pattern) { return matches(path, pattern); });
}

Selection::Selection(const std::vector<std::string>& members, const std::vector<std::string>& matches,
                     const std::vector<std::string>& excludes, bool onlyNamed, bool recurses)
    : m_onlyNamed(onlyNamed),
      m_recurses(recurses),
      m_matches(patternsOf(matches)),
      m_excludes(patternsOf(excludes)) {
  for (const std::string& member : members) {
    const std::string_view path = comparablePath(member);
    m_members.push_back({member, std::string(path), patternOf(path), false});
  }
}

// Every MEMBER is tried, also behind one that matched, because each of them wants to be found. Exclusion
// comes last and wins.
bool Selection::takes(std::string_view storedPath) {
  const std::string_view path = comparablePath(storedPath);
  bool named = m_members.empty() && !m_onlyNamed;
  for (Member& member : m_members) {
    // A name that holds a star may also mean itself.
    const bool hit = path == member.path || member.pattern.matches(path) ||
                     (m_recurses && (member.path == "." || isBelow(path, member.path) ||
                                     member.pattern.matchesUpToASlash(path)));
    member.found = member.found || hit;
    named = named || hit;
  }
  return named && (m_matches.empty() || anyMatches(path, m_matches)) && !anyMatches(path, m_excludes);
}

// For walks over the disk, which need not go into what is excluded.
bool Selection::excludes(std::string_view path) const { return anyMatches(comparablePath(path), m_excludes); }

// As they were typed.
std::vector<std::string> Selection::unfound() const {
  std::vector<std::string> names;
  for (const Member& member : m_members) {
    if (!member.found) names.push_back(member.given);
  }
  return names;
}

}  // namespace mvtar
