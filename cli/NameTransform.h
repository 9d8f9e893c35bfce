// --transform: names changed by sed's substitutions.
#pragma once

#include <regex.h>

#include <memory>
#include <string>
#include <vector>

namespace mvtar {

// "s/RE/TO/FLAGS", several joined by ";"; any character may stand in place of the slash. RE is a POSIX basic
// regular expression, an extended one with the flag "x". In TO, "&" and "\0" are what matched, "\1" to "\9"
// its groups, and "\L", "\U", "\l", "\u", "\E" change the case of what follows (letters of ASCII). Flags: "g"
// every match, a number that match and with "g" those behind it, "i" either case; "R", "S", "H" leave member
// names, texts of symbolic links or targets of hard links out, "r", "s", "h" take them in again.
class NameTransform {
 public:
  // What a text is, in the order of the letters of the flags.
  enum class Of { Name, SymbolicLink, HardLink };

  // Adds expressions behind those that are there. False, and `error` says why, for what makes no sense; the
  // object is then of no use for going on.
  bool add(const std::string& expressions, std::string& error);
  bool isEmpty() const { return m_steps.empty(); }
  // Whether any expression would be applied to such a text.
  bool concerns(Of what) const;
  // A text that is longer is no name any more and is not made longer still, because a few replacements that
  // double a text would fill all memory.
  static constexpr size_t kLongest = 64 * 1024;
  // Every expression in its turn, each on what the one before has made. Time is the C library's: an
  // expression of the user's own may take very long, and an interrupt ends the process then (Interrupt.h).
  // Throws std::bad_alloc.
  std::string apply(std::string text, Of what) const;

 private:
  // For regex_t, which has a function in place of a destructor.
  struct FreeRegex {
    void operator()(regex_t* regex) const;
  };
  // One expression, compiled; `to` is still the text that was typed, with its escapes.
  struct Step {
    std::unique_ptr<regex_t, FreeRegex> regex;
    std::string to;
    bool all = false;
    unsigned first = 1;  // the match it begins with
    bool of[3] = {true, true, true};
  };

  // Takes one expression from the text and moves `at` behind it.
  bool addOne(const std::string& expressions, size_t& at, std::string& error);
  static bool takeFlag(char flag, Step& step, int& regexFlags);
  // What one step makes of a text, and what is put in place of one match.
  static std::string substitute(const Step& step, const std::string& text);
  static void appendReplacement(const std::string& to, const char* subject, const regmatch_t* groups,
                                std::string& result);

  // In the order in which they were given.
  std::vector<Step> m_steps;
};

}  // namespace mvtar
