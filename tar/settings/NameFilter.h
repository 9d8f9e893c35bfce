// The two patterns that restrict what is archived and what is extracted.
#pragma once

#include <string>
#include <string_view>

#include "runtime/text/WildcardPattern.h"

namespace morvane {

// Whether a pattern is a plain name: not empty and free of "*", "/" and back slashes.
bool isPlainName(std::string_view pattern);

class NameFilter {
 public:
  struct Settings {
    std::string mustMatch;     // empty: every path passes
    std::string mustNotMatch;  // empty: none is left out
    bool caseSensitive = false;
    bool mustMatchExact = false;  // the pattern is a plain name and may match the last part of a path
    bool mustNotMatchExact = false;
  };

  NameFilter() = default;
  explicit NameFilter(Settings settings);

  // True if the path is to be left out. Paths are compared as given, slashes and case included.
  bool excludes(std::string_view path) const;

 private:
  bool finalPartEquals(std::string_view path, const std::string& name) const;

  Settings m_settings;
  WildcardPattern m_mustMatch;
  WildcardPattern m_mustNotMatch;
};

}  // namespace morvane
