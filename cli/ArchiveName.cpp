#include "cli/ArchiveName.h"

#include <algorithm>
#include <vector>

namespace mvtar {

ArchiveName archiveNameOf(const std::string& path, bool keep) {
  const bool absolute = !path.empty() && path[0] == '/';
  std::vector<std::string> parts;
  ArchiveName result;
  for (size_t start = 0; start < path.size();) {
    const size_t end = std::min(path.find('/', start), path.size());
    const std::string part = path.substr(start, end - start);
    start = end + 1;
    if (part.empty() || part == ".") continue;
    if (part == ".." && !keep) {
      parts.clear();
      result.removed = path.substr(0, std::min(start, path.size()));
      continue;
    }
    parts.push_back(part);
  }
  if (absolute && result.removed.empty() && !keep) result.removed = "/";
  for (const std::string& part : parts) result.name = joinNames(result.name, part);
  if (absolute && keep) result.name = "/" + result.name;
  return result;
}

std::string joinNames(const std::string& prefix, const std::string& name) {
  if (prefix.empty() || name.empty()) return prefix + name;
  return prefix.back() == '/' ? prefix + name : prefix + "/" + name;
}

}  // namespace mvtar
