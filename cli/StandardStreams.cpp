// The process's own streams without stdio, which allocates its buffers and does not keep the reason of a
// write that failed. Used by the command's one thread.
#include "cli/StandardStreams.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cli/Interrupt.h"

namespace mvtar {

namespace {

// 0, or the errno of a write that an interrupt or the system ended. An interrupt ends a wait for a reader who
// does not come; any other signal does not.
int writeWhole(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written > 0) {
      text.remove_prefix(static_cast<size_t>(written));
      continue;
    }
    const int error = written == 0 ? EIO : errno;
    if (error == EINTR && !isInterrupted()) continue;
    if (error != EAGAIN) return error;
    // Somebody who shares the stream told it not to wait.
    pollfd ready{fd, POLLOUT, 0};
    if (poll(&ready, 1, -1) < 0 && isInterrupted()) return EINTR;
  }
  return 0;
}

// What waits to be written, and the errno of the first write that failed: after it everything is dropped.
char g_buffer[64 * 1024];
size_t g_buffered = 0;
int g_error = 0;

// At a terminal a line is to be seen when it is printed.
bool isTerminal() {
  static const bool isOne = isatty(STDOUT_FILENO);
  return isOne;
}

}  // namespace

// Text that is larger than the buffer goes by itself, behind what was gathered.
void StandardOutput::write(std::string_view text) {
  if (text.size() > sizeof g_buffer - g_buffered) flush();
  if (g_error != 0) return;
  if (text.size() > sizeof g_buffer) {
    // No copy is made of what is too large to be gathered.
    g_error = writeWhole(STDOUT_FILENO, text);
    return;
  }
  std::memcpy(g_buffer + g_buffered, text.data(), text.size());
  g_buffered += text.size();
  if (isTerminal() && !text.empty() && text.back() == '\n') flush();
}

// What was held is gone in any case.
bool StandardOutput::flush() {
  const std::string_view held(g_buffer, g_buffered);
  g_buffered = 0;
  if (g_error == 0) g_error = writeWhole(STDOUT_FILENO, held);
  return g_error == 0;
}

bool StandardOutput::isBroken() { return g_error != 0; }

int StandardOutput::error() { return g_error; }

// Not being able to say something is nothing that could be said.
void writeToStandardError(std::string_view text) { (void)writeWhole(STDERR_FILENO, text); }

int furtherDescriptor(int standardStream) { return fcntl(standardStream, F_DUPFD_CLOEXEC, 0); }

}  // namespace mvtar
