// Standard output, buffered, and standard error, not: written whole, whatever signals come, and what cannot
// be written remembered. Neither takes memory, so that a process without any still says so.
#pragma once

#include <string_view>

namespace mvtar {

// Static, because there is one: whoever prints and whoever runs out of memory mean the same.
class StandardOutput {
 public:
  // Gathered, and written line by line at a terminal. A failure is kept for flush and error; what comes
  // behind it is dropped. Not for several threads.
  static void write(std::string_view text);
  // Writes what was gathered. False if anything so far could not be written.
  static bool flush();
  // Whether nobody takes what is printed any more.
  static bool isBroken();
  // The system's reason for that, an errno. 0 while none.
  static int error();
};

// Written at once and whole; a failure is ignored, since there is no place to tell it. An interrupt ends the
// wait for a reader.
void writeToStandardError(std::string_view text);

// A further descriptor of a standard stream, for whoever closes what he has; closed on exec, so that no
// program inherits it. -1 with errno when there is none.
int furtherDescriptor(int standardStream);

}  // namespace mvtar
