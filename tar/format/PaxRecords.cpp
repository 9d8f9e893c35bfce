// Pax and long-name records the lenient way: lines of text, short values, 32-bit numbers. It is what reading
// does without FullRead, and every oddity below is kept because archives and programs have been read by it;
// docs/format.md lists them with their cures.
//
// Nothing is allocated for what an archive claims: keyword and value are cut to fixed sizes on the stack.
#include "tar/format/PaxRecords.h"

#include <algorithm>
#include <cstring>

#include "runtime/log/LogBase.h"
#include "runtime/text/SmallStrings.h"

namespace morvane {

namespace {

// A longer keyword is passed over with its line; a longer value is cut.
constexpr unsigned kLongestKeyword = 99;
constexpr unsigned kLongestValue = 999;

// Digits up to the first other character, so that "1234.5" is 1234 and "-1" is 0. A size from 4 GiB on
// becomes 2^32-1, with a line in the log: the rest of such an archive is lost.
unsigned paxNumber(const char* keyword, const char* value, LogBase& log) {
  bool overflowed = false;
  const unsigned number = mvUIntValue(value, &overflowed);
  if (overflowed) {
    log.LogNotice("A PAX number is too large and was reduced.");
    log.LogData("paxName", keyword);
    log.LogData("paxValue", value);
  }
  return number;
}

// An owned text is what tells a record's link path from the block's.
void setOwned(std::unique_ptr<StringBuffer>& owned, const char* value) {
  owned = std::make_unique<StringBuffer>(value);
}

// Each keyword is marked as given, whatever it was given: merging asks for the mark. The marks of ids, times
// and links are not asked for; see combineHeaderPaxExtended. An unknown keyword is passed over.
void applyPaxRecord(const char* keyword, const char* value, TarHeader& record, LogBase& log) {
  const auto is = [keyword](const char* name) { return mvStrCmp(keyword, name) == 0; };
  // A value is only read as a number where the keyword asks for one; else its notice would be about nothing.
  const auto number = [&] { return paxNumber(keyword, value, log); };
  unsigned& set = record.m_paxFieldsSet;
  if (is("atime")) {
    record.m_atime = number();
    set |= PAX_ATIME;
  } else if (is("ctime")) {
    record.m_ctime = number();
    set |= PAX_CTIME;
  } else if (is("mtime")) {
    record.m_mtime = number();
    set |= PAX_MTIME;
  } else if (is("path")) {
    record.setWholePath(value);
    set |= PAX_PATH;
  } else if (is("size")) {
    record.m_size = number();
    set |= PAX_SIZE;
  } else if (is("gid")) {
    record.m_gid = number();
    set |= PAX_GID;
  } else if (is("gname")) {
    setOwned(record.m_groupName, value);
    set |= PAX_GNAME;
  } else if (is("linkpath")) {
    setOwned(record.m_linkPath, value);
    set |= PAX_LINKPATH;
  } else if (is("uid")) {
    record.m_uid = number();
    set |= PAX_UID;
  } else if (is("uname")) {
    setOwned(record.m_userName, value);
    set |= PAX_UNAME;
  }
}

// A value that holds a newline is cut there, and its rest is taken for a line. This reader goes by lines
// because archives with a wrong length in front are read that way.
const char* endOfLine(const char* text) {
  while (*text != '\0' && *text != '\n') ++text;
  return text;
}

// The length in front is passed over and never compared. A line without "=" says nothing. `value` is the
// caller's room of kLongestValue + 1 bytes, used for one line after the other.
void parsePaxLine(const char* line, const char* end, char* value, TarHeader& record, LogBase& log) {
  const char* at = line;
  while (at < end && *at != ' ') ++at;  // the length; a record ends where its line does
  while (at < end && *at == ' ') ++at;
  const char* const keywordStart = at;
  while (at < end && *at != '=' && at - keywordStart < kLongestKeyword) ++at;
  if (at == end || *at != '=') return;
  char keyword[kLongestKeyword + 1];
  const size_t keywordLength = static_cast<size_t>(at - keywordStart);
  std::memcpy(keyword, keywordStart, keywordLength);
  keyword[keywordLength] = '\0';
  ++at;
  const size_t valueLength = std::min<size_t>(static_cast<size_t>(end - at), kLongestValue);
  std::memcpy(value, at, valueLength);
  value[valueLength] = '\0';
  if (log.verbose()) {
    log.LogData("paxName", keyword);
    log.LogData("paxValue", value);
  }
  applyPaxRecord(keyword, value, record, log);
}

}  // namespace

// Stops at the first NUL: padding, or a value that holds one.
bool parsePaxExtendedHeader(const char* text, TarHeader& record, LogBase& log) {
  if (log.verbose()) log.LogInfo("Parsing PAX extended header...");
  char value[kLongestValue + 1];
  // Each line is a record, whatever length stands in front of it: so the component's own records that state
  // one byte too few are read rightly.
  while (*text != '\0') {
    const char* const end = endOfLine(text);
    parsePaxLine(text, end, value, record, log);
    text = *end == '\n' ? end + 1 : end;
  }
  return true;
}

// Mode, ids, access and change time stay those of the record's header, with what the record set in them. So a
// member behind a record has the mode and owner that the record's own block states.
void combineHeaderPaxExtended(TarHeader& following, TarHeader& staged) {
  const auto notSet = [&staged](PaxField field) { return (staged.m_paxFieldsSet & field) == 0; };
  staged.m_typeFlag = following.m_typeFlag;
  // Told by the member's own block, as it was parsed: a path in the record does not make a directory.
  staged.m_isDirectory = following.m_isDirectory;
  // The header's own time wins over a pax one, on purpose.
  staged.m_mtime = following.m_mtime;
  staged.m_exactMtime = following.m_exactMtime;
  // What the record left out the block says.
  if (notSet(PAX_SIZE)) staged.m_size = following.m_size;
  // The path the member's own header gives; the record's header has only a name of its own.
  if (notSet(PAX_PATH)) {
    staged.m_name.weakClear();
    staged.m_prefix.clear();
    staged.m_path = following.m_path;
  }
  if (notSet(PAX_GNAME)) staged.m_groupName = std::move(following.m_groupName);
  if (notSet(PAX_UNAME)) staged.m_userName = std::move(following.m_userName);
  // Read where the record gave no link path.
  staged.m_linkName = following.m_linkName;
}

// Here everything but the path is the member's own, except what only a pax record could have set before. The
// link path of a pax record in front of both therefore stays, and the block's link name is not read.
void combineHeaderLongFilename(TarHeader& following, TarHeader& staged) {
  staged.m_typeFlag = following.m_typeFlag;
  staged.m_isDirectory = following.m_isDirectory;
  staged.m_mode = following.m_mode;
  staged.m_uid = following.m_uid;
  staged.m_gid = following.m_gid;
  staged.m_size = following.m_size;
  staged.m_mtime = following.m_mtime;
  staged.m_exactMtime = following.m_exactMtime;
  staged.m_groupName = std::move(following.m_groupName);
  staged.m_userName = std::move(following.m_userName);
  staged.m_linkName = following.m_linkName;
}

}  // namespace morvane
