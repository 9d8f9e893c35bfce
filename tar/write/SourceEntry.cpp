// A stored source is one text, because the public interface has lists of texts. ESC separates what no path
// that people type has.
#include "tar/write/SourceEntry.h"

namespace morvane {

// The leading ESC is what tells it from a path alone.
std::string makePairEntry(std::string_view localPath, std::string_view pathInTar) {
  std::string entry(1, kEntryEscape);
  entry.append(localPath).push_back(kEntryEscape);
  return entry.append(pathInTar);
}

// A file from memory is told by its type and never parsed: its path may have an ESC. For filters and messages
// its path in the archive stands in for the local one, which it does not have.
SourceEntry parseSourceEntry(const StringBuffer& stored) {
  const std::string_view entry = stored.str();
  SourceEntry parsed;
  parsed.file = dynamic_cast<const MemoryFile*>(&stored);
  if (parsed.file) {
    parsed.isPair = true;
    parsed.localPath = parsed.pathInTar = entry;
    return parsed;
  }
  // ESC in front marks a pair; anything else is a path, whatever it contains.
  parsed.isPair = !entry.empty() && entry.front() == kEntryEscape;
  if (!parsed.isPair) {
    parsed.localPath = entry;
    return parsed;
  }
  const size_t closing = entry.find(kEntryEscape, 1);
  parsed.isClosed = closing != std::string_view::npos;
  if (!parsed.isClosed) return parsed;
  parsed.localPath = entry.substr(1, closing - 1);
  parsed.pathInTar = entry.substr(closing + 1);
  return parsed;
}

}  // namespace morvane
