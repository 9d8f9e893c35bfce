// How the files of ClsTar's methods run them: in the library's frame, with the option words taken at the
// start.
#pragma once

#include "runtime/component/MethodFrame.h"
#include "tar/ClsTar.h"

namespace morvane {

// `work(frame)` does the method's own part and returns what the method returns; it does not run when the
// words are unusable. What the last method left out is forgotten first, so that a method which fails before
// it begins does not show the answer of another one. Included by the files of methods only.
template <class Result, class Work>
Result ClsTar::method(const char* name, MethodForm form, Result failure, Work work) {
  return MethodFrame(*this, name, form).run(failure, [&](MethodFrame& frame) {
    m_onlyLeftOut = false;
    return takeOptions(m_log) ? work(frame) : failure;
  });
}

}  // namespace morvane
