// Names as they are shown to a person.
#pragma once

#include <string>
#include <string_view>

namespace mvtar {

// Control characters and back slashes as C escapes; every other byte as it is. C1 control characters (U+0080
// to U+009F) count as such. Takes up to four times the name's memory.
std::string shown(std::string_view name);
// A text whose other control characters are what they should be, such as a log, without those of C1.
std::string withoutC1(std::string_view text);
// The same as `shown`, straight to a writer: a hostile archive's names may have many megabytes. In pieces of
// some KiB, none of which parts an escape; `write` is called for each, in order.
void printShown(std::string_view name, void (*write)(std::string_view));

}  // namespace mvtar
