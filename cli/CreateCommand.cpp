// mvtar -c
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <set>

#include "cli/ArchiveName.h"
#include "cli/ArchiveOutput.h"
#include "cli/Commands.h"
#include "cli/Interrupt.h"
#include "cli/Names.h"
#include "cli/ReadArchive.h"
#include "cli/Report.h"
#include "cli/Selection.h"
#include "runtime/codec/Compression.h"
#include "runtime/progress/TarMember.h"
#include "tar/ClsTar.h"

namespace mvtar {

namespace {

using morvane::ClsTar;
using morvane::Compression;
using morvane::XString;

constexpr char kEscape = '\x1B';

bool endsWith(const std::string& text, const char* ending) {
  const size_t length = std::strlen(ending);
  return text.size() >= length && text.compare(text.size() - length, length, ending) == 0;
}

// By the option, else by what the archive's name promises. A name that promises what can only be read (.Z)
// gets a plain archive.
Compression compressionOf(const CommandLine& line) {
  if (line.compression) return *line.compression;
  const Compression promised = morvane::compressionBySuffix(line.archive).value_or(Compression::None);
  return morvane::canBeWritten(promised) ? promised : Compression::None;
}

// Follows the write by its events: which member is being written, what is skipped, what went wrong. The
// component's words become lines of the command here. A member is done when the next one is offered, because
// nothing tells its end.
class CreateEvent : public morvane::ProgressEvent {
 public:
  CreateEvent(Report& report, ProgressBar& bar, ClsTar& tar, const CommandLine& line)
      : m_report(report),
        m_bar(bar),
        m_tar(tar),
        m_line(line),
        m_selection({}, line.matches, line.excludes) {}

  // Of members that are whole.
  long long members() const { return m_members; }
  long long bytes() const { return m_bytes; }

  // A signal only sets a flag; the component asks for it between pieces.
  void onAbortCheck(bool& abort) override { abort = isInterrupted(); }
  void onProgress(int parts, bool&) override { m_bar.show(parts); }

  // The first word of the next member, also of one that is going to be skipped.
  void onTarEntry(const char*, long long, bool, bool&) override { settle(); }

  // Selection goes by the path in the archive, which is what the user sees in a listing; the component's own
  // filter would go by the local one. What is excluded takes all below it along; what merely does not match
  // may have members below that do. A path that ustar cannot hold is told here, with the others of its kind,
  // instead of ending the archive.
  void onTarMember(morvane::TarMember& member) override {
    m_localPath = member.localPath;
    m_nothingBelow =
        m_selection.excludes(member.path) || (m_line.maxCount > 0 && m_members >= m_line.maxCount);
    member.skip = m_nothingBelow || !m_selection.takes(member.path);
    if (member.skip) return;
    // The component adds the slash later, and it counts.
    const bool isDirectory = member.typeFlag == '5';
    if (m_line.formatToWrite() == "ustar" && !fitsUstar(isDirectory ? member.path + "/" : member.path)) {
      m_report.problem(member.localPath, "its name is too long for the ustar format");
      member.skip = true;
      return;
    }
    m_isBegun = true;
    m_size = member.size;
    m_isDirectory = isDirectory;
  }

  // The component's names of what happened (ProgressEvent.h). Each is a problem and makes the exit status 2,
  // but for a socket, which no tar keeps.
  void onInfo(const char* name, const char* value) override {
    const std::string_view what(name);
    if (what == "pathInTar") {
      m_name = value;
    } else if (what == "unreadable") {
      noteUnreadable(value);
    } else if (what == "sizeChanged") {
      m_report.problem(value, "its size changed while it was archived");
    } else if (what == "readFailed") {
      m_report.problem(value, failureReason(m_tar));
    } else if (what == "unstorable") {
      m_isBegun = false;
      m_report.problem(value, failureReason(m_tar));
    } else if (what == "attributesNotStored") {
      m_report.problem(value, "attributes can be stored in the pax format alone");
    } else if (what == "allAttributesNotStored") {
      m_report.problem(m_line.archive, std::string(value) + " members without attributes");
    } else if (what == "socket") {
      m_report.notice(value, "a socket is left out");
    } else if (what == "userUnknown") {
      m_report.problem("user database", std::string(value) + "; owners are stored by number alone");
    }
  }

  // What was begun is done. Call it after a run that came to its end.
  void settle() {
    if (!m_isBegun) return;
    m_isBegun = false;
    ++m_members;
    m_bytes += m_size;
    // On this system a back slash is a letter of a name; the component stores a slash.
    if (m_name.find('\\') != std::string::npos) {
      m_report.problem(m_name, "a back slash cannot be stored; it becomes a slash");
    }
    if (m_line.verbose) m_report.name(m_isDirectory && !endsWith(m_name, "/") ? m_name + "/" : m_name);
  }

  // Whether what the component missed is all that was not wanted anyway.
  bool missedOnlyUnwanted() const { return m_unwantedMissed && m_unreadable.empty(); }

 private:
  // Of a directory that is skipped, what may lie below is missed. The path is the member's own, or a
  // directory's that was written before and cannot be walked into.
  void noteUnreadable(const std::string& path) {
    // A tree whose root cannot be read, or a directory on the way back up.
    if (path != m_localPath) {
      settle();
    } else if (m_nothingBelow) {
      m_unwantedMissed = true;
      return;
    }
    m_isBegun = false;
    if (m_unreadable.insert(path).second) m_report.problem(path, failureReason(m_tar));
  }

  // By the component's own rule, so that both agree. One byte more than the prefix's field is let pass, as it
  // is the slash between prefix and name.
  bool fitsUstar(const std::string& name) const {
    constexpr size_t kName = 100, kPrefix = 155, kAll = kPrefix + kName;
    if (name.size() <= kName || name.size() > kAll) return true;  // even longer ones go into a record
    morvane::LogNull unwanted;
    XString last, prefix;
    return m_tar.splitPathForTar(name, last, prefix, unwanted) && prefix.str().size() <= kPrefix + 1;
  }

  Report& m_report;
  ProgressBar& m_bar;
  ClsTar& m_tar;
  const CommandLine& m_line;
  Selection m_selection;
  std::set<std::string> m_unreadable;  // a directory is a member and the root of a tree
  std::string m_localPath;             // of the last entry
  bool m_nothingBelow = false;         // of it is wanted
  bool m_unwantedMissed = false;
  bool m_isBegun = false;  // the member that is being written:
  std::string m_name;
  long long m_size = 0;
  bool m_isDirectory = false;
  long long m_members = 0, m_bytes = 0;
};

// The operands on their way into the component, where each becomes single files and trees.
class Sources {
 public:
  Sources(const CommandLine& line, Report& report, ClsTar& tar)
      : m_line(line), m_report(report), m_tar(tar), m_selection({}, {}, line.excludes) {}

  // Hands the operands to the component. What is missing is named and left out.
  void add() {
    m_prefix = nameOf(m_line.prefix);
    for (const Operand& operand : m_line.operands) addOperand(operand);
  }

 private:
  // What a path is called in the archive. What is left off is said, once for as long as it is the same.
  std::string nameOf(const std::string& path) {
    const ArchiveName stored = archiveNameOf(path, m_line.keepNames);
    if (!stored.removed.empty() && stored.removed != m_lastRemoved) {
      m_report.notice(path, "leading '" + shown(stored.removed) + "' is left off");
      m_lastRemoved = stored.removed;
    }
    return stored.name;
  }

  // Looked at now for a message of the command's own, and because a directory is a member and a tree, while
  // anything else is a member alone. ESC is what the component separates stored paths with.
  void addOperand(const Operand& operand) {
    const std::string local = operand.localPath();
    struct stat status;
    if (operand.path.empty() || lstat(local.c_str(), &status) != 0) {
      m_report.problem(local, operand.path.empty() ? "an empty path" : std::strerror(errno));
      return;
    }
    const std::string name = joinNames(m_prefix, nameOf(operand.path));
    if (m_selection.excludes(name)) return;
    if (local.find(kEscape) != std::string::npos || name.find(kEscape) != std::string::npos) {
      m_report.problem(operand.path, "a name with an escape character cannot be archived");
      return;
    }
    // A slash at the end asks for what a link points at.
    const bool throughLink =
        S_ISLNK(status.st_mode) && (operand.path.back() == '/' || m_line.keeping.followsLinks);
    if (throughLink && stat(local.c_str(), &status) != 0) {
      m_report.problem(operand.path, std::strerror(errno));
      return;
    }
    if (!S_ISDIR(status.st_mode)) {
      addSingle(local, name);
      return;
    }
    // "." has no name in the archive, and so is a tree alone.
    if (!name.empty()) addSingle(local, name);
    if (!m_tar.AddDirRoot2(name, local)) m_report.failure(m_tar, operand.path);
  }

  // Always with its name: AddFile would take the last part of the path.
  void addSingle(const std::string& local, const std::string& name) {
    if (!m_tar.AddFile2(local, name)) m_report.failure(m_tar, local);
  }

  const CommandLine& m_line;
  Report& m_report;
  ClsTar& m_tar;
  const Selection m_selection;
  // As it is called in the archive.
  std::string m_prefix;
  std::string m_lastRemoved;
};

// To a path, the component opens and closes the file; standard output is the command's to close, and the
// result counts only behind that.
bool write(ClsTar& tar, const CommandLine& line, morvane::ProgressEvent& event, Report& report) {
  const Compression compression = compressionOf(line);
  const auto writeTo = [&](auto& out) {
    switch (compression) {
      case Compression::Gzip:
        return tar.WriteTarGz(out, &event);
      case Compression::Bzip2:
        return tar.WriteTarBz2(out, &event);
      case Compression::Zstd:
        return tar.WriteTarZst(out, &event);
      case Compression::Xz:
        return tar.WriteTarXz(out, &event);
      case Compression::None:
      case Compression::Compress:  // is never asked for
        break;
    }
    return tar.WriteTar(out, &event);
  };
  if (!line.usesStandardStream()) {
    const XString path(line.archive);
    return writeTo(path);
  }
  const std::unique_ptr<morvane::OutputFile> out = standardOutput(report);
  if (!out) return false;
  const bool written = writeTo(*out);
  return closeOutput(*out, report) && written;
}

}  // namespace

// Options of the user come last, behind what the command asks for itself: the last of a word wins. A total is
// counted for a bar that may be shown only. What the component counts as left out is no failure if it was not
// wanted anyway. The last member is settled only if the run came to its end; one that broke off may be in it.
int createArchive(const CommandLine& line) {
  ProgressBar bar(line.progress);
  // Standard output may be the archive: then messages keep off it.
  Report report(bar, line.usesStandardStream());
  if (!isNoTerminal(line, report)) return report.finish();
  ClsTar tar;
  Sources sources(line, report, tar);
  sources.add();
  tar.put_WriteFormat(line.formatToWrite());
  tar.put_PercentScale(ProgressBar::kScale);
  tar.put_UncommonOptions(
      (line.writingWords() + (bar.mayBeShown() ? "" : ",NoTotal") + line.options).c_str());
  CreateEvent event(report, bar, tar, line);
  bool ok = write(tar, line, event, report);
  if (event.missedOnlyUnwanted() && tar.get_OnlyLeftOut()) ok = true;
  bar.clear();
  if (line.printLog) report.log(tar);
  // Whatever the write returned: a signal explains it better than the reason that the component has.
  if (isInterrupted()) {
    report.notice(line.archive, "interrupted; the archive is incomplete");
    return interruptStatus();
  }
  if (cameToTheEnd(tar, ok)) event.settle();
  if (!ok) report.failure(tar, line.archive);
  if (line.totals) report.totals(event.members(), event.bytes());
  return report.finish();
}

}  // namespace mvtar
