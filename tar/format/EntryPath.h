// From a member's stored path to where it is extracted.
#pragma once

#include <string>
#include <string_view>

#include "runtime/base/Export.h"

namespace morvane {

// The part of a stored path that is left: with `discardPaths` only what follows the last slash, with
// `noAbsolutePaths` without leading slashes. Back slashes count as slashes; they are not changed here. A view
// into `path`; empty when nothing is left, as of "/" or of a directory whose path is discarded. Parts like
// ".." are not its business: they are judged where the target is known.
MORVANE_API std::string_view leftOfEntryPath(std::string_view path, bool discardPaths, bool noAbsolutePaths);

// The same place without empty parts, "." parts and slashes at the end; ".." parts stay.
std::string cleanPath(std::string_view path);

}  // namespace morvane
