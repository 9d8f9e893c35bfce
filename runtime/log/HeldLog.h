// A log whose lines are told to another one later: for work whose turn in the log has not come yet, because
// it is done by a thread of its own or ahead of its time.
#pragma once

#include <string>
#include <vector>

#include "runtime/log/LogBase.h"

namespace morvane {

// A log serves one thread at a time, so each piece of such work has one of these. It keeps what it is given:
// who makes one bounds the work.
class HeldLog : public LogBase {
 public:
  // Keeps lines, and is verbose, as `like` is at the moment; call it in the thread that `like` belongs to.
  // What was held is forgotten.
  void beginLike(const LogBase& like);
  // Puts the lines into a log as if they had been written there now, below the contexts that are open in it,
  // with the cause that a failure is put down to. Then it holds nothing. Contexts of its own must be closed.
  void tellTo(LogBase& log);
  bool isEmpty() const { return m_lines.empty() && cause().message.empty() && !anyEntered(); }

 protected:
  void writeLine(unsigned depth, const char* line, unsigned length) override;
  bool keepsLines() const override { return m_keepsLines; }

 private:
  struct Line {
    unsigned depth;
    size_t length;
  };

  void forget();

  bool m_keepsLines = false;
  // One behind the other in m_text.
  std::vector<Line> m_lines;
  std::string m_text;
};

}  // namespace morvane
