// Which members a command is about. The rules are a person's, not the component's filters: names mean what is
// below them, patterns mean parts of a path, and a name that was asked for and not found is told.
#include "cli/Selection.h"

#include <fnmatch.h>

#include <algorithm>
#include <clocale>

namespace mvtar {

// "./a/" is a: what was typed, what a shell completed and what is stored are compared alike. Leading slashes
// stay, because "/a" and "a" are two paths. Something is always left of a path that was not empty.
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
  // Only here, and no earlier: a locale costs files to be read at start, and few command lines have such a
  // pattern.
  if (!isStarsAlone) setlocale(LC_CTYPE, "");
  return {std::string(text), morvane::WildcardPattern(text, true), isStarsAlone};
}

bool Selection::Pattern::matches(std::string_view path) const {
  if (isStarsAlone) return stars.matches(path);
  // No flags: a star goes over slashes, and a leading dot is a character like any other, as in other tars.
  return fnmatch(text.c_str(), std::string(path).c_str(), 0) == 0;
}

bool Selection::Pattern::matchesUpToASlash(std::string_view path) const {
  if (isStarsAlone) return stars.matchesUpToASlash(path);
  // FNM_LEADING_DIR (of GNU) lets the match end at any slash.
  return fnmatch(text.c_str(), std::string(path).c_str(), FNM_LEADING_DIR) == 0;
}

// Without a slash in what was typed a pattern may also begin behind one. One at the end is no part of it, but
// counts.
std::vector<Selection::PathPattern> Selection::patternsOf(const std::vector<std::string>& given) {
  std::vector<PathPattern> patterns;
  for (const std::string& text : given) {
    const std::string_view path = comparablePath(text);
    patterns.push_back({patternOf(path), std::nullopt});
    if (text.find('/') == std::string::npos) patterns.back().behindSlash = patternOf("*/" + text);
  }
  return patterns;
}

// A path never ends in a slash here, and so other tars leave nothing out by a pattern that does.
std::vector<std::string> Selection::withoutSlashAtEnd(std::vector<std::string> given) {
  const auto endsInSlash = [](const std::string& text) { return !text.empty() && text.back() == '/'; };
  given.erase(std::remove_if(given.begin(), given.end(), endsInSlash), given.end());
  return given;
}

// A match of a directory above takes everything below it, in --match and in --exclude.
bool Selection::anyMatches(std::string_view path, const std::vector<PathPattern>& patterns) {
  return std::any_of(patterns.begin(), patterns.end(), [path](const PathPattern& pattern) {
    return pattern.whole.matchesUpToASlash(path) ||
           (pattern.behindSlash && pattern.behindSlash->matchesUpToASlash(path));
  });
}

Selection::Selection(const std::vector<std::string>& members, const std::vector<std::string>& matches,
                     const std::vector<std::string>& excludes, bool onlyNamed, bool recurses)
    : m_onlyNamed(onlyNamed),
      m_recurses(recurses),
      m_matches(patternsOf(matches)),
      m_excludes(patternsOf(withoutSlashAtEnd(excludes))) {
  for (const std::string& member : members) {
    m_members.push_back({member, std::string(comparablePath(member))});
    const std::string& path = m_members.back().path;
    m_found.emplace(path, false);
    m_longest = std::max(m_longest, path.size());
    if (path.find_first_of("*?[\\") != std::string::npos) m_patterns.emplace_back(path, patternOf(path));
  }
}

// Lists may have very many names, which are looked up: the path's, and those of the directories above it.
// Only patterns are tried one by one. All of them, also behind one that matched, because each MEMBER wants to
// be found. Of a path of any length no more is looked at than a name can be.
bool Selection::isNamed(std::string_view path) {
  bool named = false;
  const auto lookUp = [&](std::string_view name) {
    m_key.assign(name);
    const auto found = m_found.find(m_key);
    if (found != m_found.end()) named = found->second = true;
  };
  // A path that is longer than every name is none of them.
  if (path.size() <= m_longest) lookUp(path);
  // Each directory above the path, from the outermost on.
  for (size_t slash = 0; m_recurses && slash < std::min(path.size(), m_longest + 1); ++slash) {
    if (path[slash] == '/' && slash > 0) lookUp(path.substr(0, slash));
  }
  // The root ends in its own slash, and is not above itself.
  if (m_recurses && path.size() > 1 && path.front() == '/') lookUp("/");
  // "." as a MEMBER is the directory that everything lies below.
  if (m_recurses) lookUp(".");
  for (const auto& [name, pattern] : m_patterns) {
    const bool hit = pattern.matches(path) || (m_recurses && pattern.matchesUpToASlash(path));
    if (hit) named = m_found[name] = true;
  }
  return named;
}

// Exclusion comes last and wins.
bool Selection::takes(std::string_view storedPath) {
  const std::string_view path = comparablePath(storedPath);
  const bool named = m_members.empty() ? !m_onlyNamed : isNamed(path);
  return named && (m_matches.empty() || anyMatches(path, m_matches)) && !anyMatches(path, m_excludes);
}

// For walks over the disk, which need not go into what is excluded.
bool Selection::excludes(std::string_view path) const { return anyMatches(comparablePath(path), m_excludes); }

// As they were typed.
std::vector<std::string> Selection::unfound() const {
  std::vector<std::string> names;
  for (const Member& member : m_members) {
    if (!m_found.at(member.path)) names.push_back(member.given);
  }
  return names;
}

}  // namespace mvtar
