// Lines are kept as they will stand, but for how deep they stand: that depends on the contexts which are
// open where they are told.
#include "runtime/log/HeldLog.h"

namespace morvane {

// Asked once and kept, because `like` may belong to another thread than the one that writes here.
void HeldLog::beginLike(const LogBase& like) {
  m_keepsLines = like.takesLines();
  setVerbose(like.verbose());
  forget();
}

// The buffers stay for the next piece of work, as jobs and their logs are used again and again.
void HeldLog::forget() {
  forgetCause();
  forgetEntered();
  m_lines.clear();
  m_text.clear();
}

// One text for all lines, because a piece of work rarely has more than one and often none. Of very many no
// log keeps the middle either (_mvLogger): here the end is not kept.
void HeldLog::writeLine(unsigned depth, const char* line, unsigned length) {
  constexpr size_t kMostBytes = 4 * 1024 * 1024;
  if (m_text.size() + length + m_lines.size() * sizeof(Line) > kMostBytes) return;
  m_lines.push_back({depth, length});
  m_text.append(line, length);
}

// In the order in which one log would have met it all: a context that was entered in here first forgets the
// cause of one beside it, then come the lines, and the cause they led to. It takes the place of LogError's
// own bookkeeping, which the lines do not go through again.
void HeldLog::tellTo(LogBase& log) {
  if (anyEntered()) log.forgetCauseBeside();
  size_t at = 0;
  for (const Line& line : m_lines) {
    log.takeHeldLine(line.depth, m_text.data() + at, static_cast<unsigned>(line.length));
    at += line.length;
  }
  if (!cause().message.empty()) log.takeHeldCause(cause());
  forget();
}

}  // namespace morvane
