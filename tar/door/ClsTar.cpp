// The object itself: its life, its properties, and how a run sees them. Texts are kept under the object's
// lock and numbers as atomics, so that a thread that shows progress may read and set them while another one
// writes; a run works on copies, which it takes anew when the count of changes has moved on.
#include "tar/ClsTar.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "runtime/fs/Psdk.h"
#include "runtime/text/Ascii.h"
#include "tar/settings/LiveSettings.h"
#include "tar/settings/ReadSettings.h"
#include "tar/stream/StreamingUntar.h"
#include "tar/write/WriteRun.h"

namespace morvane {

// Null is all that a caller without exceptions can be told.
ClsTar* ClsTar::createNewCls() {
  try {
    return new ClsTar();
  } catch (...) {
    return nullptr;
  }
}

// The engine's settings are taken when it is first used; here only where they come from is handed over.
ClsTar::ClsTar()
    : ClsBase("ClsTar"),
      m_archive(std::make_unique<ArchiveOutput>()),
      m_stream(std::make_unique<StreamingUntar>(liveReadSettings(), m_xmlListing)),
      m_options(std::make_unique<TarOptions>()) {}

// The lock waits for a method that another thread is still in. A second destruction, which memory that was
// not used again shows as such, does nothing.
ClsTar::~ClsTar() {
  if (!isAlive()) return;
  CritSecExitor lock(*this);
  m_archive->m_output = nullptr;
  m_stream->releaseOutput();
}

// There is nothing to give up before the destructor.
void ClsTar::dotNetDispose() {}

// Reads the option words again if they were set since the last call. False while they, or another property,
// are not what the application meant them to be. Words that make no sense are complained of in each call, not
// only in the one that read them: a call that went on with half of what was asked for could extract where it
// must not.
bool ClsTar::takeOptions(LogBase& log) {
  if (hasUnsetText()) {
    log.LogError("Out of memory: a property could not be set.");
    return false;
  }
  if (const unsigned changes = m_uncommonOptionsChanges.now(); m_optionsTaken != changes) {
    CritSecExitor lock(*this);
    std::vector<std::string> unusable;
    *m_options = parseTarOptions(m_uncommonOptions.str(), unusable);
    m_unusableWords = std::move(unusable);
    m_optionsTaken = changes;  // only now, for what went before may throw
    changed();
  }
  for (const std::string& word : m_unusableWords) {
    log.LogError("Unknown option, or a value that makes no sense.");
    log.LogData("uncommonOption", word.c_str());
  }
  return m_unusableWords.empty();
}

// The group's name is the user's, too, on purpose: most users have a group of that name. A database that
// cannot be read now may be read the next time.
void ClsTar::lookUpUser() const {
  m_userLookupError = 0;
  if (m_userNameIsSet && m_groupNameIsSet) return;
  StringBuffer user;
  m_userLookupError = Psdk::getUsername(user);
  if (m_userLookupError == ENOMEM) throw std::bad_alloc();
  if (m_userLookupError != 0) return;
  XString name;
  // The database's bytes are taken to be in the locale's character set.
  name.appendAnsi(user.getString());
  // A name that was set is not overwritten.
  for (auto [text, isSet] :
       {std::pair(&m_userName, &m_userNameIsSet), std::pair(&m_groupName, &m_groupNameIsSet)}) {
    if (!*isSet) text->copyFromX(name);
    *isSet = true;
  }
}

// A property that could not be set for lack of memory has another value than the application believes; it
// must not be run with, and the frame turns the exception into a message.
ReadSettings ClsTar::readSettings() const {
  if (hasUnsetText()) throw std::bad_alloc();
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
  settings.options = *m_options;
  return settings;
}

// The user is looked up for those who write only.
WriteSettings ClsTar::writeSettings() const {
  if (hasUnsetText()) throw std::bad_alloc();
  lookUpUser();
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
  settings.options = *m_options;
  return settings;
}

// They refer to this object, which outlives any run over it.
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

// With every check that there is, whatever the words say.
LiveSettings<ReadSettings> ClsTar::liveCheckedSettings(bool extract) const {
  return {[this, extract] {
            ReadSettings settings = readSettings();
            settings.suppressOutput |= !extract;
            settings.options.requireEndOfArchive = true;
            return settings;
          },
          m_changes};
}

LiveSettings<WriteSettings> ClsTar::liveWriteSettings() const {
  return {[this] { return writeSettings(); }, m_changes};
}

// A plain name among the patterns gets rules of its own about the last part of a path (NameFilter).
void ClsTar::setMatchPatternExactFlags() {
  m_mustMatchExact = isPlainName(m_mustMatch.str());
  m_mustNotMatchExact = isPlainName(m_mustNotMatch.str());
  changed();
}

// The step that applications call for a path of their own, by the patterns as they are.
bool ClsTar::excludeByMatch(const XString& path, LogBase&) {
  return readSettings().filter.excludes(path.str());
}

// Under the lock, since a text takes more than one step to copy.
void ClsTar::getString(const XString& member, XString& out) {
  CritSecExitor lock(*this);
  out.copyFromX(member);
}

void ClsTar::get_WriteFormat(XString& out) { getString(m_writeFormat, out); }

// What is no known word is gnu, the default, and reads so afterwards; a setter has no way to fail.
void ClsTar::put_WriteFormat(const XString& format) {
  CritSecExitor lock(*this);
  std::string_view word = trimmed(format.str());
  // Letters of ASCII only: all known words are.
  const auto is = [word](std::string_view name) {
    return word.size() == name.size() && std::equal(word.begin(), word.end(), name.begin(),
                                                    [](char a, char b) { return asciiLower(a) == b; });
  };
  m_formatPax = is("pax") || is("posix");
  m_formatUstar = is("ustar") || is("star");
  m_formatGnu = !m_formatPax && !m_formatUstar;
  putText(m_writeFormat, m_formatPax ? "pax" : m_formatUstar ? "ustar" : "gnu");
}

// A prefix of slashes alone is none: npos and 1 is 0.
void ClsTar::put_DirPrefix(const XString& prefix) {
  const std::string& text = prefix.str();
  putText(m_dirPrefix, std::string_view(text).substr(0, text.find_last_not_of('/') + 1));
}

// Setting it, even to nothing, ends the look-up for good. A group's name is a setting of its own.
void ClsTar::put_UserName(const XString& name) {
  CritSecExitor lock(*this);
  m_userNameIsSet = true;
  putText(m_userName, name.str());
}

void ClsTar::put_GroupName(const XString& name) {
  CritSecExitor lock(*this);
  m_groupNameIsSet = true;
  putText(m_groupName, name.str());
}

// Reading it looks the user up, like writing an archive does.
void ClsTar::get_UserName(XString& out) {
  CritSecExitor lock(*this);
  lookUpUser();
  out.copyFromX(m_userName);
}

void ClsTar::get_GroupName(XString& out) {
  CritSecExitor lock(*this);
  lookUpUser();
  out.copyFromX(m_groupName);
}

// The rest are plain texts. UntarMatchPattern is MustMatch by its old name.
void ClsTar::get_DirPrefix(XString& out) { getString(m_dirPrefix, out); }
void ClsTar::get_Charset(XString& out) { getString(m_charset, out); }
void ClsTar::put_Charset(const XString& charset) { putText(m_charset, charset.str()); }
void ClsTar::get_XmlListing(XString& out) { getString(m_xmlListing, out); }
void ClsTar::put_XmlListing(const XString& listing) { putText(m_xmlListing, listing.str()); }
void ClsTar::get_UntarFromDir(XString& out) { getString(m_untarFromDir, out); }
void ClsTar::put_UntarFromDir(const XString& dir) { putText(m_untarFromDir, dir.str()); }
void ClsTar::get_MustMatch(XString& out) { getString(m_mustMatch, out); }
void ClsTar::put_MustMatch(const XString& pattern) { putText(m_mustMatch, pattern.str()); }
void ClsTar::get_UntarMatchPattern(XString& out) { get_MustMatch(out); }
void ClsTar::put_UntarMatchPattern(const XString& pattern) { put_MustMatch(pattern); }
void ClsTar::get_MustNotMatch(XString& out) { getString(m_mustNotMatch, out); }
void ClsTar::put_MustNotMatch(const XString& pattern) { putText(m_mustNotMatch, pattern.str()); }

}  // namespace morvane
