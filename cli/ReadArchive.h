// One pass over an archive of any compression, for the commands that read.
#pragma once

#include <string>

#include "cli/CommandLine.h"
#include "cli/Report.h"
#include "tar/ArchiveKind.h"
#include "tar/ClsTar.h"

namespace mvtar {

// The words of UncommonOptions that every reading command sets.
std::string readingWords(const CommandLine& line);

class ArchiveReader {
 public:
  // False, and named, when the archive cannot be opened or is a terminal.
  bool open(const CommandLine& line, Report& report);

  // Extracts (or walks, with SuppressOutput), by the kind of archive that the content shows. A plain archive
  // is walked by VerifyTar when nothing is to be extracted.
  bool read(morvane::ClsTar& tar, morvane::ProgressEvent& event);
  // The XML listing of the whole archive.
  bool listXml(morvane::ClsTar& tar, morvane::XString& xml, morvane::ProgressEvent& event);
  morvane::_mvFileDataSource& source() { return m_source; }

 private:
  bool openPath(const std::string& path, Report& report);
  bool isPlain() const;
  void takeRestOfRecord();

  morvane::_mvFileDataSource m_source;
  morvane::ArchiveKind m_kind = morvane::ArchiveKind::Unknown;
};

// The parts that every reading command has in common: the component set up as the command line asks, and
// afterwards the log, the failure and the interrupt said.
void prepare(morvane::ClsTar& tar, const CommandLine& line);
int finish(morvane::ClsTar& tar, const CommandLine& line, Report& report, bool ok);
// Why the component's last call failed; empty when it was nothing that ended the call.
std::string failureReason(morvane::ClsTar& tar);
// Whether a reading call that returned `ok` got to the archive's end: refused members alone are no reason to
// think it did not.
bool cameToTheEnd(morvane::ClsTar& tar, bool ok);

}  // namespace mvtar
