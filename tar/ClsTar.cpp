#include "tar/ClsTar.h"

#include <string>
#include <vector>

#include "runtime/fs/Psdk.h"
#include "tar/LiveSettings.h"
#include "tar/ReadSettings.h"
#include "tar/stream/StreamingUntar.h"
#include "tar/write/WriteRun.h"

namespace morvane {

ClsTar* ClsTar::createNewCls() {
  try {
    return new ClsTar();
  } catch (...) {
    return nullptr;
  }
}

ClsTar::ClsTar()
    : ClsBase("ClsTar"), m_stream(std::make_unique<StreamingUntar>(liveReadSettings(), m_xmlListing)) {
  StringBuffer user;
  Psdk::getUsername(user);
  m_userName.appendAnsi(user.getString());
  m_groupName.appendAnsi(
      user.getString());  // the user's name, on purpose: most users have a group of that name
}

ClsTar::~ClsTar() {
  if (!isAlive()) return;
  CritSecExitor lock(*this);
  m_archive.m_output = nullptr;
  m_stream->releaseOutput();
}

void ClsTar::dotNetDispose() {}

// Reads the option words again if they were set since the last call.
void ClsTar::takeOptions(LogBase& log) {
  if (m_optionsTaken == m_uncommonOptionsChanges) return;
  m_optionsTaken = m_uncommonOptionsChanges;
  std::vector<std::string> complaints;
  m_options = parseTarOptions(m_uncommonOptions.str(), complaints);
  changed();
  for (const std::string& word : complaints) {
    log.LogNotice("Unknown option, or a value that makes no sense.");
    log.LogData("uncommonOption", word.c_str());
  }
}

ReadSettings ClsTar::readSettings() const {
  ReadSettings settings;
  settings.suppressOutput = m_suppressOutput;
  settings.captureXmlListing = m_captureXmlListing;
  settings.charset = m_charset.str();
  settings.mustMatch = m_mustMatch.str();
  settings.mustNotMatch = m_mustNotMatch.str();
  settings.filter = NameFilter(
      {m_mustMatch.str(), m_mustNotMatch.str(), m_matchCaseSensitive, m_mustMatchExact, m_mustNotMatchExact});
  settings.untarFromDir = m_untarFromDir;
  settings.untarMaxCount = m_untarMaxCount;
  settings.untarDiscardPaths = m_untarDiscardPaths;
  settings.noAbsolutePaths = m_noAbsolutePaths;
  settings.untarDebugLog = m_untarDebugLog;
  settings.abortCheckMs = m_abortCheckMs;
  settings.options = m_options;
  return settings;
}

WriteSettings ClsTar::writeSettings() const {
  WriteSettings settings;
  settings.format = m_formatPax ? WriteFormat::Pax : m_formatUstar ? WriteFormat::Ustar : WriteFormat::Gnu;
  settings.dirMode = m_dirMode;
  settings.fileMode = m_fileMode;
  settings.scriptFileMode = m_scriptFileMode;
  settings.userId = m_userId;
  settings.groupId = m_groupId;
  settings.userName = m_userName.str();
  settings.groupName = m_groupName.str();
  settings.dirPrefix = m_dirPrefix;
  settings.filter = NameFilter(
      {m_mustMatch.str(), m_mustNotMatch.str(), m_matchCaseSensitive, m_mustMatchExact, m_mustNotMatchExact});
  settings.abortCheckMs = m_abortCheckMs;
  settings.options = m_options;
  return settings;
}

LiveSettings<ReadSettings> ClsTar::liveReadSettings() const {
  return {[this] { return readSettings(); }, m_changes};
}

// For one member into an output: there are no files to suppress, and no listing is made.
LiveSettings<ReadSettings> ClsTar::liveMemberSettings() const {
  return {[this] {
            ReadSettings settings = readSettings();
            settings.suppressOutput = settings.captureXmlListing = false;
            return settings;
          },
          m_changes};
}

LiveSettings<WriteSettings> ClsTar::liveWriteSettings() const {
  return {[this] { return writeSettings(); }, m_changes};
}

void ClsTar::setMatchPatternExactFlags() {
  m_mustMatchExact = isPlainName(m_mustMatch.str());
  m_mustNotMatchExact = isPlainName(m_mustNotMatch.str());
  changed();
}

bool ClsTar::excludeByMatch(const XString& path, LogBase&) {
  return readSettings().filter.excludes(path.str());
}

void ClsTar::getString(const XString& member, XString& out) {
  CritSecExitor lock(*this);
  out.copyFromX(member);
}

void ClsTar::putString(XString& member, const XString& value) {
  CritSecExitor lock(*this);
  member.copyFromX(value);
  changed();
}

void ClsTar::get_WriteFormat(XString& out) { getString(m_writeFormat, out); }

void ClsTar::put_WriteFormat(const XString& format) {
  CritSecExitor lock(*this);
  StringBuffer word(format.str());
  word.trim2();
  word.toLowerCase();
  if (word.equals("posix")) word = "pax";
  if (word.equals("star")) word = "ustar";
  if (!word.equals("pax") && !word.equals("ustar")) word = "gnu";
  m_writeFormat.setFromSbUtf8(word);
  m_formatPax = word.equals("pax");
  m_formatUstar = word.equals("ustar");
  m_formatGnu = !m_formatPax && !m_formatUstar;
  changed();
}

void ClsTar::put_DirPrefix(const XString& prefix) {
  CritSecExitor lock(*this);
  m_dirPrefix.copyFromX(prefix);
  while (m_dirPrefix.endsWithUtf8("/", false)) m_dirPrefix.shortenNumChars(1);
  changed();
}

void ClsTar::get_DirPrefix(XString& out) { getString(m_dirPrefix, out); }
void ClsTar::get_Charset(XString& out) { getString(m_charset, out); }
void ClsTar::put_Charset(const XString& charset) { putString(m_charset, charset); }
void ClsTar::get_XmlListing(XString& out) { getString(m_xmlListing, out); }
void ClsTar::put_XmlListing(const XString& listing) { putString(m_xmlListing, listing); }
void ClsTar::get_UserName(XString& out) { getString(m_userName, out); }
void ClsTar::put_UserName(const XString& name) { putString(m_userName, name); }
void ClsTar::get_GroupName(XString& out) { getString(m_groupName, out); }
void ClsTar::put_GroupName(const XString& name) { putString(m_groupName, name); }
void ClsTar::get_UntarFromDir(XString& out) { getString(m_untarFromDir, out); }
void ClsTar::put_UntarFromDir(const XString& dir) { putString(m_untarFromDir, dir); }
void ClsTar::get_MustMatch(XString& out) { getString(m_mustMatch, out); }
void ClsTar::put_MustMatch(const XString& pattern) { putString(m_mustMatch, pattern); }
void ClsTar::get_UntarMatchPattern(XString& out) { get_MustMatch(out); }
void ClsTar::put_UntarMatchPattern(const XString& pattern) { put_MustMatch(pattern); }
void ClsTar::get_MustNotMatch(XString& out) { getString(m_mustNotMatch, out); }
void ClsTar::put_MustNotMatch(const XString& pattern) { putString(m_mustNotMatch, pattern); }

}  // namespace morvane
