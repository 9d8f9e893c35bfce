// What a stream of bytes is, told by its first block.
#pragma once

#include <optional>

#include "runtime/base/Export.h"
#include "runtime/codec/Compression.h"

namespace morvane {

class LogBase;
class ProgressMonitor;
class _mvDataSource;

// A first block that is a valid header, or all zeros, is a plain archive (Compression::None); then the
// signatures of the compressions count. Nothing for what is no archive that can be read. Fewer than 512 bytes
// are never a plain archive, because the shortest one has a block.
MORVANE_API std::optional<Compression> recogniseArchive(const unsigned char* bytes, unsigned n);

// What content of no kind that can be read is, in one sentence, told by its first bytes (512 are enough);
// null when that is not known, as of a damaged archive. The sentence is a literal and stands for itself:
// "This is a ZIP archive, no tar.".
MORVANE_API const char* foreignContent(const unsigned char* bytes, unsigned n);

// Looks at the bytes that the source will give next, without moving it (it must be able to show them: files,
// memory). False, with the reason in the log, when they cannot be read. `found` is then left as it was. The
// monitor, which may be null, is asked while a slow source lets wait.
MORVANE_API bool detectArchive(_mvDataSource& source, std::optional<Compression>& found, ProgressMonitor* pm,
                               LogBase& log);

}  // namespace morvane
