#include "tar/EntryPath.h"

#include <algorithm>

namespace morvane {

void applyEntryPathRules(std::string& path, bool discardPaths, bool noAbsolutePaths) {
  std::replace(path.begin(), path.end(), '\\', '/');
  if (discardPaths) path.erase(0, path.rfind('/') + 1);
  if (noAbsolutePaths) path.erase(0, path.find_first_not_of('/'));
}

}  // namespace morvane
