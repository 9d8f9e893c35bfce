// The first rule on the way of a stored path to the disk: what is left of it when directories or leading
// slashes are not wanted. It looks at stored bytes, before they are decoded; a name that is absolute only
// once it is decoded passes.
#include "tar/format/EntryPath.h"

#include <algorithm>

namespace morvane {

// A path that ends in a slash leaves nothing with `discardPaths`. find_last_of gives npos where there is no
// slash, and one more than that is 0: the whole path stays.
std::string_view leftOfEntryPath(std::string_view path, bool discardPaths, bool noAbsolutePaths) {
  constexpr char kSlashes[] = "/\\";
  if (discardPaths) path.remove_prefix(path.find_last_of(kSlashes) + 1);
  if (noAbsolutePaths) path.remove_prefix(std::min(path.find_first_not_of(kSlashes), path.size()));
  return path;
}

std::string cleanPath(std::string_view path) {
  std::string clean;
  if (!path.empty() && path.front() == '/') clean = "/";
  while (!path.empty()) {
    const size_t end = std::min(path.find('/'), path.size());
    const std::string_view part = path.substr(0, end);
    path.remove_prefix(std::min(end + 1, path.size()));
    if (part.empty() || part == ".") continue;
    if (!clean.empty() && clean.back() != '/') clean += '/';
    clean += part;
  }
  return clean;
}

}  // namespace morvane
