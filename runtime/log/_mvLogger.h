// The log that keeps its text: a component's own.
//
// Of a log over 1 MiB the first and the last 512 KiB are kept, with a line between them that says how much
// was left out; a run over millions of members thus keeps its beginning and its verdict.
#pragma once

#include <string>

#include "runtime/log/LogBase.h"

namespace morvane {

// Keeps 1.5 MiB and a line at most, whatever is logged. One for each object; methods clear it when they
// begin.
class MORVANE_API _mvLogger : public LogBase {
 public:
  // Discards the text and every open context. The cause of failures goes, too.
  void ClearLog();
  // Closes the innermost context. Does nothing where none is open.
  void LeaveContext() { leaveContext(); }
  // The log so far: lines that end in "\n", each indented by four blanks for every context it stands in. A
  // copy, at most 1 MiB and the line about what is missing.
  std::string text() const;

 protected:
  // Takes memory, and throws where there is none.
  void writeLine(unsigned depth, const char* line, unsigned length) override;
  bool keepsLines() const override { return true; }

 private:
  // Called when the tail has twice what is kept of it.
  void dropOldestOfTail();

  // The first 512 KiB, in whole lines.
  std::string m_head;
  std::string m_tail;  // used once the head is full; up to twice what is kept of it
  unsigned long long m_droppedBytes = 0;
  // Set by the first line that did not fit, and never taken back before ClearLog.
  bool m_headFull = false;
};

}  // namespace morvane
