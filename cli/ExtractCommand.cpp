// mvtar -x
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <set>

#include "cli/Commands.h"
#include "cli/MemberEvent.h"
#include "cli/ReadArchive.h"

namespace mvtar {

namespace {

using morvane::ClsTar;
using morvane::TarMemberInfo;

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
      return "a sparse file is kept as its stored pieces";
    default:
      return nullptr;
  }
}

class ExtractEvent : public MemberEvent {
 public:
  using MemberEvent::MemberEvent;

  void onTarEntry(const char*, long long size, bool isDirectory, bool& skip) override {
    // Straight into the target there is no place for a directory.
    skip = !isSelected() || (isDirectory && m_line.stripPaths);
    if (skip) return;
    count(isDirectory ? 0 : size);
    nameWhatChanges();
    if (m_line.verbose) m_report.name(m_path);
  }

  void onInfo(const char* name, const char* value) override {
    if (std::strcmp(name, "refused") == 0) m_report.problem(value, "refused: its path leaves the target");
  }

 private:
  void onSelected(const TarMemberInfo& member) override {
    m_path = member.path;
    m_lost = lostKind(member);
    m_lastPart = m_path.substr(m_path.find_last_of("/\\") + 1);
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
    if (m_line.stripPaths && !m_lastParts.insert(m_lastPart).second) {
      m_report.problem(m_path, "it replaces another member of the same last name");
    }
  }

  std::string m_path, m_lastPart;
  const char* m_lost = nullptr;
  bool m_slashesNamed = false;
  std::set<std::string> m_lastParts;
};

class OutputEvent : public MemberEvent {
 public:
  using MemberEvent::MemberEvent;

  void onTarEntry(const char*, long long size, bool, bool& skip) override {
    skip = !isSelected();
    if (skip) return;
    m_path = m_selected;
    count(size);
    if (m_line.verbose) m_report.name(m_path);
  }

 private:
  void onSelected(const TarMemberInfo& member) override { m_selected = member.path; }

  std::string m_selected, m_path;
};

void printTotals(const CommandLine& line, const MemberEvent& event) {
  if (line.totals) std::fprintf(stderr, "mvtar: %lld members, %lld bytes\n", event.members(), event.bytes());
}

}  // namespace

int extractArchive(const CommandLine& line) {
  ProgressBar bar(line.progress);
  Report report(bar, false);
  ClsTar tar;
  ArchiveReader archive;
  if (!archive.open(line, report)) return finish(tar, line, report, true);
  prepare(tar, line);
  ExtractEvent event(report, bar, line);
  const bool ok = archive.read(tar, event) || event.enoughSeen();
  bar.clear();
  if (ok || report.anyProblem()) event.nameUnfound();
  printTotals(line, event);
  return finish(tar, line, report, ok);
}

int extractToStandardOutput(const CommandLine& line) {
  ProgressBar bar(line.progress);
  Report report(bar, true);
  ClsTar tar;
  ArchiveReader archive;
  if (!archive.open(line, report)) return finish(tar, line, report, true);
  prepare(tar, line);
  const std::unique_ptr<morvane::OutputFile> out(
      morvane::OutputFile::adopt(morvane::OsFile(dup(STDOUT_FILENO)), "standard output"));
  OutputEvent event(report, bar, line);
  bool ok = tar.UntarMemberToOutput(archive.source(), *out, &event);
  ok = out->closeHandle() && ok;
  bar.clear();
  printTotals(line, event);
  return finish(tar, line, report, ok);
}

}  // namespace mvtar
