// What a component writes its log into: nested named contexts with data lines, info lines and error lines.
//
// Contexts cost next to nothing until something is written inside them: entering one only remembers its name,
// and the name is put down with the first line. Callers test verbose() before they write, or build, optional
// detail.
#pragma once

#include <string>
#include <vector>

#include "runtime/base/Export.h"
#include "runtime/base/RelaxedAtomic.h"

namespace morvane {

class StringBuffer;
class XString;

// A log belongs to one object and is written under that object's lock. No call of it is a failure for its
// caller; for lack of memory it throws std::bad_alloc. Texts are UTF-8 and not null. Derived classes say
// what becomes of a line: _mvLogger keeps it, HeldLog keeps it for later, LogCause and LogNull drop it.
class MORVANE_API LogBase {
 public:
  LogBase() = default;
  virtual ~LogBase();
  LogBase(const LogBase&) = delete;
  LogBase& operator=(const LogBase&) = delete;

  // Another thread may set it at any time. Off unless set.
  bool verbose() const { return m_verbose; }
  // Holds from the next line on.
  void setVerbose(bool verbose) { m_verbose = verbose; }

  // An error line: why something failed, in one sentence. The first one becomes the cause. LogNotice stands
  // for what is worth as much attention and fails nothing.
  void LogError(const char* text);
  // An error line about something that fails nothing: it is never taken for the cause of a failure.
  void LogNotice(const char* text) { writeText(text); }
  // Something worth knowing about a run that goes on. It stands in the log as the other two do; only the
  // cause tells them apart.
  void LogInfo(const char* text) { writeText(text); }

  // One data line, "tag: value". Control characters in a value are written as C escapes, so that a value
  // can neither end its line nor forge another. A value of more than 64 KiB is cut, and the line says by
  // how much. The tag is a literal of the library's own and is taken as it stands.
  void LogData(const char* tag, const char* value);
  // The same for other forms of text and for numbers. Numbers are decimal.
  void LogDataX(const char* tag, const XString& value);
  void LogDataSb(const char* tag, const StringBuffer& value);
  void LogDataLong(const char* tag, long value) { LogDataInt64(tag, value); }
  void LogDataInt64(const char* tag, long long value);
  void LogBracketed(const char* tag, const char* text);  // "tag: [text]"
  // Milliseconds since `startTicks`, as millisecondTicks gave them.
  void LogElapsedMs(const char* tag, unsigned startTicks);

  // The name must outlive the context; a string literal does. Contexts are closed in the reverse order.
  // LogContextExitor does both.
  void enterContext(const char* name) {
    forgetCauseBeside();
    m_anyEntered = true;
    m_contexts.push_back({name, false});
  }
  // Closes the innermost; does nothing where none is open. What was written in it stays.
  void leaveContext() {
    if (!m_contexts.empty()) m_contexts.pop_back();
  }
  // Contexts that are open, shown or not.
  unsigned contextDepth() const { return static_cast<unsigned>(m_contexts.size()); }

  // What a failure is put down to: the first error line of the context that failed, with the path and the
  // reason that followed it. A new context beside the failed one forgets it, for then the error did not end
  // the job.
  struct Cause {
    std::string message;  // empty: no error
    std::string path;     // may be empty
    std::string reason;   // may be empty
    unsigned depth = 0;   // of the contexts it stands in
    bool open = false;    // data lines still belong to it
  };
  // Valid until the log is written again. For ClsBase::get_FailureCause, and for programs that report to a
  // person.
  const Cause& cause() const { return m_cause; }
  // Gives the error line that was logged last a reason that the log itself does not tell. Without effect
  // where that line is not the cause.
  void noteReason(const char* reason) {
    if (m_cause.open) m_cause.reason = reason;
  }
  // For an error line behind which the run goes on after all: it is no cause of what may fail later.
  void forgetCause() { m_cause = Cause(); }
  // What a new context does with the cause of one beside it that has been left.
  void forgetCauseBeside() {
    if (m_cause.depth > contextDepth()) forgetCause();
  }
  // What a failure is to be put down to when the log shows no line of it, if no error stands here yet. All
  // three are copied; none may be null.
  void noteCause(const char* message, const char* path, const char* reason);

  // Puts the names of the open contexts down even if nothing is written in them. For the context of a
  // method, which stands in its log in any case.
  void showContexts();

  // Whether lines come to anything here.
  bool takesLines() const { return keepsLines(); }
  // A line that a HeldLog kept, `depth` contexts below the open ones, and the cause it came to. A cause that
  // stands here already stays, for it was first.
  void takeHeldLine(unsigned depth, const char* line, unsigned length);
  void takeHeldCause(const Cause& cause);

 protected:
  // Takes one line, without its line end, that stands `depth` contexts deep. The base discards it.
  virtual void writeLine(unsigned depth, const char* line, unsigned length);
  // Whether lines are kept at all; if not, none is built. The answer must not change while lines are
  // written.
  virtual bool keepsLines() const;
  // Whether a context was entered since the log was made or this was forgotten.
  bool anyEntered() const { return m_anyEntered; }
  void forgetEntered() { m_anyEntered = false; }

 private:
  // A name that is shown stands in the log already.
  struct Context {
    const char* name;
    bool shown;
  };

  // One line of text, made safe, at the depth of the open contexts.
  void writeText(const char* text);

  // From the outside in. Those that are shown stand in front of those that are not.
  std::vector<Context> m_contexts;
  Cause m_cause;
  // For HeldLog alone, which has to know whether it would have made another log forget a cause.
  bool m_anyEntered = false;
  RelaxedAtomic<bool> m_verbose = false;
};

}  // namespace morvane
