// How the files of ClsTar's methods run them: in the library's frame, with the option words taken at the
// start.
#pragma once

#include "runtime/component/MethodFrame.h"
#include "tar/ClsTar.h"

namespace morvane {

template <class Result, class Work>
Result ClsTar::method(const char* name, MethodForm form, Result failure, Work work) {
  return MethodFrame(*this, name, form).run(failure, [&](MethodFrame& frame) {
    m_onlyLeftOut = false;
    return takeOptions(m_log) ? work(frame) : failure;
  });
}

}  // namespace morvane
