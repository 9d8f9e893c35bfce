// One pull-driven walk over a plain tar stream: extraction, verification, or a walk that only looks.
//
// The run reads one header at a time, merges extension records into the member that follows them, and passes
// over everything it does not extract, by seeking where the source can. It owns all its state; what it leaves
// behind are files, directories and the listing.
// Where members go is MemberPlacer's, what blocks mean the reader's: the run has the order of steps and the
// lines of the log. In two files: the run, and its members on their way to the disk.
#pragma once

#include <string>

#include "runtime/base/ByteArrayOwner.h"
#include "runtime/log/HeldLog.h"
#include "tar/format/MemberReader.h"
#include "tar/place/MemberPlacer.h"
#include "tar/read/ArchiveCursor.h"
#include "tar/read/ExtractToFile.h"

namespace morvane {

class DataBuffer;
class _mvDataSource;
class _mvFileDataSource;
class _mvOutput;

// On the stack of a method, one run for each object, on one thread; callbacks are called on it. An exception
// of theirs passes through after the listing has been closed. The source is read from where it stands and
// left somewhere behind the last header; a method that wants to know where asks endPosition.
class UntarRun {
 public:
  // What a run is handed and does not own. All of it must outlive the run.
  struct Context {
    _mvDataSource& source;
    Io io;
    LogBase& componentLog;  // gets the reasons of failed extension reads
    XString& xmlListing;
  };

  // Whether members are extracted is settled here, by `extract` and the settings as they are. Throws
  // std::bad_alloc.
  UntarRun(const Context& context, LiveSettings<ReadSettings> settings, bool extract);

  // A file that extraction must not replace (with Confine): the archive.
  void protect(const mvFileInfo& archive) { m_placer.protect(archive); }
  // Instead of files: offers each file member to the event, and copies those that are not skipped to `out`,
  // one behind the other; or the first of them alone, behind which the run stops.
  void extractMembersInto(_mvOutput& out, bool firstAlone) {
    m_memberOutput = &out;
    m_firstAlone = firstAlone;
    m_aim = MemberPlacer::Aim::IntoOutput;
  }
  // Members counted, -1 on failure. Called once. The reason of a failure is in the log; what was extracted
  // before it stays. Counted are members that were made or copied, or, where nothing is made, that passed the
  // filters; records never are. A run that has left members out is a failure, too.
  int run();
  // Where the end mark begins, counted from the archive's start: of use behind a run that found it.
  long long endPosition() const { return m_filePosition; }
  // Whether the last header is a record that is about the next member, which did not come.
  bool endsBehindRecord() const { return m_recordWaits; }
  // Whether it failed for nothing but members that were left out. Of use once run() has returned.
  bool onlyLeftOut() const { return m_onlyLeftOut; }

 private:
  // Stop: the run has ended well, at the end of the archive or because enough was extracted.
  enum class Step { GoOn, Stop, Fail };

  // From one header to the next; each of these leaves the cursor behind what it consumed.
  Step nextEntry();
  // Reads the next block and has the reader take it. False, with the reason in the log, when there is none or
  // it makes no sense.
  bool readHeader(MemberReader::Found& found, const Io& io);
  // Where it may tell that the member has no data, shows the reader the block behind the header.
  void lookBehind(const Io& io);
  // Of what is no member: an extension record, whose data are read whole, up to MaxExtensionBytes, and given
  // to the reader, or an entry that is passed over.
  Step handleRecord(MemberReader::Found found);
  bool takeRecord(const Io& io);
  // A NUL stands behind them in `data`.
  bool readRecord(DataBuffer& data, const Io& io);
  // GNU's maps that go on behind the header, block by block.
  bool passSparseMap(const Io& io);
  // Listed, announced, counted, then extracted or not.
  Step handleMember();
  // Chooses, and makes or copies. `extracted` is for a line of the debugging log.
  Step extractMember(bool& extracted);
  // Into the caller's output; where one member is wanted, the run ends behind it. Data that are cut are a
  // failure.
  Step copyMember();
  // What is made of a member on the disk. `leftOut`: the run goes on without it. False, with the reason in
  // the log, for what ends the run.
  bool makeMember(bool& leftOut);
  // Lines of this engine, in front of what is made.
  void logMaking();
  // Always false, with the reason and the path in the log.
  bool couldNotMake(Placed::Result result, bool isDirectory);
  // From the source into a member's new file, which is then settled.
  bool copyToFile(FileToFill to, bool& leftOut);
  // The second from any source: the archive, also by a reader of its own, or memory.
  FileEnd fillFile(_mvDataSource& source, const Member& member, FileToFill to, const Io& io);
  // Into a file that workers make; and what they could not make, done in the ordinary way. False for a
  // failure that ends the run.
  bool copyBehind(WriteBehind::File& file);
  // Where a worker may read the member's data, so that this thread does not.
  WriteBehind::Origin originOfData();
  // The archive, where it is a file that may be read beside the run; else null.
  _mvFileDataSource* archiveFile();
  bool doUndone(bool waitsForAll);
  bool doAgain(const WriteBehind::File& file);
  // Ends the context that the log has for a member, and begins the next.
  void nextFileContext();
  // For data that end too soon or with an exception.
  void tellHeld();
  void leavePart(WriteBehind::File& file);
  FileEnd fillAgain(const WriteBehind::File& file, Placed placed, const Io& io);
  // An error line with one data line; false.
  bool failWith(const char* message, const char* tag, const XString& value);
  // `upTo` in bytes from the archive's start.
  Step passOver(long long upTo);
  // MemberPlacer::inTurn with this engine's way to do again what workers could not do.
  template <class Read>
  bool inTurn(Read read) {
    return m_placer.inTurn(m_io, read, [this] { return doUndone(true); });
  }

  // Taken apart once, because every step needs them.
  const Context m_context;
  const Io& m_io;
  LogBase& m_log;
  LiveSettings<ReadSettings> m_live;  // taken anew at each header and behind each callback
  const ReadSettings& m_settings;
  MemberPlacer::Aim m_aim = MemberPlacer::Aim::Look;  // as it was when the run began

  // The reader of the run, lenient or full, and its member, which the next header replaces.
  const std::unique_ptr<MemberReader> m_reader;
  Member& m_member;  // what the last header begins
  MemberPlacer m_placer;
  // Made once, for all members. 40,000 bytes, or 20,000 where memory is short.
  ByteArrayOwner m_copyBuffer;
  unsigned m_copyBufferSize = 0;
  HeldLog m_held;  // what reading a file's data says, until earlier files have had their say

  // The cursor is where bytes were read to; the position is what headers say. They differ between a header
  // and its data.
  ArchiveCursor m_cursor;
  long long m_filePosition = 0;  // of the next header, from the archive's start
  // For the log alone.
  static constexpr char kFileContext[] = "file";
  bool m_isInFileContext = false;
  char m_previousTypeFlag = ' ';
  bool m_recordWaits = false;  // for the member that it is about
  // Null where members become files.
  _mvOutput* m_memberOutput = nullptr;
  bool m_firstAlone = false;
  bool m_onlyLeftOut = false;
  // Of members extracted, or passed by the filter where none are.
  int m_count = 0;
};

}  // namespace morvane
