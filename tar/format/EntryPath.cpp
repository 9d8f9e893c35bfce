#include "tar/format/EntryPath.h"

#include <algorithm>

namespace morvane {

std::string_view leftOfEntryPath(std::string_view path, bool discardPaths, bool noAbsolutePaths) {
  constexpr char kSlashes[] = "/\\";
  if (discardPaths) path.remove_prefix(path.find_last_of(kSlashes) + 1);
  if (noAbsolutePaths) path.remove_prefix(std::min(path.find_first_not_of(kSlashes), path.size()));
  return path;
}

}  // namespace morvane
