// What every public class has beside its own methods: properties that more than one class has, the log and
// what is told of a failure. Properties may be read and set from any thread and from callbacks; scalar ones
// do without the lock.
#include "runtime/component/ClsBase.h"

#include <fcntl.h>

#include <algorithm>
#include <memory>

#include "runtime/component/Version.h"
#include "runtime/fs/OsFile.h"
#include "runtime/io/OutputFile.h"
#include "runtime/log/LogNull.h"

namespace morvane {

ClsBase::ClsBase(const char* className) : m_className(className) {}

// For a second destruction of the same object, which finds it so where the memory has not been used again.
ClsBase::~ClsBase() { m_validity = 0; }

void ClsBase::_toString(XString& out) { out.setFromUtf8(m_className); }

// Null texts count as empty: these come from applications, and in part from other languages.
void ClsBase::injectStatus(const char* text, bool ok) {
  CritSecExitor lock(*this);
  m_log.LogInfo((std::string(text ? text : "") + (ok ? ": true" : ": false")).c_str());
}

void ClsBase::injectError(const char* tag, const char* text) {
  CritSecExitor lock(*this);
  m_log.LogError((std::string(tag ? tag : "") + ": " + (text ? text : "")).c_str());
}

// A setter cannot report that memory ran out, and must not leave the old value to be taken for the new one.
// So the property is remembered as unset, which makes every method fail until it is set after all. The list
// takes no memory itself. It has room for each text property of the classes that there are; in one with more
// the last place would be nobody's, and methods would fail for good.
void ClsBase::putText(XString& property, std::string_view value) noexcept {
  CritSecExitor lock(*this);
  const XString** const end = m_unset + m_unsetCount;
  const XString** const known = std::find(m_unset, end, &property);
  try {
    property.buffer().assign(value);
    if (known != end) *known = m_unset[--m_unsetCount];
  } catch (...) {
    if (known == end && m_unsetCount < kTextProperties) {
      m_unset[m_unsetCount++] = &property;
    } else if (known == end) {
      m_unset[kTextProperties - 1] = nullptr;
    }
  }
  changed();
}

// Parsed when the next method begins; the counter tells that they have to be. It is counted behind the
// setting, so that whoever saw the count finds these words or later ones.
void ClsBase::put_UncommonOptions(XString& words) {
  CritSecExitor lock(*this);
  putText(m_uncommonOptions, words.str());
  m_uncommonOptionsChanges.increment();
}

void ClsBase::put_UncommonOptions(const char* words) {
  CritSecExitor lock(*this);
  putText(m_uncommonOptions, words ? words : "");
  m_uncommonOptionsChanges.increment();
}

void ClsBase::get_UncommonOptions(XString& out) {
  CritSecExitor lock(*this);
  out.copyFromX(m_uncommonOptions);
}

// The log itself holds the setting, so that code which has only the log can ask.
bool ClsBase::get_VerboseLogging() { return m_log.verbose(); }

// Without the lock, so that a run can be told while it goes on.
void ClsBase::put_VerboseLogging(bool verbose) { m_log.setVerbose(verbose); }

void ClsBase::dotNetDispose() {}

// A copy, because the path may be set again once the lock is released.
void ClsBase::get_DebugLogFilePath(XString& out) {
  CritSecExitor lock(*this);
  out.copyFromX(m_debugLogFilePath);
}

// Opened anew for each method; the file may be moved away in between.
void ClsBase::put_DebugLogFilePath(XString& path) { putText(m_debugLogFilePath, path.str()); }

// A copy: the log goes on being written.
void ClsBase::get_LogText(XString& out) {
  CritSecExitor lock(*this);
  out = m_log.text();
}

// What was thrown wins: it ended the method, whatever had been logged before. The error line itself serves
// where no reason followed it: it says at least what could not be done.
void ClsBase::get_FailureCause(XString& path, XString& reason) {
  CritSecExitor lock(*this);
  const LogBase::Cause& cause = m_log.cause();
  if (m_endedBy) {
    path.clear();
    reason = m_endedBy;
    return;
  }
  path = cause.path;
  reason = cause.reason.empty() ? cause.message : cause.reason;
}

// The context's name is put down at once, so that a log that has nothing to tell still says which method it
// is about.
void ClsBase::enterContextBase(const char* name) {
  m_log.ClearLog();
  m_log.enterContext(name);
  m_log.showContexts();
}

// "Failure." is a notice, because the cause of the failure is the error line before it.
void ClsBase::logSuccessFailure(bool ok) {
  if (ok) {
    m_log.LogInfo("Success.");
  } else {
    m_log.LogNotice("Failure.");
  }
}

void ClsBase::logMorvaneVersion(LogBase& log) { log.LogData("morvaneVersion", MORVANE_TAR_VERSION); }

// No failure of this is told anywhere: the method's own result must not depend on it. O_NONBLOCK, because
// nobody may be reading a FIFO of that name. O_APPEND lets several processes share a file, and O_NOCTTY
// keeps a terminal of that name from becoming the process's own.
void ClsBase::appendToDebugLogFile() {
  if (m_debugLogFilePath.isEmpty()) return;
  OsFile opened(
      osOpen(m_debugLogFilePath.getUtf8(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY, 0666));
  if (!opened.isOpen()) return;
  const std::unique_ptr<OutputFile> file(OutputFile::adopt(std::move(opened), m_debugLogFilePath.getUtf8()));
  if (!file) return;
  const std::string text = m_log.text();
  LogNull unwanted;
  _mvIoParams io;
  file->_writeBytes(text.data(), static_cast<unsigned>(text.size()), io, unwanted);
}

}  // namespace morvane
