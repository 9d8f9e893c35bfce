// The two patterns that restrict what is archived and what is extracted.
#pragma once

#include <string>
#include <string_view>

#include "runtime/text/WildcardPattern.h"

namespace morvane {

// Whether a pattern is a plain name: not empty and free of "*", "/" and back slashes.
bool isPlainName(std::string_view pattern);

// A value without a link to the component: a run takes one with its settings and keeps it. Asking it changes
// nothing.
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
  // for the path on the disk, reading for the path after the path rules.
  bool excludes(std::string_view path) const;
  // Whether there is a pattern at all.
  bool isSet() const { return !m_settings.mustMatch.empty() || !m_settings.mustNotMatch.empty(); }

 private:
  bool finalPartEquals(std::string_view path, const std::string& name) const;

  Settings m_settings;
  WildcardPattern m_mustMatch;
  WildcardPattern m_mustNotMatch;
};

}  // namespace morvane
