// The stored form of a single file to archive: its local path alone; or ESC, local path, ESC, path in the
// archive; or the path in the archive with the bytes themselves. The door makes entries, the writer and the
// count before it take them apart; nobody else knows the form.
#pragma once

#include <string>
#include <string_view>

#include "runtime/buffer/DataBuffer.h"
#include "runtime/fs/MorvaneFileTime.h"
#include "runtime/text/StringBuffer.h"

namespace morvane {

// ASCII's ESC: no path that people type has one.
constexpr char kEntryEscape = '\x1B';

// A file that is not on the disk: the text is its path in the archive. Owned by the list of files, with a
// copy of the application's bytes. It never changes after it was added.
class MemoryFile : public StringBuffer {
 public:
  // Up to 4 GiB less one byte. The time is that of the call that added it.
  DataBuffer m_bytes;
  MorvaneFileTime m_added;
};

// Copies of the texts; `file` is the list's and lives as long as the entry. A value of one pass over the
// sources.
struct SourceEntry {
  bool isPair = false;
  bool isClosed = true;              // false for a pair without its second ESC; nothing else is then set
  std::string localPath;             // of a file from memory, its path in the archive
  std::string pathInTar;             // of pairs and files from memory
  const MemoryFile* file = nullptr;  // null for a file on the disk
};

// Neither path is checked: one that holds an ESC itself is cut at the wrong place. The first two of the forms
// above are texts alone, so that lists of texts can hold them.
std::string makePairEntry(std::string_view localPath, std::string_view pathInTar);
// Never fails: what is wrong with a pair shows in isClosed and in an empty path. The entry must outlive the
// result where it is a file in memory.
SourceEntry parseSourceEntry(const StringBuffer& entry);

}  // namespace morvane
