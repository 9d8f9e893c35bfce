// What kind of archive a stream of bytes is, told by its first block.
#pragma once

#include "runtime/base/Export.h"

namespace morvane {

class LogBase;
class ProgressMonitor;
class _mvDataSource;

enum class ArchiveKind { Plain, Gzip, Bzip2, Compress, Unknown };

// A first block that is a valid header, or all zeros, is plain; then the signatures of gzip (1F 8B), bzip2
// ("BZh", a digit, a block's magic) and Unix compress (1F 9D) count.
MORVANE_API ArchiveKind recogniseArchive(const unsigned char* bytes, unsigned n);

// What content of no kind that can be read is, in one sentence, told by its first bytes (512 are enough);
// null when that is not known, as of a damaged archive.
MORVANE_API const char* foreignContent(const unsigned char* bytes, unsigned n);

// Looks at the bytes that the source will give next, without moving it (it must be able to show them: files,
// memory). False, with the reason in the log, when they cannot be read.
MORVANE_API bool detectArchiveKind(_mvDataSource& source, ArchiveKind& kind, ProgressMonitor* pm,
                                   LogBase& log);

}  // namespace morvane
