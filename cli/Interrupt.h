// SIGINT and SIGTERM: the component is asked to abort, and every wait is broken until it does.
#pragma once

#include <string>

namespace mvtar {

// From here on an interrupt does not end the process at once. A signal that was ignored when the process
// began stays ignored. SIGPIPE and SIGXFSZ become failed writes.
void catchInterrupts();
// From here on it does, with this line said; for work that is not asked whether to abort. The line goes to
// standard error, and the status is interruptStatus().
void endOnInterrupt(const std::string& line);
// Whether one has come; it stays so.
bool isInterrupted();
// 130 after SIGINT, 143 after SIGTERM.
int interruptStatus();

}  // namespace mvtar
