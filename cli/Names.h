// Names as they are shown to a person.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace mvtar {

// Control characters and back slashes as C escapes; every other byte as it is.
std::string shown(std::string_view name);
// The same, straight to a stream: a hostile archive's names may have many megabytes.
void printShown(std::string_view name, std::FILE* stream);

}  // namespace mvtar
