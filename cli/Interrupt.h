// SIGINT and SIGTERM: the component is asked to abort, and every wait is broken until it does.
#pragma once

#include <string>

namespace mvtar {

// From here on an interrupt does not end the process at once: SIGINT, SIGTERM and SIGHUP set what
// isInterrupted tells and break waits, which fail with EINTR. Where a timer can be had, a process that has
// not ended within five seconds is ended. A signal that was ignored when the process began stays ignored.
// SIGPIPE and SIGXFSZ become failed writes, and SIGCHLD is what it is by default. SIGALRM is the timer's. To
// be called once.
void catchInterrupts();
// From here on it does, with this line said; for work that is not asked whether to abort. The line goes to
// standard error, and the status is interruptStatus().
void endOnInterrupt(const std::string& line);
// Whether one has come; it stays so. It is no more than a look at a flag.
bool isInterrupted();
// 130 after SIGINT, 143 after SIGTERM, 129 after SIGHUP: what a shell makes of a process that the signal
// ended. Of use only where isInterrupted.
int interruptStatus();

}  // namespace mvtar
