#include "runtime/component/MethodFrame.h"

namespace morvane {

// Writing the log takes memory too; what fails for lack of it here must not get out of the frame.

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

void MethodFrame::reportException(const char* what, const char* inShort) noexcept {
  m_owner.m_endedBy = inShort;
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
  m_owner.m_methodRunner = std::thread::id();
}

StepGuard::StepGuard(ClsBase& owner) : m_owner(owner) {
  const auto me = std::this_thread::get_id();
  m_mayRun = owner.m_methodRunner != me && owner.m_stepRunner != me;
  if (m_mayRun) owner.m_stepRunner = me;
}

StepGuard::~StepGuard() {
  if (m_mayRun) m_owner.m_stepRunner = std::thread::id();
}

}  // namespace morvane
