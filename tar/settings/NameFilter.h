// The two patterns that restrict what is archived and what is extracted.
#pragma once

#include <string>
#include <string_view>

#include "runtime/text/WildcardPattern.h"

namespace morvane {

// Whether a pattern is a plain name: not empty and free of "*", "/" and back slashes. It may have rules of
// its own about the last part of a path; see the flags below.
bool isPlainName(std::string_view pattern);

// A value without a link to the component: a run takes one with its settings and keeps it. Asking it changes
// nothing. Several threads may ask one.
class NameFilter {
 public:
  // The properties as they are; an empty pattern is none.
  struct Settings {
    // "*" stands for anything, slashes included.
    std::string mustMatch;     // empty: every path passes
    std::string mustNotMatch;  // empty: none is left out
    // Otherwise letters are compared in lower case, beyond ASCII too.
    bool caseSensitive = false;
    // Set by whoever makes plain names ready, which not every method does.
    bool mustMatchExact = false;  // the pattern is a plain name and may match the last part of a path
    bool mustNotMatchExact = false;
  };

  NameFilter() = default;
  explicit NameFilter(Settings settings);

  // True if the path is to be left out. Paths are compared as given, slashes and case included. Writing asks
  // for the path on the disk, reading for the path after the path rules. Both patterns are asked of the whole
  // path; of its last part only plain names are.
  bool excludes(std::string_view path) const;
  // Whether there is a pattern at all.
  bool isSet() const { return !m_settings.mustMatch.empty() || !m_settings.mustNotMatch.empty(); }

 private:
  // Whether what is behind the last slash is the name, by a rule of case of its own (see the source).
  bool finalPartEquals(std::string_view path, const std::string& name) const;

  // The texts stay beside the patterns made of them, for the plain names' rule.
  Settings m_settings;
  // Meaningless where the text is empty.
  WildcardPattern m_mustMatch;
  WildcardPattern m_mustNotMatch;
};

}  // namespace morvane
