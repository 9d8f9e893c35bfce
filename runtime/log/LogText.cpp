// Values in a log come from archives. A newline in one would let it forge lines, and an escape sequence would
// reach the terminal of whoever reads the log; so no control character gets there as it is.
#include "runtime/log/LogText.h"

#include <cstdio>

namespace morvane {

// DEL counts as one. Bytes from 0x80 on stay, for they are most often UTF-8; back slashes stay too, because
// a log is read and not parsed back. The result is up to four times as long.
std::string logSafeText(const char* text) {
  std::string safe;
  for (; *text; ++text) {
    const auto byte = static_cast<unsigned char>(*text);
    if (byte == '\n') {
      safe += "\\n";
    } else if (byte == '\r') {
      safe += "\\r";
    } else if (byte == '\t') {
      safe += "\\t";
    } else if (byte < 0x20 || byte == 0x7F) {
      // Always three digits, so that a digit behind it is not taken for its own.
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\%03o", byte);
      safe += escape;
    } else {
      safe.push_back(*text);
    }
  }
  return safe;
}

}  // namespace morvane
