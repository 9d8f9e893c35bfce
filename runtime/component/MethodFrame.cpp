// The beginning and the end of a public method's frame; what lies between them is a template in the header.
#include "runtime/component/MethodFrame.h"

namespace morvane {

// Writing the log takes memory too; what fails for lack of it here must not get out of the frame.

// False for lack of memory alone: the method then does nothing and fails, with its cause told without any.
// The thread is noted in any case, because `close` takes the mark away in any case.
bool MethodFrame::open() noexcept {
  m_owner.m_methodRunner = std::this_thread::get_id();
  m_owner.m_endedBy = nullptr;
  try {
    m_owner.enterContextBase(m_name);
    if (m_form == MethodForm::WithVersion) m_owner.logMorvaneVersion(m_owner.m_log);
    return true;
  } catch (...) {
    m_owner.m_endedBy = kOutOfMemory;
    return false;
  }
}

// The contexts that the exception left open are closed but for the method's own, so that the line stands
// where a reader looks for it. The words for get_FailureCause are a literal: there may be no memory for any
// other.
void MethodFrame::reportException(const char* what, const char* inShort) noexcept {
  m_owner.m_endedBy = inShort;
  try {
    while (m_owner.m_log.contextDepth() > 1) m_owner.m_log.leaveContext();
    m_owner.m_log.LogError("The method was ended by an exception.");
    m_owner.m_log.LogData("exception", what);
  } catch (...) {
  }
}

// The thread's mark goes last. Until then the log of this method is being written.
void MethodFrame::close(bool ok) noexcept {
  try {
    if (m_form == MethodForm::Judged) m_owner.logSuccessFailure(ok);
    m_owner.m_log.LeaveContext();
    m_owner.appendToDebugLogFile();
  } catch (...) {
  }
  m_owner.m_methodRunner = std::thread::id();
}

// A step that another thread has begun is not refused here: it has no lock, and keeping its calls apart is
// the application's business.
StepGuard::StepGuard(ClsBase& owner) : m_owner(owner) {
  const auto me = std::this_thread::get_id();
  m_mayRun = owner.m_methodRunner != me && owner.m_stepRunner != me;
  if (m_mayRun) owner.m_stepRunner = me;
}

StepGuard::~StepGuard() {
  if (m_mayRun) m_owner.m_stepRunner = std::thread::id();
}

}  // namespace morvane
