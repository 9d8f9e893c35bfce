// What the reading commands do with the component's events: each member is selected by its stored path, and
// what the archive says of it stays at hand until its entry is decided.
#pragma once

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>

#include "cli/ArchiveName.h"
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

// Operands of reading commands are members; their directories mean nothing here. In the order of the line, as
// unfound ones are told.
inline std::vector<std::string> operandPaths(const CommandLine& line) {
  std::vector<std::string> paths;
  for (const Operand& operand : line.operands) paths.push_back(operand.path);
  return paths;
}

// The texts of a member in UTF-8, from the character set that --charset names: what a person reads and types.
// For UTF-8, the usual case, nobody needs one: texts are shown as they are. Bytes that make no sense in the
// character set are the converter's affair; nothing fails here.
class MemberDecoder {
 public:
  // Takes from the command line what it needs, and keeps nothing of it.
  explicit MemberDecoder(const CommandLine& line)
      : m_charset(line.charset),
        m_isUtf8(morvane::XString(line.charset).equalsIgnoreCaseUtf8("utf-8")),
        m_stripsPaths(line.stripPaths) {}

  // Whether `decoded` may be left out.
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
    // Owners' names are in the character set of the system that wrote the archive, as paths are.
    decode(member.userName, m_texts[2]);
    decode(member.groupName, m_texts[3]);
    return member;
  }

 private:
  // Replaces the text by its decoded form, which `decoded` owns. The empty text is converted, too.
  void decode(const char*& text, morvane::XString& decoded) const {
    decoded.clear();
    decoded.appendFromEncoding(text, m_charset.c_str());
    text = decoded.getUtf8();
  }

  // By its iconv name, checked when the command line was parsed.
  const std::string m_charset;
  // "utf-8" is compared without regard to case, as iconv takes its names. Other names of the same set are
  // decoded, which changes nothing.
  const bool m_isUtf8, m_stripsPaths;
  // Path, link, user and group, each of which is valid at the same time.
  morvane::XString m_texts[4];
};

// A derived class says what becomes of a selected member: it counts it at once, or begins it and has it
// counted when its data have come to their end. A limit on the count ends the run at the header behind, and
// so not in a member: the last one that is counted is complete. What comes for a member, in this order:
// onTarHeader, from which onSelected is called; onTarEntry and onTarMember where the run extracts; onInfo
// with what went wrong. A file that workers make may have its onInfo behind the header of a later member. It
// lives as long as one command and is called by one thread, whatever threads the component uses.
class MemberEvent : public morvane::ProgressEvent {
 public:
  // Report, bar and command line must outlive it.
  MemberEvent(Report& report, ProgressBar& bar, const CommandLine& line)
      : m_report(report),
        m_line(line),
        // With -T an empty list of MEMBERs means no member instead of all.
        m_selection(operandPaths(line), line.matches, line.excludes, !line.nameFiles.empty(), line.recurses),
        m_decoder(line),
        m_bar(bar) {}

  // Whether --max-count was reached and the last counted member is complete: how the run ends then does not
  // matter.
  bool enoughSeen() const { return m_enoughSeen; }
  // What was counted: members, and bytes of their data.
  long long members() const { return m_members; }
  // Sizes as the archive states them, which for a hostile one may be anything up to the largest value.
  long long bytes() const { return m_bytes; }

  // MEMBERs that matched nothing, each as a problem. Only after a whole run: one that ended early has not
  // seen everything.
  void nameUnfound() {
    // With --max-count nobody has looked at what is behind the last member.
    if (m_enoughSeen) return;
    for (const std::string& name : m_selection.unfound()) m_report.problem(name, "not found in the archive");
  }

  // Ends the run once enough was seen; whoever asks how it ended asks enoughSeen first. The component calls
  // that an abort, as it calls an interrupt.
  void onAbortCheck(bool& abort) override { abort = m_enoughSeen || isInterrupted(); }
  // The component's scale is the bar's (ReadJob::open).
  void onTotal(long long bytes) override { m_bar.setTotal(bytes); }
  // The other argument would end the run; onAbortCheck is where that is decided.
  void onProgress(int parts, bool&) override { m_bar.show(parts); }

  // What was begun is done: it counts, and is named with -v. Call it after a run that came to its end; in
  // between the next header does. Nothing happens where nothing was begun.
  void settle() {
    if (!m_isBegun) return;
    m_isBegun = false;
    // Members of no data count as well.
    count(m_begunBytes);
    if (m_line.verbose && !m_begunPath.empty()) m_report.name(m_begunPath);
  }

  // "limit" names the option word that ended the run; everything else is heard by derived classes, which call
  // this one first. Both texts are valid during the call only.
  void onInfo(const char* name, const char* value) override {
    if (std::string_view(name) == "limit") m_limit = value;
  }
  // The limit that ended the run, "Word=value"; empty when none did. Valid as long as this.
  const std::string& limit() const { return m_limit; }

  // The next header is the proof that the data of the member before are complete. Derived classes that
  // override it call this one.
  void onTarHeader(const morvane::TarMemberInfo& member) override {
    // This member's own turn comes behind that of the one before, whose line with -v is printed first.
    settle();
    // Nothing behind the last wanted member is looked at: neither selected nor named, whatever the component
    // still sends before it has asked whether to abort.
    m_enoughSeen = m_line.maxCount > 0 && m_members >= m_line.maxCount;
    // For these the texts are good as they are, and need not be decoded.
    if (m_enoughSeen || m_decoder.isUtf8()) {
      select(member);
    } else {
      select(m_decoder.decoded(member));
    }
  }

 protected:
  // What the member is called once options have changed its name; empty where extraction would pass it over,
  // or refuse it, which is then told. For commands that take data without making a file of them.
  std::string nameIfExtracted(const morvane::TarMemberInfo& member) {
    std::string name = m_line.changes.pathWhenReading(member.path);
    if (!leadsOut(member.path) && !leadsOut(name)) return name;
    m_report.problem(leadsOut(member.path) ? member.path : name, "refused: its path leaves the target");
    return {};
  }
  // More than slashes in front is what leads out. It is asked of stored names and of changed ones, because no
  // option makes a good name of one that an archive should not have.
  bool leadsOut(const std::string& name) const {
    return !m_line.keepNames && archiveNameOf(name, false).removed.size() > 1;
  }
  // Called for each member that the command is about, in the order of the archive. Its texts are valid during
  // the call only, decoded where --charset asks for it; but `entryPath` is always what the component made of
  // the path.
  virtual void onSelected(const morvane::TarMemberInfo& member) = 0;
  // One member more, with the bytes of its data. The sum stops at the largest value: sizes are claims.
  void count(long long bytes) {
    ++m_members;
    m_bytes += std::min(bytes, std::numeric_limits<long long>::max() - m_bytes);
  }
  // A member's data are next; what becomes of them shows later. The path must stay until the next header; it
  // is empty where the member has been named.
  void begin(std::string_view path, long long bytes) {
    m_isBegun = true;
    m_begunPath = path;
    // A member that was begun before and neither settled nor dropped is forgotten.
    m_begunBytes = bytes;
  }
  // The member that was begun was not done after all; it does not count. Without effect where none was begun.
  void drop() { m_isBegun = false; }
  // Whether the member of the last header was selected: onTarEntry brings a path on the disk, from which that
  // could not be told.
  bool isSelected() const { return m_isSelected; }

  // For derived classes, as m_line is. Neither is owned.
  Report& m_report;
  // Read for each member, and changed by nobody meanwhile.
  const CommandLine& m_line;

 private:
  // With names as a person types them, since MEMBERs and patterns are compared with them.
  void select(const morvane::TarMemberInfo& member) {
    // The selection is asked before the date, because it notes which MEMBERs exist, whatever their time.
    m_isSelected = !m_enoughSeen && m_selection.takes(member.path) && !isTooOld(member);
    // Nothing by itself: it can be listed and no more.
    if (m_isSelected && member.typeFlag == kContinuation) {
      m_report.problem(member.path, "continued from another volume");
      m_isSelected = m_line.mode == Mode::List;
    }
    // Last, so that a derived class may ask isSelected in it.
    if (m_isSelected) onSelected(member);
  }

  // With --newer, by the time of the member: an archive has no other. What is as old as the date is taken.
  bool isTooOld(const morvane::TarMemberInfo& member) const {
    return m_line.newerThan &&
           isEarlier({static_cast<time_t>(member.mtime), static_cast<long>(member.mtimeNanoseconds)},
                     *m_line.newerThan);
  }

  // Which members are meant, and which MEMBERs were found.
  Selection m_selection;
  // Only used where --charset names another set than UTF-8.
  MemberDecoder m_decoder;
  // Not for derived classes, which write by way of the report.
  ProgressBar& m_bar;
  // Of the last header.
  bool m_isSelected = false;
  // True from the header behind the last wanted member on.
  bool m_enoughSeen = false;
  // What `begin` was told, until it is settled or dropped.
  bool m_isBegun = false;
  // As the component has told it.
  std::string m_limit;
  // Refers to a text of the derived class, which is the reason why it must stay: no copy is made for each of
  // perhaps a million members.
  std::string_view m_begunPath;
  long long m_begunBytes = 0;
  long long m_members = 0, m_bytes = 0;
};

}  // namespace mvtar
