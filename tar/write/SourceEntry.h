// The stored form of a single file to archive: its local path alone, or ESC, local path, ESC, path in the
// archive.
#pragma once

#include <string>
#include <string_view>

namespace morvane {

constexpr char kEntryEscape = '\x1B';

struct SourceEntry {
  bool isPair = false;
  bool isClosed = true;  // false for a pair without its second ESC; nothing else is then set
  std::string localPath;
  std::string pathInTar;  // pairs only
};

// Neither path is checked: one that holds an ESC itself is cut at the wrong place.
std::string makePairEntry(std::string_view localPath, std::string_view pathInTar);
SourceEntry parseSourceEntry(std::string_view entry);

}  // namespace morvane
