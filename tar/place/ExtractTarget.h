// Where members are extracted to: plain paths below UntarFromDir, or confined to it (the word Confine). The
// same in both engines, which keep their own messages for what went wrong.
#pragma once

#include <memory>

#include "runtime/fs/ConfinedDir.h"
#include "runtime/fs/mvFileInfo.h"
#include "runtime/io/OutputFile.h"
#include "tar/place/MemberPath.h"
#include "tar/settings/ReadSettings.h"

namespace morvane {

class ExtractTarget {
 public:
  // Deeper than any tree that is in use; hostile archives go on from here. Bytes.
  static constexpr unsigned kLongestPath = 2 << 20;

  enum class Outcome { Ok, Refused, TooLong, NoTarget, NoParent, NotCreated };

  // A file that extraction must not replace: the archive being read.
  void protect(const mvFileInfo& archive);
  // Gives up what is held from an earlier run.
  void reset();

  // The system's reason (an errno) why the last member was not created; 0 when it was none of the system's.
  int lastError() const { return m_lastError; }

  // Makes the missing parents and the empty file. `directoryLog` gets what making directories has to say.
  // A verbose log says which file is made, under `creatingTag` (null: it does not).
  Outcome createFile(const MemberPath& path, const ReadSettings& settings, const char* creatingTag,
                     LogBase& directoryLog, LogBase& log, std::unique_ptr<OutputFile>& file);
  Outcome makeDirectory(const MemberPath& path, const ReadSettings& settings, LogBase& directoryLog,
                        LogBase& log);

 private:
  bool openConfined(const XString& dir, Confine how, LogBase& log);
  Outcome judge(const MemberPath& path, LogBase& log);
  Outcome createConfined(const MemberPath& path, Confine how, const char* creatingTag, LogBase& log,
                         std::unique_ptr<OutputFile>& file);
  Outcome createPlain(const MemberPath& path, const char* creatingTag, LogBase& directoryLog, LogBase& log,
                      std::unique_ptr<OutputFile>& file);
  Outcome outcomeOf(ConfinedDir::Result result);

  ConfinedDir m_confined;
  XString m_confinedDir;
  Confine m_confinedHow = Confine::Off;
  int m_lastError = 0;
  bool m_hasArchive = false;
  mvFileInfo m_archive;
};

// Whether the run goes on without a member that was not created: a refused one, and with SkipUncreatable any
// that the target has no place for, unless `error` is one that the next member would meet as well. It is then
// reported; the run fails at its end. A path that is too long is named in any case.
bool leavesOut(ExtractTarget::Outcome outcome, int error, const MemberPath& path,
               const ReadSettings& settings, ProgressEvent* event, LogBase& log);

// Reports a member of which not all data could be written, for a reason of its file's own (see
// OutputFile::dropAfterOwnFailure), or whose times could not be set. The run goes on.
void reportIncomplete(const MemberPath& path, ProgressEvent* event, LogBase& log);
void reportTimesNotSet(const MemberPath& path, ProgressEvent* event, LogBase& log);

}  // namespace morvane
