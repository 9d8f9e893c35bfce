// Permission bits as chmod takes them: a number, or changes such as "u+w,go-rwx".
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace mvtar {

// Parsed once, applied to each member.
class ModeChange {
 public:
  // Nothing for what makes no sense. Octal digits up to 7777; else clauses separated by commas, each with
  // letters of "ugoa" (none: all, less the umask), then "+", "-" or "=" with letters of "rwxXst" or one of
  // "ugo", any number of times.
  static std::optional<ModeChange> parse(const std::string& text);

  // The lower twelve bits of a member's mode, changed.
  unsigned apply(unsigned mode, bool isDirectory) const;

 private:
  struct Step {
    unsigned who = 0;  // whose bits are meant; 0: nobody was named
    char action = '=';
    unsigned bits = 0;       // as if they were everybody's
    bool runsIfRun = false;  // "X": x for directories, and for what somebody may run already
    unsigned from = 0;       // "g=u": the digit of this mask is copied to everybody
    // Of the set-id bits of a directory only these are changed, as people seldom mean them.
    unsigned ofDirectories = 0;
  };

  static bool parseClause(const std::string& clause, std::vector<Step>& steps);

  std::vector<Step> m_steps;
  unsigned m_umask = 0;
};

}  // namespace mvtar
