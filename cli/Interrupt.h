// SIGINT and SIGTERM: the component is asked to abort, and every wait is broken until it does.
#pragma once

#include <string>

namespace mvtar {

// From here on an interrupt does not end the process at once.
void catchInterrupts();
// From here on it does, with this line said; for work that is not asked whether to abort.
void endOnInterrupt(const std::string& line);
bool isInterrupted();
// 130 after SIGINT, 143 after SIGTERM.
int interruptStatus();

}  // namespace mvtar
