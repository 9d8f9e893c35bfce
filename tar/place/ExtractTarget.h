// Where members are extracted to: plain paths below UntarFromDir, or confined to it (the word Confine).
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

  enum class Outcome {
    Ok,
    Refused,     // the path leaves the target, or what stands in the way may not be removed
    TooLong,     // said in the log
    NoTarget,    // the target itself cannot be opened or made
    NoParent,    // a directory above the member cannot be made
    NotCreated,  // the member itself cannot be made; tellNotCreated says why
  };

  // A file that extraction must not replace: the archive being read.
  void protect(const mvFileInfo& archive);
  // Gives up what is held from an earlier run.
  void reset();

  // Makes the missing parents and the empty file. A verbose log says which file is made, under `creatingTag`
  // (null: it does not).
  Outcome createFile(const MemberPath& path, const ReadSettings& settings, const char* creatingTag,
                     LogBase& log, std::unique_ptr<OutputFile>& file);
  Outcome makeDirectory(const MemberPath& path, const ReadSettings& settings, LogBase& log);

  // The system's reason (an errno) why the last member was not created; 0 when it was none of the system's.
  int lastError() const { return m_lastError; }
  // Logs that reason, unless the log has it already: where it stands is for the engine to say.
  void tellNotCreated(LogBase& log);

 private:
  bool openConfined(const XString& dir, Confine how, LogBase& log);
  Outcome judge(const MemberPath& path, LogBase& log);
  Outcome createConfined(const MemberPath& path, Confine how, const char* creatingTag, LogBase& log,
                         std::unique_ptr<OutputFile>& file);
  Outcome createPlain(const MemberPath& path, const char* creatingTag, LogBase& log,
                      std::unique_ptr<OutputFile>& file);
  Outcome outcomeOf(ConfinedDir::Result result);

  ConfinedDir m_confined;
  XString m_confinedDir;
  Confine m_confinedHow = Confine::Off;
  int m_lastError = 0;
  std::string m_untoldPath;  // of a file whose creation failed, while the log does not say so
  bool m_hasArchive = false;
  mvFileInfo m_archive;
};

}  // namespace morvane
