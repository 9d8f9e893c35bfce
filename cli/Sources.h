// The operands of a writing command on their way into the component.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Report.h"
#include "cli/Selection.h"
#include "tar/ClsTar.h"

namespace mvtar {

// Each operand becomes single files and trees. Lives as long as the write, because its events ask where a
// member comes from. Operands are looked at when they are added; what is below a directory the component
// finds by itself, later.
class Sources {
 public:
  // All of it must outlive this.
  Sources(const CommandLine& line, Report& report, morvane::ClsTar& tar)
      : m_line(line), m_report(report), m_tar(tar), m_excluded({}, {}, line.excludes) {}

  // Hands the operands to the component, in the order of the line. What is missing, or cannot be archived
  // under its name, is named and left out. To be called once.
  void add();
  // What a source is called as the operands were given: without the directory of a -C.
  // Patterns are tried on it beside the archive's path, because it is what the person typed. Of several
  // operands for one place that one counts by which it has the path in the archive.
  std::string givenPath(const std::string& localPath, const std::string& inArchive = {}) const;
  // What a source is called in the archive, --transform aside.
  std::string archivePath(const std::string& localPath) const;
  // Whether a source is one of the operands itself, rather than something below one; with or without slashes
  // at its end.
  bool isOperand(const std::string& localPath) const;

 private:
  std::string storedName(const std::string& given) const;
  // The name in the archive, and a notice of what was left off.
  std::string nameOf(const std::string& path);
  // One operand: checks, its name, and the calls of the component.
  void addOperand(const Operand& operand);
  // One file, or a directory as a member without what is in it. A failure is named with the component's
  // reason.
  void addSingle(const std::string& local, const std::string& name);

  // None of these is owned.
  const CommandLine& m_line;
  Report& m_report;
  morvane::ClsTar& m_tar;
  // --exclude, by which whole operands may be left out.
  const Selection m_excluded;
  // By local path the operands for it, all without slashes at their ends.
  std::map<std::string, std::vector<std::string>> m_given;
  bool m_anyElsewhere = false;  // behind a -C
  // --prefix as it is called in the archive, by the rules that all names go by.
  std::string m_prefix;
  // What nameOf named last.
  std::string m_lastRemoved;
};

}  // namespace mvtar
