// Whom a step of a job asks and tells, handed on as one: the log, the monitor, the application's event.
//
// A plain value; none of the three is owned. A job without an event has neither monitor nor event.
#pragma once

#include "runtime/log/LogBase.h"
#include "runtime/progress/ProgressMonitor.h"

namespace morvane {

// Passed by reference to every step, instead of three parameters that always go together. It must not outlive
// what it names. One that has an event is used on the thread of the call alone; what a worker does has a log
// of its own and no event.
struct Io {
  // Without a monitor there is no event either.
  explicit Io(LogBase& theLog, ProgressMonitor* theMonitor = nullptr)
      : log(theLog), monitor(theMonitor), event(theMonitor ? &theMonitor->event() : nullptr) {}
  // For a step whose caller hands both: an event may come without a monitor, and then hears everything but
  // progress and the question whether to abort.
  Io(LogBase& theLog, ProgressMonitor* theMonitor, ProgressEvent* theEvent)
      : log(theLog), monitor(theMonitor), event(theEvent) {}

  // Whether the event has said so already; it is not asked again.
  bool isAborted() const { return monitor && monitor->isAborted(); }
  // Tells the event a named piece of information; both texts UTF-8. The texts need to live for the call only.
  void inform(const char* name, const char* value) const {
    if (event) event->onInfo(name, value);
  }
  // An error line. False, for the caller to return. The message is the whole line; values follow it as data
  // lines of the caller's.
  bool fail(const char* message) const {
    log.LogError(message);
    return false;
  }

  LogBase& log;
  // Asked whether to abort, and told of the bytes that are done.
  ProgressMonitor* const monitor;  // may be null
  ProgressEvent* const event;      // may be null
};

}  // namespace morvane
