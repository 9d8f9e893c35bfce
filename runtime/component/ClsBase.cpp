#include "runtime/component/ClsBase.h"

#include <fcntl.h>

#include <algorithm>
#include <memory>

#include "runtime/component/Version.h"
#include "runtime/io/OutputFile.h"
#include "runtime/log/LogNull.h"

namespace morvane {

ClsBase::ClsBase(const char* className) : m_className(className) {}

ClsBase::~ClsBase() { m_validity = 0; }

void ClsBase::_toString(XString& out) { out.setFromUtf8(m_className); }

void ClsBase::injectStatus(const char* text, bool ok) {
  CritSecExitor lock(*this);
  m_log.LogInfo((std::string(text ? text : "") + (ok ? ": true" : ": false")).c_str());
}

void ClsBase::injectError(const char* tag, const char* text) {
  CritSecExitor lock(*this);
  m_log.LogError((std::string(tag ? tag : "") + ": " + (text ? text : "")).c_str());
}

void ClsBase::putText(XString& property, std::string_view value) noexcept {
  CritSecExitor lock(*this);
  const XString** const end = m_unset + m_unsetCount;
  const XString** const known = std::find(m_unset, end, &property);
  try {
    property.buffer().assign(value);
    if (known != end) *known = m_unset[--m_unsetCount];
  } catch (...) {
    if (known == end) m_unset[m_unsetCount++] = &property;
  }
  changed();
}

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

bool ClsBase::get_VerboseLogging() { return m_log.verbose(); }

void ClsBase::put_VerboseLogging(bool verbose) { m_log.setVerbose(verbose); }

void ClsBase::dotNetDispose() {}

void ClsBase::get_DebugLogFilePath(XString& out) {
  CritSecExitor lock(*this);
  out.copyFromX(m_debugLogFilePath);
}

void ClsBase::put_DebugLogFilePath(XString& path) { putText(m_debugLogFilePath, path.str()); }

void ClsBase::get_LogText(XString& out) {
  CritSecExitor lock(*this);
  out = m_log.text();
}

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

void ClsBase::enterContextBase(const char* name) {
  m_log.ClearLog();
  m_log.enterContext(name);
  m_log.showContexts();
}

void ClsBase::logSuccessFailure(bool ok) {
  if (ok) {
    m_log.LogInfo("Success.");
  } else {
    m_log.LogNotice("Failure.");
  }
}

void ClsBase::logMorvaneVersion(LogBase& log) { log.LogData("morvaneVersion", MORVANE_TAR_VERSION); }

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
