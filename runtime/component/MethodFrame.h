// The frame that every public method runs in: lock, log context, work, verdict, context closed, lock
// released.
//
//   bool ClsTar::VerifyTar(...) {
//     return MethodFrame(*this, "VerifyTar").run(false, [&](MethodFrame& frame) { ...; return ok; });
//   }
//
// Nothing thrown inside gets out: an exception is an error line and the failure value. A method called from a
// callback of the same object, that is, while another one runs, returns its failure value at once and leaves
// the log alone.
#pragma once

#include <exception>
#include <new>

#include "runtime/component/ClsBase.h"

namespace morvane {

// How a method's context is opened and closed. The lines are part of what programs read in a log; so each
// method keeps its form. It is chosen where the frame is made.
enum class MethodForm {
  Judged,       // ends with a success or failure line
  Unjudged,     // ends without one
  WithVersion,  // starts with the library's version line and ends without a success or failure line
};

// Lives on the stack of the method, once a call. A method that must not run now is told by the thread that
// it is called on: another thread waits for the lock instead. `run` is called once.
class MORVANE_API MethodFrame {
 public:
  // `name` must outlive the method; a string literal does.
  explicit MethodFrame(ClsBase& owner, const char* name, MethodForm form = MethodForm::Judged)
      : m_owner(owner), m_name(name), m_form(form) {}

  // For a method that leaves early without its success or failure line. Called by the work inside.
  void withoutVerdict() { m_form = MethodForm::Unjudged; }

  // `work` takes the frame and returns what the method returns: a bool, or a count of which negative means
  // failure. `failure` is what is returned when it does not get to run or throws.
  //
  // The order is fixed: the lock is held until the log is closed and appended to its file, and a nested call
  // is turned away before it could touch the log of the one that is running.
  template <class Result, class Work>
  Result run(Result failure, Work work) {
    CritSecExitor lock(m_owner);
    if (isNested()) return failure;
    Result result = failure;
    if (open()) {
      try {
        result = work(*this);
      } catch (const std::bad_alloc&) {
        result = failure;
        reportException(kOutOfMemory, kOutOfMemory);
      } catch (const std::exception& exception) {
        result = failure;
        reportException(exception.what(), kException);
      } catch (...) {
        result = failure;
        reportException("An exception of unknown type.", kException);
      }
    }
    close(succeeded(result));
    return result;
  }

 private:
  // What a result says about success: the verdict in the log goes by it. A count of 0 is a success: an
  // archive may be empty.
  static bool succeeded(bool result) { return result; }
  static bool succeeded(int count) { return count >= 0; }

  // The lock is recursive, so that it does not keep a callback's call out; this does.
  bool isNested() const {
    const auto me = std::this_thread::get_id();
    return m_owner.m_methodRunner == me || m_owner.m_stepRunner == me;
  }
  // Both write the log and keep what that throws. False: the method's work is not begun.
  bool open() noexcept;
  // `what` goes into the log, `inShort` to get_FailureCause.
  void reportException(const char* what, const char* inShort) noexcept;
  // Literals, so that a failure without any memory has its words.
  static constexpr char kOutOfMemory[] = "Out of memory.";
  static constexpr char kException[] = "The method was ended by an exception.";

  // Always called where the lock was taken and the call was not refused, behind a failed open too.
  void close(bool ok) noexcept;

  // Outlives the frame.
  ClsBase& m_owner;
  const char* const m_name;
  MethodForm m_form;
};

// The entry of a step that methods are made of and that an application may call by itself: it has neither
// lock nor log context. Called from a callback of the same object it is refused like a method: it would end
// the work of the call that is going on. For the streaming operations: an application's decompressor calls
// them piece by piece, and none of its calls is a method.
class MORVANE_API StepGuard {
 public:
  // The owner must outlive it. It never waits.
  explicit StepGuard(ClsBase& owner);
  ~StepGuard();
  StepGuard(const StepGuard&) = delete;
  StepGuard& operator=(const StepGuard&) = delete;
  // False: the step returns its failure and does nothing. Explicit, so that it is asked in a condition and
  // not counted with.
  explicit operator bool() const { return m_mayRun; }

 private:
  ClsBase& m_owner;
  // So that only the guard that took the mark takes it away.
  bool m_mayRun;
};

}  // namespace morvane
