#include "cli/StandardStreams.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cli/Interrupt.h"

namespace mvtar {

namespace {

// 0, or the errno of a write that an interrupt or the system ended.
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

char g_buffer[64 * 1024];
size_t g_buffered = 0;
int g_error = 0;

// At a terminal a line is to be seen when it is printed.
bool isTerminal() {
  static const bool isOne = isatty(STDOUT_FILENO);
  return isOne;
}

}  // namespace

void StandardOutput::write(std::string_view text) {
  if (text.size() > sizeof g_buffer - g_buffered) flush();
  if (g_error != 0) return;
  if (text.size() > sizeof g_buffer) {
    g_error = writeWhole(STDOUT_FILENO, text);
    return;
  }
  std::memcpy(g_buffer + g_buffered, text.data(), text.size());
  g_buffered += text.size();
  if (isTerminal() && !text.empty() && text.back() == '\n') flush();
}

bool StandardOutput::flush() {
  const std::string_view held(g_buffer, g_buffered);
  g_buffered = 0;
  if (g_error == 0) g_error = writeWhole(STDOUT_FILENO, held);
  return g_error == 0;
}

bool StandardOutput::isBroken() { return g_error != 0; }

int StandardOutput::error() { return g_error; }

void writeToStandardError(std::string_view text) { (void)writeWhole(STDERR_FILENO, text); }

}  // namespace mvtar
