// What becomes of a path on the command line on its way into an archive. It is text alone: "a/../b" is not
// resolved, because a link may stand for a; what is in front of a ".." is left off instead, as other tars do.
#include "cli/ArchiveName.h"

#include <algorithm>
#include <vector>

namespace mvtar {

// Parts are gathered from left to right, and a ".." throws away what was gathered. What is removed is told as
// the path's own text up to there, so that the notice names what the person typed.
ArchiveName archiveNameOf(const std::string& path, bool keep) {
  const bool absolute = !path.empty() && path[0] == '/';
  std::vector<std::string> parts;
  ArchiveName result;
  for (size_t start = 0; start < path.size();) {
    const size_t end = std::min(path.find('/', start), path.size());
    const std::string part = path.substr(start, end - start);
    start = end + 1;
    // Doubled slashes and "." parts mean nothing to the system; without them one path has one name.
    if (part.empty() || part == ".") continue;
    if (part == ".." && !keep) {
      parts.clear();
      result.removed = path.substr(0, std::min(start, path.size()));
      continue;
    }
    // With `keep` a ".." is a part like any other, and stays where it stands.
    parts.push_back(part);
  }
  // A ".." that was removed took the leading slashes along already.
  if (absolute && result.removed.empty() && !keep) result.removed = "/";
  for (const std::string& part : parts) result.name = joinNames(result.name, part);
  if (absolute && keep) result.name = "/" + result.name;
  return result;
}

// Never two slashes.
std::string joinNames(const std::string& prefix, const std::string& name) {
  if (prefix.empty() || name.empty()) return prefix + name;
  return prefix.back() == '/' ? prefix + name : prefix + "/" + name;
}

}  // namespace mvtar
