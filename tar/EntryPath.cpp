#include "tar/EntryPath.h"

#include <algorithm>
#include <cstddef>

namespace morvane {

void applyEntryPathRules(std::string& path, bool discardPaths, bool noAbsolutePaths) {
  if (const size_t first = path.find('\\'); first != std::string::npos) {
    std::replace(path.begin() + static_cast<std::ptrdiff_t>(first), path.end(), '\\', '/');
  }
  if (discardPaths) path.erase(0, path.rfind('/') + 1);
  if (noAbsolutePaths) path.erase(0, path.find_first_not_of('/'));
}

}  // namespace morvane
