// Which members a command is about: named by a MEMBER, passing --match, and no --exclude.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "runtime/text/WildcardPattern.h"

namespace mvtar {

// How a path is compared: without a leading "./" and slashes at its end; "./" is ".". A part of what it is
// given.
std::string_view comparablePath(std::string_view path);

// All three lists may be empty: no MEMBER and no --match means every member. Patterns are the shell's, by the
// rules of fnmatch(3): "*" stands for anything, slashes included, "?" for any character, "[...]" for one of
// several, and a back slash takes the meaning from what follows. Case counts.
class Selection {
 public:
  // `onlyNamed`: no MEMBER at all means no member, as where names come from an empty list. `recurses`: what
  // is below a MEMBER is meant, too.
  Selection(const std::vector<std::string>& members, const std::vector<std::string>& matches,
            const std::vector<std::string>& excludes, bool onlyNamed = false, bool recurses = true);

  // The path as it is in the archive. Notes which MEMBERs have been found. In UTF-8, with or without a slash
  // at its end.
  bool takes(std::string_view path);
  // Whether --exclude leaves the path out, and with it all that may be below it.
  bool excludes(std::string_view path) const;
  // MEMBERs that matched nothing so far. Of use behind a run that saw the whole archive.
  std::vector<std::string> unfound() const;

 private:
  struct Pattern {
    std::string text;                // for fnmatch
    morvane::WildcardPattern stars;  // the same where no more than stars are special
    bool isStarsAlone;
    bool isForWholePath;  // it has a "/", and is not tried on single components

    bool matches(std::string_view path) const;
    // The path, or a directory above it.
    bool matchesUpToASlash(std::string_view path) const;
  };
  struct Member {
    // As it was typed, for the message.
    std::string given;
    std::string path;  // without a leading "./" and a slash at the end
    Pattern pattern;
    // Whether any path has matched it.
    bool found;
  };

  static Pattern patternOf(std::string_view text);
  // Each --match and --exclude as it is compared.
  static std::vector<Pattern> patternsOf(const std::vector<std::string>& given);
  // The path must be comparable: no "./" in front, no slash behind.
  static bool matches(std::string_view path, const Pattern& pattern);
  static bool anyMatches(std::string_view path, const std::vector<Pattern>& patterns);

  // Empty: every member is named, or none.
  const bool m_onlyNamed, m_recurses;
  std::vector<Member> m_members;
  std::vector<Pattern> m_matches;
  std::vector<Pattern> m_excludes;
};

}  // namespace mvtar
