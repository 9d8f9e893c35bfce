// Walks the sources and writes them as a tar stream: single files in the order added, then the directory
// trees, then two zero blocks. The first failure ends the write, unless a word of UncommonOptions says
// otherwise.
#pragma once

#include "runtime/base/ExtPtrArray.h"
#include "runtime/text/ExtPtrArraySb.h"
#include "tar/settings/LiveSettings.h"
#include "tar/write/SourceFile.h"
#include "tar/write/WriteRun.h"

namespace morvane {

class ClsDirTree;
class DirRoot;
struct SourceEntry;

class ArchiveWriter {
 public:
  // The properties are taken anew for each member; the monitor and the event may be null.
  ArchiveWriter(LiveSettings<WriteSettings> settings, ArchiveOutput& archive, LogBase& log,
                ProgressMonitor* pm, ProgressEvent* event)
      : m_live(std::move(settings)), m_run{m_live.now(), archive, log, pm, event}, m_log(log) {
    m_live.refresh();
  }

  // The archive itself, which is left out of itself (the word SkipOutputFile).
  void leaveOut(const mvFileInfo& archive);

  // Whether something was left out or changed its size: the archive is whole then, the job is not done.
  bool anythingLost() const { return m_anythingLost; }

  // Everything, with the end of the archive. `curDirRootPath` shows the root being walked.
  bool writeTarToOutput(const ExtPtrArraySb& files, const ExtPtrArray& dirRoots, XString& curDirRootPath);
  // One member. The path in the archive is brought into the archive's form.
  bool writeFileToOutput(const XString& fullPath, XString& pathInTar);
  // Copies a source to its end into the archive, in pieces of at most 20,000 bytes. A failed read ends the
  // copy and is not a failure.
  bool copySourceToOutput(_mvDataSource& source);

 private:
  bool writeSingleFile(const SourceEntry& entry);
  bool writeTree(const DirRoot& root, XString& curDirRootPath);
  bool writeMember(const SourcePlace& place, XString& pathInTar, ClsDirTree* tree);
  bool isSkippedByEvent(const SourcePlace& place, const mvFileInfo& info, const XString& pathInTar);
  bool isArchiveItself(const SourcePlace& place, const mvFileInfo& info);
  bool canBeRead(const SourcePlace& place, const mvFileInfo& info, ClsDirTree* tree);
  bool passByIfUnreadable(const SourcePlace& place, ClsDirTree& tree);
  bool leftOutUnreadable(const SourcePlace& place);
  bool writeData(const SourcePlace& place, const mvFileInfo& info);
  bool writeExactData(const SourcePlace& place, const mvFileInfo& info);
  bool copyFile(long long most, long long& copied);
  bool copyPieces(_mvDataSource& source, long long most, long long& copied);
  bool putDataPiece(const char* bytes, unsigned n);
  void reportReadFailed(const SourcePlace& place);
  bool reportSizeChanged(const SourcePlace& place, long long inHeader, long long copied);
  bool memberFailed(const XString& fullPath, const XString& pathInTar);
  bool abortedAfterMember();
  bool writeEndOfArchive();

  LiveSettings<WriteSettings> m_live;
  WriteRun m_run;
  LogBase& m_log;
  SourceFile m_source;
  bool m_hasArchive = false;
  mvFileInfo m_archive;
  bool m_anythingLost = false;
  bool m_readFailed = false;  // the copy that went last ended by a failed read
};

}  // namespace morvane
