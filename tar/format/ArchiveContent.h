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

// What content in which recogniseArchive sees nothing is, in one sentence, told by its first bytes (512 are
// enough, and fewer are all there is). The sentence is a literal and stands for itself: "This is a ZIP
// archive, no tar.". Null for what begins with a header, though a damaged one: whoever reads it finds out
// what is wrong with it.
MORVANE_API const char* foreignContent(const unsigned char* bytes, unsigned n);

// Looks at the bytes that the source will give next, without moving it (it must be able to show them: files,
// memory). False, with the reason in the log, when they cannot be read. `found` is then left as it was. The
// monitor, which may be null, is asked while a slow source lets wait.
MORVANE_API bool detectArchive(_mvDataSource& source, std::optional<Compression>& found, ProgressMonitor* pm,
                               LogBase& log);

// foreignContent of what the source will give next, under the same terms; null also when it cannot be read.
MORVANE_API const char* foreignContent(_mvDataSource& source, ProgressMonitor* pm, LogBase& log);

}  // namespace morvane
