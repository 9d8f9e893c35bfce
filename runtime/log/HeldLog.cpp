// Lines are kept as they will stand, but for how deep they stand.
#include "runtime/log/HeldLog.h"

namespace morvane {

void HeldLog::beginLike(const LogBase& like) {
  m_keepsLines = like.takesLines();
  setVerbose(like.verbose());
  forget();
}

void HeldLog::forget() {
  forgetCause();
  forgetEntered();
  m_lines.clear();
  m_text.clear();
}

void HeldLog::writeLine(unsigned depth, const char* line, unsigned length) {
  m_lines.push_back({depth, length});
  m_text.append(line, length);
}

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
