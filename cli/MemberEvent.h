// What the reading commands do with the component's events: each member is selected by its stored path, and
// what the archive says of it stays at hand until its entry is decided.
#pragma once

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>

#include "cli/Dates.h"
#include "cli/Interrupt.h"
#include "cli/MemberKind.h"
#include "cli/ProgressBar.h"
#include "cli/Report.h"
#include "cli/Selection.h"
#include "runtime/progress/ProgressEvent.h"
#include "runtime/progress/TarMemberInfo.h"
#include "runtime/text/XString.h"

namespace mvtar {

// Operands of reading commands are members; their directories mean nothing here.
inline std::vector<std::string> operandPaths(const CommandLine& line) {
  std::vector<std::string> paths;
  for (const Operand& operand : line.operands) paths.push_back(operand.path);
  return paths;
}

// The texts of a member in UTF-8, from the character set that --charset names: what a person reads and types.
// For UTF-8, the usual case, nobody needs one: texts are shown as they are.
class MemberDecoder {
 public:
  // Takes from the command line what it needs, and keeps nothing of it.
  explicit MemberDecoder(const CommandLine& line)
      : m_charset(line.charset),
        m_isUtf8(morvane::XString(line.charset).equalsIgnoreCaseUtf8("utf-8")),
        m_stripsPaths(line.stripPaths) {}

  bool isUtf8() const { return m_isUtf8; }
  // Valid until the next member. The texts of the result point into this object or into what the component
  // lent. By value: the component's own information is left as it is.
  morvane::TarMemberInfo decoded(morvane::TarMemberInfo member) {
    // What the path rules leave alone the component has decoded already; a name may have many megabytes.
    const bool isAsStored = *member.path != '/' && !std::strchr(member.path, '\\') && !m_stripsPaths;
    if (isAsStored) {
      member.path = member.entryPath;
    } else {
      decode(member.path, m_texts[0]);
    }
    decode(member.linkPath, m_texts[1]);
    decode(member.userName, m_texts[2]);
    decode(member.groupName, m_texts[3]);
    return member;
  }

 private:
  void decode(const char*& text, morvane::XString& decoded) const {
    decoded.clear();
    decoded.appendFromEncoding(text, m_charset.c_str());
    text = decoded.getUtf8();
  }

  const std::string m_charset;
  const bool m_isUtf8, m_stripsPaths;
  morvane::XString m_texts[4];
};

// A derived class says what becomes of a selected member: it counts it at once, or begins it and has it
// counted when its data have come to their end. A limit on the count ends the run at the header behind, and
// so not in a member.
//
// It lives as long as one command and is called by one thread.
class MemberEvent : public morvane::ProgressEvent {
 public:
  // Report, bar and command line must outlive it.
  MemberEvent(Report& report, ProgressBar& bar, const CommandLine& line)
      : m_report(report),
        m_line(line),
        m_selection(operandPaths(line), line.matches, line.excludes, !line.nameFiles.empty(), line.recurses),
        m_decoder(line),
        m_bar(bar) {}

  // Whether --max-count was reached and the last counted member is complete: how the run ends then does not
  // matter.
  bool enoughSeen() const { return m_enoughSeen; }
  // What was counted: members, and bytes of their data.
  long long members() const { return m_members; }
  long long bytes() const { return m_bytes; }

  // Only after a whole run: one that ended early has not seen everything.
  void nameUnfound() {
    if (m_enoughSeen) return;
    for (const std::string& name : m_selection.unfound()) m_report.problem(name, "not found in the archive");
  }

  // Ends the run once enough was seen; whoever asks how it ended asks enoughSeen first.
  void onAbortCheck(bool& abort) override { abort = m_enoughSeen || isInterrupted(); }
  // The component's scale is the bar's (ReadJob::open).
  void onTotal(long long bytes) override { m_bar.setTotal(bytes); }
  void onProgress(int parts, bool&) override { m_bar.show(parts); }

  // What was begun is done: it counts, and is named with -v. Call it after a run that came to its end.
  void settle() {
    if (!m_isBegun) return;
    m_isBegun = false;
    count(m_begunBytes);
    if (m_line.verbose && !m_begunPath.empty()) m_report.name(m_begunPath);
  }

  // "limit" names the option word that ended the run; everything else is heard by derived classes.
  void onInfo(const char* name, const char* value) override {
    if (std::string_view(name) == "limit") m_limit = value;
  }
  // The limit that ended the run, "Word=value"; empty when none did.
  const std::string& limit() const { return m_limit; }

  // The next header is the proof that the data of the member before are complete.
  void onTarHeader(const morvane::TarMemberInfo& member) override {
    settle();
    m_enoughSeen = m_line.maxCount > 0 && m_members >= m_line.maxCount;
    if (m_enoughSeen || m_decoder.isUtf8()) {
      select(member);
    } else {
      select(m_decoder.decoded(member));
    }
  }

 protected:
  // Called for each member that the command is about, in the order of the archive. Its texts are valid during
  // the call only.
  virtual void onSelected(const morvane::TarMemberInfo& member) = 0;
  // The sum stops at the largest value: sizes are claims.
  void count(long long bytes) {
    ++m_members;
    m_bytes += std::min(bytes, std::numeric_limits<long long>::max() - m_bytes);
  }
  // A member's data are next; what becomes of them shows later. The path must stay until the next header; it
  // is empty where the member has been named.
  void begin(std::string_view path, long long bytes) {
    m_isBegun = true;
    m_begunPath = path;
    m_begunBytes = bytes;
  }
  // The member that was begun was not done after all; it does not count.
  void drop() { m_isBegun = false; }
  // Whether the member of the last header was.
  bool isSelected() const { return m_isSelected; }

  // For derived classes, as m_line is.
  Report& m_report;
  const CommandLine& m_line;

 private:
  // With names as a person types them.
  void select(const morvane::TarMemberInfo& member) {
    m_isSelected = !m_enoughSeen && m_selection.takes(member.path) && !isTooOld(member);
    // Nothing by itself: it can be listed and no more.
    if (m_isSelected && member.typeFlag == kContinuation) {
      m_report.problem(member.path, "continued from another volume");
      m_isSelected = m_line.mode == Mode::List;
    }
    if (m_isSelected) onSelected(member);
  }

  // With --newer, by the time of the member: an archive has no other.
  bool isTooOld(const morvane::TarMemberInfo& member) const {
    return m_line.newerThan &&
           isEarlier({static_cast<time_t>(member.mtime), static_cast<long>(member.mtimeNanoseconds)},
                     *m_line.newerThan);
  }

  Selection m_selection;
  MemberDecoder m_decoder;
  ProgressBar& m_bar;
  bool m_isSelected = false;
  bool m_enoughSeen = false;
  // What `begin` was told, until it is settled or dropped.
  bool m_isBegun = false;
  std::string m_limit;
  std::string_view m_begunPath;
  long long m_begunBytes = 0;
  long long m_members = 0, m_bytes = 0;
};

}  // namespace mvtar
