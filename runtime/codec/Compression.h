// The compressions that an archive may have: their names, how they are told by content and by a file's name.
#pragma once

#include <optional>
#include <string_view>

#include "runtime/base/Export.h"

namespace morvane {

// None is a plain tar archive; the others are what the whole archive is wrapped in.
enum class Compression { None, Gzip, Bzip2, Compress, Zstd, Xz };

// What a person calls it: "gzip". A literal, lower case; "none" for None.
MORVANE_API const char* compressionName(Compression compression);
// Whether it can be written; Unix compress is only read.
MORVANE_API bool canBeWritten(Compression compression);
// By a content's first bytes (13 are enough); nothing when they begin none of these. Who goes by the answer
// has yet to expand it: a few bytes promise nothing about the rest.
MORVANE_API std::optional<Compression> compressionByContent(const unsigned char* bytes, unsigned n);
// By the suffix of an archive's name (".gz", ".tgz"), which promises it, in letters of either case. Nothing
// for a name that promises none.
MORVANE_API std::optional<Compression> compressionBySuffix(std::string_view path);
// Whether a name promises what nobody here writes (".zip", ".tar.Z").
MORVANE_API bool promisesUnwritable(std::string_view path);

}  // namespace morvane
