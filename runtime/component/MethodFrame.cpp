#include "runtime/component/MethodFrame.h"

namespace morvane {

// Writing the log takes memory too; what fails for lack of it here must not get out of the frame.

bool MethodFrame::open() noexcept {
  m_owner.m_methodRunning = true;
  try {
    m_owner.enterContextBase(m_name);
    if (m_form == MethodForm::WithVersion) m_owner.logMorvaneVersion(m_owner.m_log);
    return true;
  } catch (...) {
    return false;
  }
}

void MethodFrame::reportException(const char* what) noexcept {
  try {
    while (m_owner.m_log.contextDepth() > 1) m_owner.m_log.leaveContext();
    m_owner.m_log.LogError("The method was ended by an exception.");
    m_owner.m_log.LogData("exception", what);
  } catch (...) {
  }
}

void MethodFrame::close(bool ok) noexcept {
  try {
    if (m_form == MethodForm::Judged) m_owner.logSuccessFailure(ok);
    m_owner.m_log.LeaveContext();
    m_owner.appendToDebugLogFile();
  } catch (...) {
  }
  m_owner.m_methodRunning = false;
}

}  // namespace morvane
