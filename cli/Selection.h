// Which members a command is about: named by a MEMBER, passing --match, and no --exclude.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "runtime/text/XString.h"

namespace mvtar {

class Selection {
 public:
  Selection(const std::vector<std::string>& members, const std::vector<std::string>& matches,
            const std::vector<std::string>& excludes);

  // The path as it is in the archive. Notes which MEMBERs have been found.
  bool takes(std::string_view path);
  // MEMBERs that matched nothing so far.
  std::vector<std::string> unfound() const;

 private:
  struct Member {
    std::string given;
    std::string path;  // without a leading "./" and a slash at the end
    bool isPattern;
    bool found;
  };

  std::vector<Member> m_members;
  std::vector<std::string> m_matches;
  std::vector<std::string> m_excludes;
};

}  // namespace mvtar
