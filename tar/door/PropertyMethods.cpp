// ClsTar's properties. Texts are read and set under the lock, scalars without it, so that a thread that shows
// progress may do either while another one works.
#include <algorithm>

#include "runtime/base/Ascii.h"
#include "tar/door/ClsTarInner.h"

namespace morvane {

// Scalars: read and set at any time, without the lock. Setting one counts as a change, by which a run that
// goes on knows that it has to look at them again (LiveSettings).
bool ClsTar::get_OnlyLeftOut() const { return m_inner->m_onlyLeftOut; }
bool ClsTar::get_CaptureXmlListing() const { return m_inner->m_captureXmlListing; }
void ClsTar::put_CaptureXmlListing(bool capture) { m_inner->set(m_inner->m_captureXmlListing, capture); }
bool ClsTar::get_SuppressOutput() const { return m_inner->m_suppressOutput; }
void ClsTar::put_SuppressOutput(bool suppress) { m_inner->set(m_inner->m_suppressOutput, suppress); }
bool ClsTar::get_NoAbsolutePaths() const { return m_inner->m_noAbsolutePaths; }
void ClsTar::put_NoAbsolutePaths(bool none) { m_inner->set(m_inner->m_noAbsolutePaths, none); }
bool ClsTar::get_UntarDiscardPaths() const { return m_inner->m_untarDiscardPaths; }
void ClsTar::put_UntarDiscardPaths(bool discard) { m_inner->set(m_inner->m_untarDiscardPaths, discard); }
bool ClsTar::get_UntarDebugLog() const { return m_inner->m_untarDebugLog; }
void ClsTar::put_UntarDebugLog(bool debug) { m_inner->set(m_inner->m_untarDebugLog, debug); }
// One flag under two names: it holds for both patterns and for the first match.
bool ClsTar::get_UntarCaseSensitive() const { return m_inner->m_matchCaseSensitive; }
void ClsTar::put_UntarCaseSensitive(bool sensitive) {
  m_inner->set(m_inner->m_matchCaseSensitive, sensitive);
}
bool ClsTar::get_MatchCaseSensitive() const { return m_inner->m_matchCaseSensitive; }
void ClsTar::put_MatchCaseSensitive(bool sensitive) {
  m_inner->set(m_inner->m_matchCaseSensitive, sensitive);
}
int ClsTar::get_UntarMaxCount() const { return m_inner->m_untarMaxCount; }
void ClsTar::put_UntarMaxCount(int count) { m_inner->set(m_inner->m_untarMaxCount, count); }
// Ids and modes are kept as they are given; of a number that its header field cannot hold the low digits are
// written.
int ClsTar::get_GroupId() const { return m_inner->m_groupId; }
void ClsTar::put_GroupId(int id) { m_inner->set(m_inner->m_groupId, id); }
int ClsTar::get_UserId() const { return m_inner->m_userId; }
void ClsTar::put_UserId(int id) { m_inner->set(m_inner->m_userId, id); }
int ClsTar::get_DirMode() const { return m_inner->m_dirMode; }
void ClsTar::put_DirMode(int mode) { m_inner->set(m_inner->m_dirMode, mode); }
int ClsTar::get_FileMode() const { return m_inner->m_fileMode; }
void ClsTar::put_FileMode(int mode) { m_inner->set(m_inner->m_fileMode, mode); }
int ClsTar::get_ScriptFileMode() const { return m_inner->m_scriptFileMode; }
void ClsTar::put_ScriptFileMode(int mode) { m_inner->set(m_inner->m_scriptFileMode, mode); }

// Under the lock, since a text takes more than one step to copy.
void ClsTar::Inner::getString(const XString& member, XString& out) {
  CritSecExitor lock(m_tar);
  out.copyFromX(member);
}

void ClsTar::get_WriteFormat(XString& out) { m_inner->getString(m_inner->m_writeFormat, out); }

// What is no known word is gnu, the default, and reads so afterwards; a setter has no way to fail.
void ClsTar::put_WriteFormat(const XString& format) {
  CritSecExitor lock(*this);
  std::string_view word = trimmed(format.str());
  // Letters of ASCII only: all known words are.
  const auto is = [word](std::string_view name) {
    return word.size() == name.size() && std::equal(word.begin(), word.end(), name.begin(),
                                                    [](char a, char b) { return asciiLower(a) == b; });
  };
  // POSIX calls its format pax; "star" has the same block as ustar here.
  const bool pax = is("pax") || is("posix");
  const bool ustar = is("ustar") || is("star");
  // Flags and text change under one lock, so that no method begins between them.
  m_inner->m_formatPax = pax;
  m_inner->m_formatUstar = ustar;
  putText(m_inner->m_writeFormat, pax ? "pax" : ustar ? "ustar" : "gnu");
}

// A prefix of slashes alone is none: npos and 1 is 0.
void ClsTar::put_DirPrefix(const XString& prefix) {
  const std::string& text = prefix.str();
  putText(m_inner->m_dirPrefix, std::string_view(text).substr(0, text.find_last_not_of('/') + 1));
}

// Setting it, even to nothing, ends the look-up for good. A group's name is a setting of its own.
void ClsTar::put_UserName(const XString& name) {
  CritSecExitor lock(*this);
  m_inner->m_userNameIsSet = true;
  putText(m_inner->m_userName, name.str());
}

void ClsTar::put_GroupName(const XString& name) {
  CritSecExitor lock(*this);
  m_inner->m_groupNameIsSet = true;
  putText(m_inner->m_groupName, name.str());
}

// Reading it looks the user up, like writing an archive does.
void ClsTar::get_UserName(XString& out) {
  CritSecExitor lock(*this);
  m_inner->lookUpUser();
  out.copyFromX(m_inner->m_userName);
}

void ClsTar::get_GroupName(XString& out) {
  CritSecExitor lock(*this);
  m_inner->lookUpUser();
  out.copyFromX(m_inner->m_groupName);
}

// The rest are plain texts. UntarMatchPattern is MustMatch by its old name. putText takes the lock itself and
// does not throw: a text for which there is no memory counts as unset, and methods fail until it is set
// again.
void ClsTar::get_DirPrefix(XString& out) { m_inner->getString(m_inner->m_dirPrefix, out); }
void ClsTar::get_Charset(XString& out) { m_inner->getString(m_inner->m_charset, out); }
void ClsTar::put_Charset(const XString& charset) { putText(m_inner->m_charset, charset.str()); }
void ClsTar::get_XmlListing(XString& out) { m_inner->getString(m_inner->m_xmlListing, out); }
void ClsTar::put_XmlListing(const XString& listing) { putText(m_inner->m_xmlListing, listing.str()); }
void ClsTar::get_UntarFromDir(XString& out) { m_inner->getString(m_inner->m_untarFromDir, out); }
void ClsTar::put_UntarFromDir(const XString& dir) { putText(m_inner->m_untarFromDir, dir.str()); }
void ClsTar::get_MustMatch(XString& out) { m_inner->getString(m_inner->m_mustMatch, out); }
// Whether a pattern is a plain name is looked at by the methods that begin with setMatchPatternExactFlags,
// and not here.
void ClsTar::put_MustMatch(const XString& pattern) { putText(m_inner->m_mustMatch, pattern.str()); }
void ClsTar::get_UntarMatchPattern(XString& out) { get_MustMatch(out); }
void ClsTar::put_UntarMatchPattern(const XString& pattern) { put_MustMatch(pattern); }
void ClsTar::get_MustNotMatch(XString& out) { m_inner->getString(m_inner->m_mustNotMatch, out); }
void ClsTar::put_MustNotMatch(const XString& pattern) { putText(m_inner->m_mustNotMatch, pattern.str()); }

// The step that applications call for a path of their own, by the patterns as they are. The log is in the
// public signature; there is nothing to say in it.
bool ClsTar::excludeByMatch(const XString& path, LogBase&) {
  return m_inner->readSettings().filter.excludes(path.str());
}

// The step that methods begin with. Of a running one the patterns stay as they are taken.
void ClsTar::setMatchPatternExactFlags() {
  const StepGuard step(*this);
  if (step) m_inner->setMatchPatternExactFlags();
}

}  // namespace morvane
