// Opens a log context on construction and closes it on destruction:
//   LogContextExitor context(log, "extractToFile");
#pragma once

#include "runtime/log/LogBase.h"

namespace morvane {

// A context whose scope logs nothing leaves no trace, so that one may be opened for every member. It lives
// in the scope of the step it names. On the stack, so that contexts are closed in the reverse order.
class LogContextExitor {
 public:
  // `enabled` false opens nothing: for contexts that only a verbose log has. The name must outlive the
  // context.
  LogContextExitor(LogBase& log, const char* name, bool enabled = true) : m_log(enabled ? &log : nullptr) {
    if (m_log) m_log->enterContext(name);
  }
  // Exceptions close it, too.
  ~LogContextExitor() {
    if (m_log) m_log->leaveContext();
  }
  // A copy would close the context twice.
  LogContextExitor(const LogContextExitor&) = delete;
  LogContextExitor& operator=(const LogContextExitor&) = delete;

 private:
  // Null where nothing was opened. The log must outlive the scope.
  LogBase* m_log;
};

}  // namespace morvane
