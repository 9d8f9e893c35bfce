// Permission bits as chmod takes them: a number, or changes such as "u+w,go-rwx".
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace mvtar {

// Parsed once, applied to each member. A value; applying changes nothing. It goes by numbers alone and
// touches no file.
class ModeChange {
 public:
  // Nothing for what makes no sense. Octal digits up to 7777; else clauses separated by commas, each with
  // letters of "ugoa" (none: all, less the umask), then "+", "-" or "=" with letters of "rwxXst" or one of
  // "ugo", any number of times. The umask is taken as it is now. To ask for it sets it for a moment, so that
  // no other thread may make files meanwhile.
  static std::optional<ModeChange> parse(const std::string& text);

  // The lower twelve bits of a member's mode, changed. Clauses count in their order, each from what the one
  // before has left.
  unsigned apply(unsigned mode, bool isDirectory) const;

 private:
  // One action of one clause; a number is a single step of its own.
  struct Step {
    unsigned who = 0;  // whose bits are meant; 0: nobody was named
    // One of "+", "-" and "=".
    char action = '=';
    unsigned bits = 0;       // as if they were everybody's
    bool runsIfRun = false;  // "X": x for directories, and for what somebody may run already
    unsigned from = 0;       // "g=u": the digit of this mask is copied to everybody
    // Of the set-id bits of a directory only these are changed, as people seldom mean them.
    unsigned ofDirectories = 0;
  };

  // Adds the steps of one clause; false for what makes no sense.
  static bool parseClause(const std::string& clause, std::vector<Step>& steps);

  // In the order of the text; never empty behind parse.
  std::vector<Step> m_steps;
  // Only where a text of letters was parsed; a number leaves it at 0.
  unsigned m_umask = 0;
};

}  // namespace mvtar
