// Names as they are shown to a person.
#pragma once

#include <string>
#include <string_view>

namespace mvtar {

// Control characters and back slashes as C escapes; every other byte as it is.
std::string shown(std::string_view name);
// The same, straight to a writer: a hostile archive's names may have many megabytes.
void printShown(std::string_view name, void (*write)(std::string_view));

}  // namespace mvtar
