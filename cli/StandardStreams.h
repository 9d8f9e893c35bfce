// Standard output, buffered, and standard error, not: written whole, whatever signals come, and what cannot
// be written remembered. Neither takes memory, so that a process without any still says so.
#pragma once

#include <string_view>

namespace mvtar {

class StandardOutput {
 public:
  static void write(std::string_view text);
  // False if anything so far could not be written.
  static bool flush();
  // Whether nobody takes what is printed any more.
  static bool isBroken();
  // The system's reason for that, an errno.
  static int error();
};

void writeToStandardError(std::string_view text);

}  // namespace mvtar
