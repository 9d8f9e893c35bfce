// The operands of a writing command on their way into the component.
#pragma once

#include <map>
#include <string>

#include "cli/CommandLine.h"
#include "cli/Report.h"
#include "cli/Selection.h"
#include "tar/ClsTar.h"

namespace mvtar {

// Each operand becomes single files and trees. Lives as long as the write, because its events ask where a
// member comes from.
class Sources {
 public:
  Sources(const CommandLine& line, Report& report, morvane::ClsTar& tar)
      : m_line(line), m_report(report), m_tar(tar), m_excluded({}, {}, line.excludes) {}

  // Hands the operands to the component. What is missing is named and left out.
  void add();
  // How many were added.
  size_t count() const { return m_given.size(); }
  // What a source is called as the operands were given: without the directory of a -C.
  std::string givenPath(const std::string& localPath) const;
  bool isOperand(const std::string& localPath) const { return m_given.count(localPath) > 0; }

 private:
  std::string nameOf(const std::string& path);
  void addOperand(const Operand& operand);
  void addSingle(const std::string& local, const std::string& name);

  const CommandLine& m_line;
  Report& m_report;
  morvane::ClsTar& m_tar;
  const Selection m_excluded;
  std::map<std::string, std::string> m_given;  // by local path: the operand
  bool m_anyElsewhere = false;                 // behind a -C
  // As it is called in the archive.
  std::string m_prefix;
  std::string m_lastRemoved;
};

}  // namespace mvtar
