// SIGINT and SIGTERM: the component is asked to abort, and every wait is broken until it does.
#pragma once

namespace mvtar {

// From here on an interrupt does not end the process at once.
void catchInterrupts();
bool isInterrupted();
// 130 after SIGINT, 143 after SIGTERM.
int interruptStatus();

}  // namespace mvtar
