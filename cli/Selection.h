// Which members a command is about: named by a MEMBER, passing --match, and no --exclude.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "runtime/text/WildcardPattern.h"

namespace mvtar {

// How a path is compared: without a leading "./" and slashes at its end; "./" is ".". A part of what it is
// given, and valid as long as that. Nothing is decoded or resolved.
std::string_view comparablePath(std::string_view path);

// All three lists may be empty: no MEMBER and no --match means every member. Patterns are the shell's, by the
// rules of fnmatch(3): "*" stands for anything, slashes included, "?" for any character, "[...]" for one of
// several, and a back slash takes the meaning from what follows. Case counts. It compares texts alone and
// knows neither archives nor files, so that reading and writing commands mean the same by a pattern. One
// command's, on one thread.
class Selection {
 public:
  // `onlyNamed`: no MEMBER at all means no member, as where names come from an empty list. `recurses`: what
  // is below a MEMBER is meant, too.
  Selection(const std::vector<std::string>& members, const std::vector<std::string>& matches,
            const std::vector<std::string>& excludes, bool onlyNamed = false, bool recurses = true);

  // The path as it is in the archive. Notes which MEMBERs have been found, also where an --exclude then
  // leaves the path out. In UTF-8, with or without a slash at its end.
  bool takes(std::string_view path);
  // Whether --exclude leaves the path out, and with it all that may be below it.
  bool excludes(std::string_view path) const;
  // MEMBERs that matched nothing so far. Of use behind a run that saw the whole archive.
  std::vector<std::string> unfound() const;

 private:
  // One text in both forms in which it may be tried; patternOf chooses.
  struct Pattern {
    std::string text;                // for fnmatch
    morvane::WildcardPattern stars;  // the same where no more than stars are special
    // Whether `stars` means the same as fnmatch would, in bounded time.
    bool isStarsAlone;

    // The whole path.
    bool matches(std::string_view path) const;
    // The path, or a directory above it.
    bool matchesUpToASlash(std::string_view path) const;
  };
  // A --match or --exclude. `behindSlash` is the same behind any slash: "*.o" also means "a/b.o". Nothing
  // where the text has a slash of its own.
  struct PathPattern {
    Pattern whole;
    std::optional<Pattern> behindSlash;
  };
  // A MEMBER of the command line, in both of its forms.
  struct Member {
    std::string given;  // as it was typed, for the message
    std::string path;   // as it is compared
  };

  // From texts as they were typed to what is compared. An --exclude with a slash at its end is dropped by the
  // last of these, as it matches nothing.
  static Pattern patternOf(std::string_view text);
  static std::vector<PathPattern> patternsOf(const std::vector<std::string>& given);
  static std::vector<std::string> withoutSlashAtEnd(std::vector<std::string> given);
  // Whether any of the patterns means the path or a directory above it. The path must be comparable.
  static bool anyMatches(std::string_view path, const std::vector<PathPattern>& patterns);
  // Whether a MEMBER means the path, each of which is then noted as found.
  bool isNamed(std::string_view path);

  // What the constructor was told.
  const bool m_onlyNamed, m_recurses;
  // In the order of the command line. Empty: every member is named, or none (m_onlyNamed).
  std::vector<Member> m_members;
  // Of each name as it is compared, whether any path has matched it; those that may be patterns, too, since a
  // name that holds a star may also mean itself.
  std::unordered_map<std::string, bool> m_found;
  // The names among them that may be patterns, to be tried one by one.
  std::vector<std::pair<std::string, Pattern>> m_patterns;
  // Of a path no beginning longer than this needs to be looked up.
  size_t m_longest = 0;  // name
  std::string m_key;     // what is looked up, kept for its memory
  // --match, of which one has to mean the path, and --exclude, of which none may.
  std::vector<PathPattern> m_matches;
  std::vector<PathPattern> m_excludes;
};

}  // namespace mvtar
