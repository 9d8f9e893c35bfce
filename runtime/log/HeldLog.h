// A log whose lines are told to another one later: for work whose turn in the log has not come yet, because
// it is done by a thread of its own or ahead of its time.
#pragma once

#include <string>
#include <vector>

#include "runtime/log/LogBase.h"

namespace morvane {

// A log serves one thread at a time, so each piece of such work has one of these. It keeps what it is
// given, up to some MiB, because damaged data may be good for any number of lines. Used for what is read
// ahead (AheadSource), by a decompressor in a thread of its own (ExpandAhead), and where a step may yet find
// that its failure is none.
class HeldLog : public LogBase {
 public:
  // Keeps lines, and is verbose, as `like` is at the moment; call it in the thread that `like` belongs to.
  // What was held is forgotten.
  void beginLike(const LogBase& like);
  // Puts the lines into a log as if they had been written there now, below the contexts that are open in
  // it, with the cause that a failure is put down to. Then it holds nothing. Contexts of its own must be
  // closed. Not the log itself.
  void tellTo(LogBase& log);
  // A context that was entered counts, because it changes what `tellTo` leaves behind.
  bool isEmpty() const { return m_lines.empty() && cause().message.empty() && !anyEntered(); }

 protected:
  void writeLine(unsigned depth, const char* line, unsigned length) override;
  bool keepsLines() const override { return m_keepsLines; }

 private:
  struct Line {
    // Contexts of this log that were open.
    unsigned depth;
    size_t length;
  };

  // All of it, as if nothing had been written. Capacity stays.
  void forget();

  // False keeps nothing at all, and then tellTo tells nothing.
  bool m_keepsLines = false;
  // One behind the other in m_text.
  std::vector<Line> m_lines;
  std::string m_text;
};

}  // namespace morvane
