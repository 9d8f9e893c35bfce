// The object itself: its life, its properties, and how a run sees them. Texts are kept under the object's
// lock and numbers as atomics, so that a thread that shows progress may read and set them while another one
// writes; a run works on copies, which it takes anew when the count of changes has moved on.
#include "tar/ClsTar.h"

#include <cerrno>
#include <new>
#include <utility>

#include "runtime/fs/Psdk.h"
#include "tar/door/ClsTarInner.h"

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
ClsTar::Inner::Inner(ClsTar& tar)
    : m_tar(tar),
      m_log(tar.m_log),
      m_abortCheckMs(tar.m_abortCheckMs),
      m_percentScale(tar.m_percentScale),
      m_stream(liveReadSettings(), m_xmlListing) {}

ClsTar::ClsTar() : ClsBase("ClsTar"), m_inner(std::make_unique<Inner>(*this)) {}

// The lock waits for a method that another thread is still in. An object that is destroyed twice is known by
// the validity word that the first destructor overwrote, as long as its memory was not used for anything
// else; the second one then does nothing.
ClsTar::~ClsTar() {
  if (!isAlive()) return;
  CritSecExitor lock(*this);
  m_inner->m_archive.m_output = nullptr;
  m_inner->m_stream.releaseOutput();
}

// There is nothing to give up before the destructor.
void ClsTar::dotNetDispose() {}

// Reads the option words again if they were set since the last call. False while they, or another property,
// are not what the application meant them to be. Words that make no sense are complained of in each call, not
// only in the one that read them: a call that went on with half of what was asked for could extract where it
// must not. Under the lock, which the streaming steps that come this way do not have: another thread may be
// setting the words.
bool ClsTar::Inner::takeOptions(LogBase& log) {
  const CritSecExitor lock(m_tar);
  if (m_tar.hasUnsetText()) {
    log.LogError("Out of memory: a property could not be set.");
    return false;
  }
  if (const unsigned changes = m_tar.m_uncommonOptionsChanges.now(); m_optionsTaken != changes) {
    std::vector<std::string> unusable;
    m_options = parseTarOptions(m_tar.m_uncommonOptions.str(), unusable);
    m_unusableWords = std::move(unusable);
    m_optionsTaken = changes;  // only now, for what went before may throw
    // The options are a part of what runs copy. The streaming run goes on from call to call and has to take
    // them anew.
    m_tar.changed();
  }
  for (const std::string& word : m_unusableWords) {
    log.LogError("Unknown option, or a value that makes no sense.");
    log.LogData("uncommonOption", word.c_str());
  }
  return m_unusableWords.empty();
}

// The group's name is the user's, too, on purpose: most users have a group of that name. A database that
// cannot be read now may be read the next time.
void ClsTar::Inner::lookUpUser() const {
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

// Under the lock, which a method has already and a step has not: texts may be set by another thread. A
// property that could not be set for lack of memory has another value than the application believes; it must
// not be run with, and the frame turns the exception into a message.
ReadSettings ClsTar::Inner::readSettings() const {
  const CritSecExitor lock(m_tar);
  if (m_tar.hasUnsetText()) throw std::bad_alloc();
  ReadSettings settings;
  settings.suppressOutput = m_suppressOutput;
  settings.captureXmlListing = m_captureXmlListing;
  settings.charset = m_charset.str();
  // The patterns come twice, as texts for the log and prepared for matching. Their exact flags are those that
  // the last method with a setMatchPatternExactFlags of its own has left: Untar and VerifyTar have none, and
  // their results depend on it.
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

// The user is looked up for those who write only.
WriteSettings ClsTar::Inner::writeSettings() const {
  const CritSecExitor lock(m_tar);
  if (m_tar.hasUnsetText()) throw std::bad_alloc();
  lookUpUser();
  WriteSettings settings;
  // The setter sees to it that no more than one of the two is set.
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

// They refer to this object, which outlives any run over it.
LiveSettings<ReadSettings> ClsTar::Inner::liveReadSettings() const {
  return {[this] { return readSettings(); }, m_tar.m_changes};
}

// For one member into an output: there are no files to suppress, and no listing is made.
LiveSettings<ReadSettings> ClsTar::Inner::liveMemberSettings() const {
  return {[this] {
            ReadSettings settings = readSettings();
            settings.suppressOutput = settings.captureXmlListing = false;
            return settings;
          },
          m_tar.m_changes};
}

// With every check that there is, whatever the words say.
LiveSettings<ReadSettings> ClsTar::Inner::liveCheckedSettings(bool extract) const {
  return {[this, extract] {
            ReadSettings settings = readSettings();
            // An application that suppresses output has it suppressed here, too.
            settings.suppressOutput |= !extract;
            settings.options.requireEndOfArchive = true;
            return settings;
          },
          m_tar.m_changes};
}

LiveSettings<WriteSettings> ClsTar::Inner::liveWriteSettings() const {
  return {[this] { return writeSettings(); }, m_tar.m_changes};
}

// A plain name among the patterns gets rules of its own about the last part of a path (NameFilter).
void ClsTar::Inner::setMatchPatternExactFlags() {
  const CritSecExitor lock(m_tar);
  m_mustMatchExact = isPlainName(m_mustMatch.str());
  m_mustNotMatchExact = isPlainName(m_mustNotMatch.str());
  m_tar.changed();
}

}  // namespace morvane
