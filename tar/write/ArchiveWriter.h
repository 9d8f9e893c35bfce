// Walks the sources and writes them as a tar stream: single files in the order added, then the directory
// trees, then two zero blocks. The first failure ends the write, unless a word of UncommonOptions says
// otherwise. What a source is comes from SourceFile and MemberSource, its bytes in the archive from
// MemberWriter and MemberData: here are the order of the steps, what is left out, and what is said of it. In
// two files: the walk with its members, and their data.
#pragma once

#include "runtime/base/ExtPtrArray.h"
#include "runtime/progress/TarMember.h"
#include "runtime/text/ExtPtrArraySb.h"
#include "tar/settings/LiveSettings.h"
#include "tar/write/MemberData.h"
#include "tar/write/MemberSource.h"
#include "tar/write/MemberWriter.h"

namespace morvane {

class ClsDirTree;
class DirRoot;
struct SourceEntry;

// On the stack of a method, for one archive, on one thread; callbacks run on it. Nothing of a source is held
// longer than its member, but for the first names of files that have several. An exception of a callback
// passes through, and no thread is left behind it.
class ArchiveWriter {
 public:
  // The properties are taken anew for each member. The archive and what `io` holds are borrowed and must
  // outlive the object.
  ArchiveWriter(LiveSettings<WriteSettings> settings, ArchiveOutput& archive, const Io& io)
      : m_live(std::move(settings)),
        m_run{m_live.now(), archive, io},
        m_log(io.log),
        m_writer(m_run),
        m_data(m_run) {
    m_live.refresh();
  }

  // The archive itself, which is left out of itself (the word SkipOutputFile). Set before the write.
  void leaveOut(const mvFileInfo& archive);

  // Whether something was left out or changed its size: the archive is whole then, the job is not done.
  bool anythingLost() const { return m_anythingLost; }

  // Everything, with the end of the archive. `curDirRootPath` shows the root being walked. False, with the
  // reason in the log, when the archive is not complete; what was written stays where it went.
  bool writeTarToOutput(const ExtPtrArraySb& files, const ExtPtrArray& dirRoots, XString& curDirRootPath);
  // One member. The path in the archive is brought into the archive's form. Filters and events hold for it as
  // in a whole write. False, with the reason in the log, when the member could not be written; true also for
  // one that was left out.
  bool writeFileToOutput(const XString& fullPath, XString& pathInTar);
  // Copies a source to its end into the archive, in pieces of at most 20,000 bytes. A failed read ends the
  // copy and is not a failure.
  bool copySourceToOutput(_mvDataSource& source);

 private:
  // The sources, and the member that each entry of theirs becomes. False for a failure that ends the write;
  // each member's failure is said with both of its paths.
  bool writeSingleFile(const SourceEntry& entry);
  bool writeTree(const DirRoot& root, XString& curDirRootPath);
  // Workers beside the walk of a tree; none where files must not be opened before their events, or only some
  // of them are wanted.
  std::unique_ptr<ReadAhead> makeReadAhead() const;
  bool mayOpenEarly() const;
  // `tree` is the walk that stands on the member, null for a single file.
  bool writeMember(const SourcePlace& place, XString& pathInTar, ClsDirTree* tree);
  // What the source is now. False when it cannot be examined, with the reason in the log.
  bool examine(const SourcePlace& place, mvFileInfo& info);
  // Whether a member is left out, each for a reason of its own, which log and event have heard. True for
  // onTarEntry's skip flag.
  bool isSkippedByEvent(const SourcePlace& place, const mvFileInfo& info, const XString& pathInTar);
  // By onTarMember, which may also have changed the member; `pathInTar` is then the new one. The tree is told
  // when nothing below is wanted.
  bool isSkippedBeingChanged(const SourcePlace& place, const mvFileInfo& info, XString& pathInTar,
                             ClsDirTree* tree);
  // Only with Store=special.
  bool isSocketLeftOut(const SourcePlace& place, const mvFileInfo& info);
  // Only with SkipUnreadable, and not for a path.
  bool isLeftOutByFormat(const SourcePlace& place, const MemberEncoding& encoding);
  // The member itself is archived; anythingLost() is true from then on.
  void noteLostAttributes(const SourcePlace& place);
  // Whether the walk has met the archive that is being written.
  bool isArchive(const mvFileInfo& info) const;
  // Only with SkipOutputFile.
  bool isArchiveItself(const SourcePlace& place, const mvFileInfo& info);
  // With SkipUnreadable; what cannot be read is told by reportUnreadable.
  bool canBeRead(const SourcePlace& place, const mvFileInfo& info, ClsDirTree* tree);
  // For directories that were not archived themselves and may yet be entered.
  void passByIfUnreadable(const SourcePlace& place, ClsDirTree& tree);
  // Whether the run goes on without a source that cannot be read, which is then told. Only with
  // SkipUnreadable.
  bool goesOnWithout(const SourcePlace& place);
  void reportUnreadable(const SourcePlace& place);
  // The member's data and the padding behind them, up to a whole block of 512 bytes. False for what the
  // archive cannot be brought out of: an output that refuses, or a source that must not be missing.
  bool writeData(const SourcePlace& place, const mvFileInfo& info);
  // Data that are in memory: all of a file's.
  bool writeMemory(const char* bytes, unsigned n);
  // Map and ranges, as many bytes as the header states.
  bool writeSparse(const SourcePlace& place, const mvFileInfo& info);
  // The two ways to copy a file: as long as it is, or as long as its header says.
  bool writeToTheEnd(const SourcePlace& place, const mvFileInfo& info);
  // The header's size is a promise only to the second; the first is the default.
  bool writeExactSize(const SourcePlace& place, const mvFileInfo& info);
  // False, with the path in the log.
  bool openForData(const SourcePlace& place, const mvFileInfo& info);
  // Of a file whose header says 0: whether it has a first byte by now.
  bool hasGrownFromNothing(const SourcePlace& place, const mvFileInfo& info);
  // What is told of a source that changed or failed while its data were copied; the archive stays whole. Both
  // make anythingLost() true.
  void reportReadFailed(const SourcePlace& place);
  void reportSizeChanged(const SourcePlace& place, long long inHeader, long long now);
  // Both are asked behind each member.
  bool memberFailed(const XString& fullPath, const XString& pathInTar);
  // Asks the application, whatever AbortCheckMs is.
  bool isAborted();
  bool writeEndOfArchive();

  // The order matters: the run refers to the settings, and those behind it to the run.
  LiveSettings<WriteSettings> m_live;
  WriteRun m_run;
  LogBase& m_log;
  MemberWriter m_writer;
  MemberData m_data;
  // They serve all members, one behind the other, and keep their buffers.
  MemberSource m_describer;
  SourceFile m_source;
  // Borrowed until the walk goes on; null without workers.
  const ReadAhead::Found* m_found = nullptr;  // of the entry that the walk stands on
  Member m_member;                            // the one being written
  TarMember m_shown;                          // the same, as the event may change it
  // The archive that is left out of itself; none in memory or on a pipe.
  bool m_hasArchive = false;
  mvFileInfo m_archive;
  // Never set back: an object writes one archive.
  bool m_anythingLost = false;
  bool m_dataAreWhole = true;         // of the member that is being written
  long long m_withoutAttributes = 0;  // members that had some
};

}  // namespace morvane
