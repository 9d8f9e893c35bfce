#include "runtime/log/LogText.h"

#include <cstdio>

namespace morvane {

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
