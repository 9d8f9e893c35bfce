// The push-driven reader: extracts a tar stream that arrives in pieces of any size, with no relation between
// pieces and blocks.
//
// It never reads; whoever holds the bytes hands them in. All state stays between calls, so that a piece may
// end in the middle of a header, a file's data or its padding. Rules for members are those of the pull engine
// (tar/read/UntarRun.h), through the same functions; order and messages are each engine's own.
// Fed by StreamSink, or piece by piece by an application. It knows nothing of compressions, and asks no
// source for anything.
#pragma once

#include <memory>
#include <utility>

#include "runtime/buffer/DataBuffer.h"
#include "tar/format/MemberReader.h"
#include "tar/place/MemberPlacer.h"

namespace morvane {

class OutputFile;
class XString;
class _mvOutput;

// It lives in the ClsTar object between two pieces, or on the stack for one member. One call at a time; it
// holds no lock. Callbacks run inside of these calls and must not make another on the same object. Memory:
// what is pending, at most a piece and a block, and one record of extension data (MaxExtensionBytes).
class StreamingUntar {
 public:
  // `xmlListing` receives a captured listing. It must outlive this object. Settings are first taken when a
  // run begins.
  StreamingUntar(LiveSettings<ReadSettings> settings, XString& xmlListing)
      : m_live(std::move(settings)),
        m_settings(m_live.now()),
        m_xmlListing(xmlListing),
        m_placer(m_live, kManner) {}
  ~StreamingUntar();

  // Any state of an earlier run is given up; a file that is still open is closed as it is. A listing is begun
  // anew. Limits and counts start from 0.
  void BeginStreamingUntar();
  // Takes a piece of any size; `data` may be null for none. False, with the reason in the log, for a failure,
  // which need not end the run: `finished` tells that.
  bool StreamingUntarNext(const unsigned char* data, unsigned numBytes, bool& finished, ProgressMonitor* pm,
                          LogBase& log);
  // The result of the run; see ClsTar. Called once, behind the pieces. True only for a run without failure in
  // which nothing was left out. The listing is closed.
  bool FinishStreamingUntar(ProgressMonitor* pm, LogBase& log);
  // Nothing more comes, for a reason that the log has. Finishing fails then, and says nothing of what is
  // missing.
  void endEarly() {
    m_streamFinished = true;
    m_streamOk = false;
  }
  // One step: consumes what it can of one piece, or of what earlier pieces left, and returns. What is left
  // pending has to be asked for by further calls without data.
  bool streamingUntarInner(const unsigned char* data, unsigned numBytes, bool& finished, ProgressMonitor* pm,
                           LogBase& log);

  // Instead of files: offers each file member to the event (onTarEntry), and streams those that are not
  // skipped into `out`, one behind the other; or the first of them, and is then done. The output is not owned
  // and must outlive the run.
  void extractMembersInto(_mvOutput& out, bool firstAlone) {
    m_memberOutput = &out;
    m_firstAlone = firstAlone;
  }
  // How many such members were found, of which all data have arrived. Since the run began.
  long long completeMembers() const { return m_completeMembers; }

  // Ends the run where it stands, without a result: nothing more is taken until another one begins.
  void breakOff();
  // Before bytes that go on from the state of the last run: nothing of that run's target or names is kept.
  void beginUnframed();
  // The end of one that nothing frames: what was made is settled, as FinishStreamingUntar does it.
  void endUnframed(ProgressMonitor* pm, LogBase& log) { m_placer.finish(Io(log, pm)); }
  // Gives up the descriptors of the target directory.
  void releaseTarget() { m_placer.releaseTarget(); }
  // The archive that the stream comes from, which extraction must not replace (with Confine).
  void protect(const mvFileInfo& archive) { m_placer.protect(archive); }
  // For a run that ends without FinishStreamingUntar: what is still buffered goes to the open file, which
  // stays open. True where no file is open.
  bool flushOpenOutput(ProgressMonitor* pm, LogBase& log);
  void releaseOutput();
  // For a run of which all pieces come within one call of the application, because no thread may outlive
  // that: small files are written behind (the word Threads), until the end. That is asked for in any case;
  // then everything is on the disk, and no thread is left. What workers could not do is done again, and what
  // still fails ends the run with its line: false. The entry that the pieces end in is a file in its turn.
  void beginBehind() { m_placer.beginBehind(); }
  bool endBehind(const Io& io);
  bool writesBehind() const { return m_placer.writesBehind(); }
  // For what is to be told behind all that came so far: waits for what is under way, says what of it cannot
  // be done, and makes the entry whose data are being collected a file in its turn. False, with this engine's
  // line, where that ends the run.
  bool comeUp(const Io& io);
  // The same behind an exception, of which nobody hears.
  void endBehindQuietly() noexcept;
  // Where no more of the archive comes: the member that it was cut in is named, if members are restored.
  void namePart(const Io& io);
  // Whether members were left out since the run, or an unframed one, began.
  bool anyLeftOut() const { return m_placer.anyLeftOut(); }
  // The same of a run that came to its end without any failure. Of use behind FinishStreamingUntar alone.
  bool onlyLeftOut() const { return anyLeftOut() && m_streamOk && m_life == Life::Closed; }

 private:
  // This engine offers members to the event only with the word EntryEvents, and makes directories also where
  // paths are discarded: the path then is the directory's last part, or nothing when it ends in a slash. The
  // pull engine does neither.
  static constexpr MemberPlacer::Manner kManner{false, true, "creatingFile"};

  static constexpr char kStepFailed[] = "Streaming untar failed (2)";
  // The ways in which bytes reach the output of an entry; messages number them.
  enum class Arrival {
    WholePiece = 1,  // straight from the producer
    AllPending = 2,
    SomePending = 3,  // the first of what is pending ends the entry
  };
  // What comes next, when no data of an entry and no padding are left.
  enum class Expected { Header, SparseMap, BlockBehind };
  enum class Life {
    Running,
    Closed,     // FinishStreamingUntar was called
    BrokenOff,  // by an exception of a callback, or before it began: it has no state to go on from
  };
  // A member that goes into an output of the caller's. A second one begins only when the first is complete.
  enum class Wanted { NotYet, Arriving };

  // Everything below but the settings and the caller's output. It needs no memory and cannot fail.
  void resetRun();
  // Where the run stands between two steps: one that leaves it as it is has made no progress.
  std::pair<unsigned, Expected> standing() const { return {m_streamPending.getSize(), m_expected}; }
  // At the end of a run; failures are in m_streamOk.
  void takeWhatIsPending(ProgressMonitor* pm, LogBase& log);
  // One step, by the state that the run is in.
  bool takeStep(const unsigned char* data, unsigned numBytes, bool& finished, const Io& io);
  // Steps that take from what is pending; each leaves the state consistent when it fails.
  bool consumePadding();
  bool consumeData(const Io& io);
  // One block of what is pending, if there is a whole one: a header, or more of a sparse map. True also where
  // less than a block is pending.
  bool consumeHeader(bool& finished, const Io& io);
  bool consumeSparseMap(bool& finished, const Io& io);
  // Of a block that was parsed: listing, path, limits, and the beginning of its entry.
  bool takeHeader(bool& finished, const Io& io);
  bool parseHeader(const unsigned char* block, bool& finished, const Io& io);
  // To the reader, for the member whose header follows.
  bool applyExtensionData(const Io& io);
  bool closeEmptyFile(const Io& io);
  // What the header begins: each opens the output of the entry's data, and tells how many there are.
  // `finished` is set where the run cannot go on.
  bool beginEntry(bool& finished, const Io& io);
  bool beginExtension(bool& finished, const Io& io);
  bool beginFile(bool skipped, bool isBehind, bool& finished, const Io& io);
  bool beginDirectory(bool skipped, bool& finished, const Io& io);
  // A file in its turn. Without an output, as for what is left out.
  bool placeFile(bool& skipped, bool& finished, const Io& io);
  // The end of the run, with this engine's line.
  bool couldNotPlace(Placed::Result result, bool& finished, const Io& io);
  // Writing behind: see MemberPlacer. False for a failure that ends the run.
  bool handOver(Arrival arrival, const Io& io);
  bool doUndone(bool waitsForAll, const Io& io);
  bool doUndoneOfAll(const Io& io) { return doUndone(true, io); }
  // MemberPlacer::inTurn with this engine's way to do again what workers could not do.
  template <class Read>
  bool inTurn(const Io& io, Read read) {
    return m_placer.inTurn(io, read, [&] { return doUndoneOfAll(io); });
  }
  bool isFirstFailure(const Io& io) {
    return m_placer.isFirstFailure(io, [&] { return doUndoneOfAll(io); });
  }
  // becomeFileInItsTurn: the entry whose data were collected and stop before its end.
  bool doAgain(const WriteBehind::File& file, const Io& io);
  bool becomeFileInItsTurn(const Io& io);
  // To the open output. False, with the way the bytes came in the message, when it refuses them.
  bool write(const char* bytes, unsigned n, Arrival arrival, const Io& io);
  bool writeHasFailed(Arrival arrival, const Io& io);
  // The end of an entry's data, and of its file. Padding follows; no output is open afterwards.
  bool finishEntry(Arrival arrival, const Io& io);
  // With the member's time; without one; what both have in common.
  bool settleOutputFile(const Io& io);
  bool closeOutputFile(const Io& io);
  bool endOutputFile(const MemberTimes& times, const Io& io);
  // Whether the open file lacks data and would have got metadata.
  bool isPartOfRestored() const;
  // The member that goes to the caller's output is there; where one is wanted the run has ended. Counted only
  // if all of it was taken.
  void completeMember();
  // Takes n bytes off the front of what is pending, which has as many.
  void eat(unsigned n);
  // Replaces both at once; the old output is destroyed, which closes a file. What was known of the old one's
  // failures goes with it.
  void setOutput(std::unique_ptr<_mvOutput> output, OutputFile* file);
  // Nothing is taken behind it. False, for the caller to return. An error line, and the end of the run.
  bool stop(const char* message, bool& finished, const Io& io);

  LiveSettings<ReadSettings> m_live;  // taken anew at each header
  // The same, as of the last refresh.
  const ReadSettings& m_settings;
  // The component's property, or one that nobody reads.
  XString& m_xmlListing;
  MemberPlacer m_placer;
  // The caller's output; null where members become files.
  _mvOutput* m_memberOutput = nullptr;
  bool m_firstAlone = false;

  // ---- The run
  Life m_life = Life::Running;
  // Sticky: a failure that its caller did not look at still fails the run.
  bool m_streamOk = true;
  bool m_streamFinished = false;  // the archive has ended, or a failure stopped the run
  bool m_endMarkSeen = false;
  Wanted m_wanted = Wanted::NotYet;
  long long m_completeMembers = 0;
  DataBuffer m_streamPending;      // received and not yet consumed
  long long m_streamPosition = 0;  // bytes consumed: where the next header begins

  // ---- The current entry
  Expected m_expected = Expected::Header;
  // An unframed run takes all of this over from the run before.
  std::unique_ptr<MemberReader> m_reader;  // null until the first header; holds the current entry
  MemberReader::Found m_found = MemberReader::Found::Member;  // what the current entry is
  char m_streamPrevTypeFlag = ' ';
  DataBuffer m_streamExtData;                 // of the last extension entry
  std::unique_ptr<_mvOutput> m_streamOutput;  // of the current entry's data
  OutputFile* m_streamOutFile = nullptr;      // the same object when it is a file
  bool m_writeFailed = false;                 // of the open output
  bool m_isPartNamed = false;                 // of the open file
  WriteBehind::File* m_behindFile = nullptr;  // where the data are collected, of one that is written behind
  // Bytes: of the entry in all, still to come, handed to its output; then zeros up to the next block. The
  // padding is worked out when the data have come.
  long long m_streamExpectedSize = 0;
  long long m_streamBytesLeft = 0;
  long long m_streamBytesWritten = 0;
  unsigned m_streamPaddingLeft = 0;
};

}  // namespace morvane
