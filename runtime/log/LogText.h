// How a value is put into a log line.
#pragma once

#include <string>

namespace morvane {

// The text with control characters as C escapes (\n, \t, \033); every other byte as it is. NUL-terminated
// text in, of any bytes. Used for every value and text that a log takes, and for nothing else. It takes up
// to four times the room, and throws where there is none.
std::string logSafeText(const char* text);

}  // namespace morvane
