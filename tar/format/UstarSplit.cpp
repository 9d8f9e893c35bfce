// A path of 101 to 255 bytes cut in two for the prefix and name fields of a ustar block.
#include "tar/format/UstarSplit.h"

namespace morvane {

// From the left, so that the prefix is as short as the name's 100 bytes allow, unlike other tars, which cut
// as far to the right as the prefix's 155 bytes allow; readers join both alike. A slash at the very end
// leaves no name, so a directory is cut at an earlier one.
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
  // A slash at the very beginning makes a prefix of that slash alone, and the path stays absolute.
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
