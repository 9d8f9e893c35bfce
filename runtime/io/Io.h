// Whom a step of a job asks and tells, handed on as one: the log, the monitor, the application's event.
//
// A plain value; none of the three is owned. A job without an event has neither monitor nor event.
#pragma once

#include "runtime/log/LogBase.h"
#include "runtime/progress/ProgressMonitor.h"

namespace morvane {

// Passed by reference to every step, instead of three parameters that always go together.
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
  // Tells the event a named piece of information; both texts UTF-8.
  void inform(const char* name, const char* value) const {
    if (event) event->onInfo(name, value);
  }
  // An error line. False, for the caller to return.
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
