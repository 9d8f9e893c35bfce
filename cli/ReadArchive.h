// One pass over an archive of any compression, for the commands that read.
#pragma once

#include <string>

#include "cli/CommandLine.h"
#include "cli/FilterProcess.h"
#include "cli/MemberEvent.h"
#include "cli/ProgressBar.h"
#include "cli/Report.h"
#include "tar/ClsTar.h"
#include "tar/format/ArchiveContent.h"

namespace mvtar {

// One archive, read once, from where standard input or the file stands. `open` comes first, then one of the
// reading calls, or `source` for a call of the component's that has none here; `finishProgram` comes last.
class ArchiveReader {
 public:
  // False, and named, when the archive cannot be opened or is a terminal.
  bool open(const CommandLine& line, Report& report);

  // Extracts (or walks, with SuppressOutput), by the kind of archive that the content shows. A plain archive
  // is walked by VerifyTar when nothing is to be extracted.
  bool read(morvane::ClsTar& tar, morvane::ProgressEvent& event);
  // The XML listing of a whole plain archive, closed also when it fails.
  bool listPlainXml(morvane::ClsTar& tar, morvane::_mvOutput& xml, morvane::ProgressEvent& event);
  // Also true for content of no kind that is known.
  bool isPlain() const;
  // Of use once `open` has succeeded; it stands at the archive's beginning.
  morvane::_mvFileDataSource& source() { return m_source; }
  // With -I: waits for the program's end, which has to be `end`. Where that is a good one, what the program
  // has left is read before. False, and named, when it failed.
  bool finishProgram(FilterProcess::End end, Report& report);

 private:
  // Each leaves m_source open, or has named why not.
  bool openPath(const std::string& path, Report& report);
  bool openStandardInput(Report& report);
  bool openThroughProgram(const CommandLine& line, Report& report);
  // Reads what a pipe still has of the last record.
  void takeRestOfRecord();

  // Before the source, so that the pipe is closed before the program is ended.
  // Running only with -I.
  FilterProcess m_program;
  morvane::_mvFileDataSource m_source;
  std::optional<morvane::Compression> m_compression;  // nothing: not told
};

// The end of a command that reads: the log, the failure, the interrupt and the closing line said. `rest` as
// for ReadJob::finish. The exit status.
int finish(morvane::ClsTar& tar, const CommandLine& line, Report& report, bool ok,
           const char* rest = nullptr);
// Why the component's last call failed; empty when it was nothing that ended the call. One line, as
// get_FailureCause has it.
std::string failureReason(morvane::ClsTar& tar);
// Whether a reading call that returned `ok` got to the archive's end: refused members alone are no reason to
// think it did not.
bool cameToTheEnd(morvane::ClsTar& tar, bool ok);

// What a command that reads members works with. Lives for one command, on one thread. The command line must
// outlive it. The report refers to the bar, and so stands behind it. `bar`, `report`, `tar` and `archive` are
// the command's to use; each command ends with one of the two `finish`.
class ReadJob {
 public:
  ReadJob(const CommandLine& line, bool outputCarriesData)
      : bar(line.progress), report(bar, outputCarriesData), m_line(line) {}

  // Opens the archive, and sets the component up as the command line asks. When it fails, only `finish` is
  // left.
  bool open();
  // Where the run did not even begin: what went wrong was named. The exit status.
  int finish() { return mvtar::finish(tar, m_line, report, true); }
  // The same behind a run, with what --totals asks for. `rest` says what became of the members behind one
  // that ended the run by a fault of the target's; null where there is no target.
  int finish(const MemberEvent& event, bool ok, const char* rest = nullptr);

  ProgressBar bar;
  Report report;
  morvane::ClsTar tar;
  ArchiveReader archive;

 private:
  const CommandLine& m_line;
};

}  // namespace mvtar
