#include "tar/format/UstarSplit.h"

namespace morvane {

UstarSplit splitUstarPath(std::string_view path) {
  UstarSplit split;
  if (path.size() > kLongestUstarPath) {
    split.error = kUstarPathTooLong;
    return split;
  }
  if (path.size() <= kLongestNameInBlock) {
    split.name = path;
    return split;
  }
  for (size_t slash = path.find('/'); slash != std::string_view::npos; slash = path.find('/', slash + 1)) {
    const std::string_view name = path.substr(slash + 1);
    if (name.empty() || name.size() > kLongestNameInBlock) continue;
    split.name = name;
    split.prefix = path.substr(0, slash + 1);
    return split;
  }
  split.error = kUstarCannotSplit;
  return split;
}

}  // namespace morvane
