// mvtar -x
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <system_error>

#include "cli/ArchiveOutput.h"
#include "cli/Commands.h"
#include "cli/MemberEvent.h"
#include "cli/ReadArchive.h"
#include "tar/place/ExtractTarget.h"

namespace mvtar {

namespace {

using morvane::ClsTar;
using morvane::TarMemberInfo;

constexpr char kSparse[] = "a sparse file is kept as its stored pieces";

// Where GNU tar and bsdtar put the stored pieces in a pax archive.
bool isPaxSparse(const char* path) {
  constexpr char kPart[] = "/GNUSparseFile.";
  return std::strstr(path, kPart) || std::strncmp(path, kPart + 1, std::strlen(kPart + 1)) == 0;
}

const char* lostKind(const TarMemberInfo& member) {
  if (member.isDirectory) return nullptr;
  switch (member.typeFlag) {
    case '1':
      return "a hard link is kept as an ordinary file";
    case '2':
      return "a symbolic link is kept as an ordinary file";
    case '3':
    case '4':
      return "a device is kept as an ordinary file";
    case '6':
      return "a FIFO is kept as an ordinary file";
    case 'S':
      return kSparse;
    default:
      return isPaxSparse(member.path) ? kSparse : nullptr;
  }
}

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

  void onInfo(const char* name, const char* value) override {
    MemberEvent::onInfo(name, value);
    const std::string_view what(name);
    if (what == "refused" || what == "uncreatable" || what == "incomplete" || what == "timesNotSet") {
      if (what != "timesNotSet") drop();
      m_report.problem(value,
                       what == "refused" ? "refused: its path leaves the target" : failureReason(m_tar));
    }
  }

 private:
  void onSelected(const TarMemberInfo& member) override {
    m_isTooLong = std::strlen(member.entryPath) > morvane::ExtractTarget::kLongestPath;
    if (m_isTooLong) {
      m_report.problem(member.path, "the path is too long to be created");
      return;
    }
    m_path = member.path;
    m_lost = lostKind(member);
  }

  void nameWhatChanges() {
    if (m_lost) m_report.problem(m_path, m_lost);
    if (m_path.find('\\') != std::string::npos) {
      m_report.problem(m_path, "a back slash cannot be kept; it becomes a slash");
    }
    if (m_path[0] == '/' && !m_line.keepNames && !m_slashesNamed) {
      m_slashesNamed = true;
      m_report.notice(m_path, "leading slashes are left off");
    }
    if (m_line.stripPaths) {
      const std::string lastPart = m_path.substr(m_path.find_last_of("/\\") + 1);
      const auto [found, isNew] = m_lastParts.emplace(lastPart, m_path);
      if (!isNew && found->second != m_path) {
        m_report.problem(m_path, "it replaces another member of the same last name");
      }
      found->second = m_path;
    }
  }

  ClsTar& m_tar;
  bool m_isTooLong = false;
  std::string m_path;
  const char* m_lost = nullptr;
  bool m_slashesNamed = false;
  std::map<std::string, std::string> m_lastParts;  // and the paths they came from
};

class OutputEvent : public MemberEvent {
 public:
  using MemberEvent::MemberEvent;

  void onTarEntry(const char*, long long size, bool, bool& skip) override {
    skip = !isSelected();
    if (skip) return;
    if (m_lost) m_report.problem(m_path, m_lost);
    begin(m_path, size);
  }

 private:
  void onSelected(const TarMemberInfo& member) override {
    m_path = std::string(member.path, strnlen(member.path, kShownAtMost));
    m_lost = lostKind(member);
  }

  // Of a name of many megabytes no second copy is kept; it is only shown.
  static constexpr size_t kShownAtMost = 1 << 20;

  std::string m_path;
  const char* m_lost = nullptr;
};

// The target is made even if nothing is put into it. A path too long for the system is left to the component.
bool makeTarget(const CommandLine& line, Report& report) {
  std::error_code error;
  if (!line.targetDir.empty()) std::filesystem::create_directories(line.targetDir, error);
  if (!error || error == std::errc::filename_too_long) return true;
  report.problem(line.targetDir, error.message());
  return false;
}

}  // namespace

int extractArchive(const CommandLine& line) {
  ReadJob job(line, false);
  if (!job.open() || !makeTarget(line, job.report)) return job.finish();
  ExtractEvent event(job.tar, job.report, job.bar, line);
  const bool ok = job.archive.read(job.tar, event) || event.enoughSeen();
  job.bar.clear();
  if (cameToTheEnd(job.tar, ok)) {
    event.settle();
    event.nameUnfound();
  }
  return job.finish(event, ok, "the rest was not extracted");
}

int extractToStandardOutput(const CommandLine& line) {
  ReadJob job(line, true);
  if (!job.open()) return job.finish();
  const std::unique_ptr<morvane::OutputFile> out = standardOutput(job.report);
  if (!out) return job.finish();
  OutputEvent event(job.report, job.bar, line);
  bool ok = job.tar.UntarMemberToOutput(job.archive.source(), *out, &event);
  ok = closeOutput(*out, job.report) && ok;
  job.bar.clear();
  if (ok) event.settle();
  const bool none = !ok && job.tar.get_OnlyLeftOut();
  if (none) event.nameUnfound();
  return job.finish(event, ok || (none && job.report.anyProblem()));
}

}  // namespace mvtar
