// A log of bounded size: what came first, what came last, and how much is missing between them. Both matter
// to whoever asks why a run over millions of members failed; the middle rarely does.
#include "runtime/log/_mvLogger.h"

namespace morvane {

namespace {

constexpr size_t kKeptAtEachEnd = 512 * 1024;
// Blanks for each context.
constexpr unsigned kIndent = 4;

}  // namespace

// The head keeps its memory for the next method, which is short as a rule; the tail gives it back.
void _mvLogger::ClearLog() {
  while (contextDepth() > 0) leaveContext();
  forgetCause();
  m_head.clear();
  std::string().swap(m_tail);
  m_droppedBytes = 0;
  m_headFull = false;
}

// Once a line has not fitted the head every later one goes to the tail, shorter ones too: lines stay in their
// order.
void _mvLogger::writeLine(unsigned depth, const char* line, unsigned length) {
  const size_t needed = static_cast<size_t>(depth) * kIndent + length + 1;
  m_headFull = m_headFull || m_head.size() + needed > kKeptAtEachEnd;
  std::string& to = m_headFull ? m_tail : m_head;
  to.append(static_cast<size_t>(depth) * kIndent, ' ');
  to.append(line, length);
  to.push_back('\n');
  if (m_tail.size() > 2 * kKeptAtEachEnd) dropOldestOfTail();
}

// Cuts the tail to its last 512 KiB, at a line's start, so that each byte is moved once at most.
void _mvLogger::dropOldestOfTail() {
  size_t cut = m_tail.size() - kKeptAtEachEnd;
  const size_t lineEnd = m_tail.find('\n', cut - 1);
  // A single line longer than what is kept loses its beginning.
  if (lineEnd != std::string::npos && lineEnd + 1 < m_tail.size()) cut = lineEnd + 1;
  m_droppedBytes += cut;
  m_tail.erase(0, cut);
}

// The tail holds up to twice what is kept, so it is cut here as it would have been next.
std::string _mvLogger::text() const {
  std::string text = m_head;
  unsigned long long dropped = m_droppedBytes;
  size_t from = 0;
  // A long line may have left the head short: a log that is not too long as a whole is kept whole.
  const bool tooLong = dropped > 0 || m_head.size() + m_tail.size() > 2 * kKeptAtEachEnd;
  if (tooLong && m_tail.size() > kKeptAtEachEnd) {
    from = m_tail.size() - kKeptAtEachEnd;
    const size_t lineEnd = m_tail.find('\n', from - 1);
    if (lineEnd != std::string::npos && lineEnd + 1 < m_tail.size()) from = lineEnd + 1;
    dropped += from;
  }
  if (dropped > 0) text += "... " + std::to_string(dropped) + " bytes of the log left out ...\n";
  return text.append(m_tail, from, std::string::npos);
}

}  // namespace morvane
