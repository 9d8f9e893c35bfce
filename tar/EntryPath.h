// From a member's stored path to where it is extracted.
#pragma once

#include <string>

namespace morvane {

// Back slashes become "/"; with `discardPaths` only the part after the last "/" stays; with `noAbsolutePaths`
// every leading "/" goes. Nothing else changes: ".." parts stay.
void applyEntryPathRules(std::string& path, bool discardPaths, bool noAbsolutePaths);

}  // namespace morvane
