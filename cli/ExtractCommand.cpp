// mvtar -x
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <system_error>
#include <utility>

#include "cli/ArchiveOutput.h"
#include "cli/Commands.h"
#include "cli/InterruptEvent.h"
#include "cli/MemberEvent.h"
#include "cli/MemberKind.h"
#include "cli/ReadArchive.h"
#include "runtime/log/LogCause.h"
#include "runtime/progress/ProgressMonitor.h"
#include "runtime/progress/TarMember.h"
#include "tar/format/EntryPath.h"
#include "tar/place/ExtractTarget.h"

namespace mvtar {

namespace {

using morvane::ClsTar;
using morvane::TarMemberInfo;

// What was asked for and is not kept of a member, by the event of the component, and of how many others.
struct NotKept {
  const char *event, *message, *countEvent, *countMessage;
};
// The component's names are part of its interface.
constexpr NotKept kNotKept[] = {
    {"ownerNotKept", "the owner is not kept", "ownersNotKept", "members without their owner"},
    {"modeNotKept", "the mode is not kept", "modesNotKept", "members without their mode"},
    {"timesNotKept", "the times are not kept", "allTimesNotKept", "members without their times"},
    {"attributesNotKept", "attributes are not kept", "allAttributesNotKept", "members without attributes"},
    {"linkNotKept", "a link cannot be made here; it is a copy", "linksNotKept", "copies in place of links"},
    {"deviceNotKept", "the device is not made", "devicesNotKept", "devices not made"},
};

// Back slashes separate, too: the component makes slashes of them.
std::string lastPartOf(const std::string& path) { return path.substr(path.find_last_of("/\\") + 1); }

// Names members as they are extracted, and what becomes different on the disk. Selection is MemberEvent's.
class ExtractEvent : public MemberEvent {
 public:
  ExtractEvent(ClsTar& tar, Report& report, ProgressBar& bar, const CommandLine& line)
      : MemberEvent(report, bar, line), m_tar(tar) {}

  void onTarEntry(const char*, long long size, bool isDirectory, bool& skip) override {
    // Straight into the target there is no place for a directory.
    skip = !isSelected() || m_isTooLong || (isDirectory && m_line.stripPaths);
    if (skip) return;
    nameWhatChanges();
    begin(m_path, isDirectory ? 0 : size);
  }

  // Behind the selection, so that patterns are tested on the name before it is changed. What is left without
  // a name is not begun after all.
  void onTarMember(morvane::TarMember& member) override {
    const std::string before = member.path;
    // The component refuses it under the name that it has.
    if (leadsOut(before)) return;
    m_line.changes.applyReading(member);
    if (m_line.stripPaths) member.path = lastPartOf(member.path);
    if (member.skip || member.path.empty()) drop();
    // From here on it is told of by the path that the component's rules make of the new one.
    if (member.path == before) return;
    m_entryPath = morvane::leftOfEntryPath(member.path, m_line.stripPaths, !m_line.keepNames);
    std::replace(m_entryPath.begin(), m_entryPath.end(), '\\', '/');
  }

  // What was begun and not made is dropped from the count before it is told; a member whose times could not
  // be set is whole. The others are told with the first member and, at the end, by their number.
  void onInfo(const char* name, const char* value) override {
    // First, because a limit that ended the run is for every command that reads.
    MemberEvent::onInfo(name, value);
    const std::string_view what(name);
    // The reason is asked for here, because the component forgets it when this call returns.
    if (what == "refused" || what == "uncreatable" || what == "incomplete" || what == "timesNotSet") {
      if (what != "timesNotSet") dropIf(value);
      const bool isPart = what == "incomplete" && isInterrupted();
      m_report.problem(value, isPart ? "only a part of it is there"
                                     : (what == "refused" ? "refused: " : "") + failureReason(m_tar));
      return;
    }
    if (what == "exists" || what == "kept") {
      dropIf(value);
      if (what == "exists") m_report.problem(value, "it is there already, and is kept");
      return;
    }
    for (const NotKept& row : kNotKept) {
      if (what == row.event) {
        // That one is not there at all, and each is told; it is named once.
        const bool isDevice = what == "deviceNotKept";
        if (isDevice) dropIf(value);
        if (isDevice && std::exchange(m_deviceNamed, true)) return;
        // A copy in place of a link has no reason but that.
        const std::string reason = what == "linkNotKept" ? "" : failureReason(m_tar);
        m_report.problem(value, row.message + (reason.empty() ? "" : ": " + reason));
      } else if (what == row.countEvent) {
        m_report.problem(m_line.archive, std::string(value) + " " + row.countMessage);
      }
    }
  }

 private:
  // What is told may be about a member before this one, which workers could not make.
  void dropIf(const char* entryPath) {
    if (m_entryPath == entryPath) drop();
  }

  void onSelected(const TarMemberInfo& member) override {
    // Skipped here, so that it is named in the command's own words.
    m_isTooLong = std::strlen(member.entryPath) > morvane::ExtractTarget::kLongestPath;
    if (m_isTooLong) {
      m_report.problem(member.path, "the path is too long to be created");
      return;
    }
    m_path = member.path;
    m_entryPath = member.entryPath;
    // FIFOs and devices of strangers are not made.
    m_isEmptied = kindOf(member).isSpecial() && m_line.untrusted;
  }

  // Each of these loses something without the component failing: so the command says it. Leading slashes are
  // told once, since an archive that has one has them all. Members of one last name replace each other under
  // --strip-paths, the last one stays; the same path twice is no surprise.
  void nameWhatChanges() {
    if (m_isEmptied) m_report.problem(m_path, "a FIFO or device is kept as an empty file");
    if (m_path.find('\\') != std::string::npos) {
      m_report.problem(m_path, "a back slash cannot be kept; it becomes a slash");
    }
    if (m_path[0] == '/' && !m_line.keepNames && !m_slashesNamed) {
      m_slashesNamed = true;
      m_report.notice(m_path, "leading slashes are left off");
    }
    if (m_line.stripPaths) {
      const std::string lastPart = lastPartOf(m_line.changes.pathWhenReading(m_path));
      const auto [found, isNew] = m_lastParts.emplace(lastPart, m_path);
      if (!isNew && found->second != m_path && !lastPart.empty()) {
        m_report.problem(m_path, "it replaces another member of the same last name");
      }
      found->second = m_path;
    }
  }

  ClsTar& m_tar;
  // Of the member that is being looked at.
  bool m_isTooLong = false;
  std::string m_path, m_entryPath;
  bool m_isEmptied = false;
  bool m_slashesNamed = false;
  bool m_deviceNamed = false;
  // Only with --strip-paths, where names meet that were apart.
  // By last part, the whole path that it came from. It grows with the names of the archive.
  std::map<std::string, std::string> m_lastParts;  // and the paths they came from
};

// For -O: the selected files, one behind the other, to standard output. Directories are never offered then;
// links and special files have no data.
class OutputEvent : public MemberEvent {
 public:
  // The output, where the component puts the data, must outlive it.
  OutputEvent(Report& report, ProgressBar& bar, const CommandLine& line, morvane::OutputFile& out)
      : MemberEvent(report, bar, line), m_out(out) {}

  // The component drops what a pipe has not taken of a job that is aborted. What is enough is wanted, so that
  // it goes out first.
  void onAbortCheck(bool& abort) override {
    MemberEvent::onAbortCheck(abort);
    if (!enoughSeen() || isInterrupted()) return;
    InterruptEvent event;
    morvane::ProgressMonitor monitor(event, 1, 0, 0);
    morvane::LogCause log;
    if (!m_out.flush(&monitor, log) && !isInterrupted())
      m_report.problem(kStandardOutput, log.cause().reason);
  }
  void onTarEntry(const char*, long long size, bool, bool& skip) override {
    skip = !isSelected() || !m_isWanted;
    if (skip) return;
    begin(m_path, size);
  }

 private:
  void onSelected(const TarMemberInfo& member) override {
    m_path = std::string(member.path, strnlen(member.path, kShownAtMost));
    // The name decides as in extraction, although no file gets it.
    m_isWanted = !nameIfExtracted(member).empty() && kindOf(member).hasData();
  }

  // Of a name of many megabytes no second copy is kept; it is only shown.
  static constexpr size_t kShownAtMost = 1 << 20;

  morvane::OutputFile& m_out;
  std::string m_path;
  bool m_isWanted = false;
};

// The target is made even if nothing is put into it. A path too long for the system is left to the component.
// Made before anything is read, so that an archive of nothing leaves an empty directory, as the user asked
// for one.
bool makeTarget(const CommandLine& line, Report& report) {
  std::error_code error;
  // Links to directories on the way are followed, as they are the user's own.
  // As the shell's mkdir -p would: what is missing is made with the modes that the umask leaves.
  if (!line.targetDir.empty()) std::filesystem::create_directories(line.targetDir, error);
  if (!error || error == std::errc::filename_too_long) return true;
  report.problem(line.targetDir, error.message());
  return false;
}

// With threads a file is told of as begun while earlier ones may yet fail. Who is told which members are
// done, and how many, wants to know it at that moment. Where the component counts files it makes each in its
// turn.
void makeEachInItsTurn(const CommandLine& line, ClsTar& tar) {
  if (line.verbose || line.totals || line.maxCount > 0)
    tar.put_UntarMaxCount(std::numeric_limits<int>::max());
}

}  // namespace

// Enough may have been seen before the archive's end (--max-count): then a run that was stopped is no
// failure. Operands that matched nothing are named only if the whole archive was looked through.
int extractArchive(const CommandLine& line) {
  ReadJob job(line, false);
  if (!job.open() || !makeTarget(line, job.report)) return job.finish();
  makeEachInItsTurn(line, job.tar);
  ExtractEvent event(job.tar, job.report, job.bar, line);
  const bool ok = job.archive.read(job.tar, event) || event.enoughSeen();
  job.bar.clear();
  if (cameToTheEnd(job.tar, ok)) {
    event.settle();
    event.nameUnfound();
  }
  return job.finish(event, ok, "the rest was not extracted");
}

// Closed before success is claimed: a full disk or a reader that has gone shows as late as that. That no file
// matched is no failure by itself: a MEMBER that was not found is named, as in the other commands.
int extractToStandardOutput(const CommandLine& line) {
  // Messages keep off standard output, which is the file's.
  ReadJob job(line, true);
  if (!job.open()) return job.finish();
  const std::unique_ptr<morvane::OutputFile> out = standardOutput(job.report);
  if (!out) return job.finish();
  // It only chooses members; their data go from the component straight to the output.
  OutputEvent event(job.report, job.bar, line, *out);
  bool ok = job.tar.UntarMembersToOutput(job.archive.source(), *out, &event) || event.enoughSeen();
  // The component fails where no member was handed over; everything else of the run went well then.
  const bool none = !ok && job.tar.get_OnlyLeftOut();
  ok = closeOutput(*out, kStandardOutput, job.report) && (ok || none);
  job.bar.clear();
  if (ok) {
    event.settle();
    event.nameUnfound();
  }
  return job.finish(event, ok);
}

}  // namespace mvtar
