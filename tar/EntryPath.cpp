#include "tar/EntryPath.h"

#include "runtime/text/StringBuffer.h"

namespace morvane {

void applyEntryPathRules(StringBuffer& path, bool discardPaths, bool noAbsolutePaths) {
  path.replaceChar('\\', '/');
  if (discardPaths) path.stripDirectory();
  if (!noAbsolutePaths) return;
  const size_t firstOther = path.str().find_first_not_of('/');
  path.removeFront(firstOther == std::string::npos ? path.getSize() : static_cast<unsigned>(firstOther));
}

}  // namespace morvane
