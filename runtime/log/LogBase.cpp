// The log's frame: contexts that show themselves with their first line, lines made safe, and the cause of a
// failure picked out of them. Where the lines go derived classes say.
#include "runtime/log/LogBase.h"

#include <cstring>
#include <string>

#include "runtime/base/Ticks.h"
#include "runtime/log/LogText.h"
#include "runtime/text/StringBuffer.h"
#include "runtime/text/XString.h"

namespace morvane {

namespace {

// The start of a value that is too long to be of use in a log. An archive may have a name of megabytes; 64
// KiB of it tell what it is.
std::string shortened(const char* value) {
  constexpr size_t kShown = 64 * 1024;
  const size_t length = std::strlen(value);
  if (length <= kShown) return std::string(value, length);
  return std::string(value, kShown) + "... " + std::to_string(length - kShown) + " bytes more";
}

}  // namespace

LogBase::~LogBase() = default;

// Discards, and keepsLines says so beforehand: a log that nobody reads is never built.
void LogBase::writeLine(unsigned, const char*, unsigned) {}

// A derived log that takes lines says so.
bool LogBase::keepsLines() const { return false; }

// The names of those that were entered since the last line, each at its own depth. Each name is written
// once, when the first line beneath it comes.
void LogBase::showContexts() {
  // Contexts are shown from the outside in, so the shown ones are at the front.
  unsigned depth = contextDepth();
  while (depth > 0 && !m_contexts[depth - 1].shown) --depth;
  for (; depth < m_contexts.size(); ++depth) {
    const std::string line = std::string(m_contexts[depth].name) + ":";
    m_contexts[depth].shown = true;
    writeLine(depth, line.data(), static_cast<unsigned>(line.size()));
  }
}

// Texts are the library's own, but may quote an application's: they are made safe like values.
void LogBase::writeText(const char* text) {
  if (!keepsLines()) return;
  showContexts();
  const std::string line = logSafeText(text);
  writeLine(contextDepth(), line.data(), static_cast<unsigned>(line.size()));
}

// The first error since the last context beside it is the cause; later ones tell of its consequences. Where
// it is not the first, path and reason that follow belong to it and not to the cause, which is therefore
// closed.
void LogBase::LogError(const char* text) {
  if (!keepsLines()) return;
  if (m_cause.message.empty())
    m_cause = {text, "", "", contextDepth(), true};
  else
    m_cause.open = false;
  writeText(text);
}

// Nothing is written: a caller that says in its own words what could not be done has the cause told all the
// same. It is closed at once, because no data line of it will follow.
void LogBase::noteCause(const char* message, const char* path, const char* reason) {
  if (keepsLines() && m_cause.message.empty()) m_cause = {message, path, reason, contextDepth(), false};
}

// Path and reason belong to the cause while it is the latest error. They are kept as they came: only the
// line is made safe, because whoever asks for the cause is a program.
void LogBase::LogData(const char* tag, const char* value) {
  if (!keepsLines()) return;
  const std::string shown = shortened(value);
  if (m_cause.open && std::strcmp(tag, "path") == 0) m_cause.path = shown;
  if (m_cause.open && std::strcmp(tag, "reason") == 0) m_cause.reason = shown;
  showContexts();
  const std::string line = std::string(tag) + ": " + logSafeText(shown.c_str());
  writeLine(contextDepth(), line.data(), static_cast<unsigned>(line.size()));
}

// The line was made safe when it was written into the log that held it.
void LogBase::takeHeldLine(unsigned depth, const char* line, unsigned length) {
  if (!keepsLines()) return;
  showContexts();
  writeLine(contextDepth() + depth, line, length);
}

// Its depth was counted from that log's outermost context, which stands inside the open ones here. Data
// lines that follow go on belonging to it if they would have there.
void LogBase::takeHeldCause(const Cause& cause) {
  if (!keepsLines()) return;
  if (m_cause.message.empty()) {
    m_cause = cause;
    m_cause.depth += contextDepth();
  } else {
    m_cause.open = false;
  }
}

void LogBase::LogDataX(const char* tag, const XString& value) { LogData(tag, value.getUtf8()); }

void LogBase::LogDataSb(const char* tag, const StringBuffer& value) { LogData(tag, value.getString()); }

void LogBase::LogDataInt64(const char* tag, long long value) {
  if (keepsLines()) LogData(tag, std::to_string(value).c_str());
}

void LogBase::LogBracketed(const char* tag, const char* text) {
  if (keepsLines()) LogData(tag, (std::string("[") + text + "]").c_str());
}

// Unsigned, so that the difference is right across the point where the ticks wrap.
void LogBase::LogElapsedMs(const char* tag, unsigned startTicks) {
  LogDataInt64(tag, static_cast<long long>(millisecondTicks() - startTicks));
}

}  // namespace morvane
