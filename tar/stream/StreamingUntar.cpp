// The state machine: in an entry's data (m_streamBytesLeft), in its padding (m_streamPaddingLeft), or in
// front of a header. A piece that belongs to one file is handed straight through; only what a piece has
// beyond that, and what is too short for a header, is held back. So memory does not depend on the size of
// archives or members.
#include "tar/stream/StreamingUntar.h"

#include <algorithm>
#include <string>
#include <utility>

#include "runtime/log/LogContextExitor.h"
#include "tar/format/TarBlock.h"
#include "tar/format/XmlListing.h"

namespace morvane {

namespace {

void logInfoIfVerbose(LogBase& log, const char* text) {
  if (log.verbose()) log.LogInfo(text);
}

}  // namespace

// ---- The run

StreamingUntar::~StreamingUntar() { releaseOutput(); }

// The only place where the output and its file change, so that one never outlives the other.
void StreamingUntar::setOutput(std::unique_ptr<_mvOutput> output, OutputFile* file) {
  m_streamOutput = std::move(output);
  m_streamOutFile = file;
  m_writeFailed = m_isPartNamed = false;
  m_behindFile = nullptr;
}

void StreamingUntar::releaseOutput() { setOutput(nullptr, nullptr); }

// The state of the last run goes on, because applications feed one archive to an object in several calls.
void StreamingUntar::beginUnframed() {
  // Where a callback threw, nobody knows what of a member was taken: there is no state to go on from.
  if (m_life == Life::BrokenOff) resetRun();
  m_live.refresh();
  m_placer.beginRun();
}

// Only a file has anything buffered here; an output of the caller's is flushed by the method that has it.
bool StreamingUntar::flushOpenOutput(ProgressMonitor* pm, LogBase& log) {
  return !m_streamOutFile || m_streamOutFile->flush(pm, log);
}

// The listing is begun first, with the settings as they are now; finishing the run closes it.
void StreamingUntar::BeginStreamingUntar() {
  m_live.refresh();
  if (m_settings.captureXmlListing) m_xmlListing.setFromUtf8(kXmlListingStart);
  resetRun();
  beginUnframed();
}

// Every member that one run leaves for the next is set here, and limits count from 0.
void StreamingUntar::resetRun() {
  releaseOutput();
  m_streamPending.clear();
  m_streamExpectedSize = m_streamBytesLeft = m_streamBytesWritten = 0;
  m_streamPrevTypeFlag = ' ';
  m_streamPaddingLeft = 0;
  m_streamFinished = m_endMarkSeen = false;
  m_streamOk = true;
  m_streamExtData.clear();
  m_streamPosition = 0;
  m_life = Life::Running;
  m_wanted = Wanted::NotYet;
  m_completeMembers = 0;
  m_expected = Expected::Header;
  m_reader.reset();
  m_found = MemberReader::Found::Member;
  m_placer.clearLimits();
}

// Whatever is fed from now on is refused, until a run is begun. Small files that were chosen before are made
// all the same.
void StreamingUntar::breakOff() {
  endBehindQuietly();
  resetRun();
  m_life = Life::BrokenOff;
  m_streamOk = false;
}

// A failure is remembered, so that finishing the run tells of it even when its caller did not look. The loop
// ends when nothing is consumed any more; each step that consumes something makes what is pending smaller.
bool StreamingUntar::StreamingUntarNext(const unsigned char* data, unsigned numBytes, bool& finished,
                                        ProgressMonitor* pm, LogBase& log) {
  LogContextExitor context(log, "StreamingUntarNext", log.verbose());
  if (!streamingUntarInner(data, numBytes, finished, pm, log)) {
    log.LogError("Streaming untar failed (1)");
    m_streamOk = false;
    return false;
  }
  // Each inner step handles one thing and stops; one piece may hold the end of a file and many more.
  while (!finished && !m_streamPending.isEmpty()) {
    const auto before = standing();
    if (!streamingUntarInner(nullptr, 0, finished, pm, log)) {
      log.LogError(kStepFailed);
      m_streamOk = false;
      return false;
    }
    // A partial header waits for more.
    if (standing() == before) break;
  }
  return true;
}

// A member that is cut is an error; an archive without its end mark is one only where RequireEndOfArchive
// says so, because many writers omit it. What arrived of a cut member is kept, and closed without a time of
// its own, so that it does not look like the whole.
bool StreamingUntar::FinishStreamingUntar(ProgressMonitor* pm, LogBase& log) {
  LogContextExitor context(log, "FinishStreamingUntar");
  const Io io(log, pm);
  if (m_streamFinished) {
    logInfoIfVerbose(log, "streaming is finished.");
  } else {
    takeWhatIsPending(pm, log);
    // Between a sparse member's header and its data its map may go on, and a link may have data: what is cut
    // there is cut.
    if (m_streamBytesLeft > 0 || m_expected != Expected::Header) {
      m_streamOk = io.fail("Unexpected end of archive file.");
    }
  }
  // A write that failed has been told, and its file is closed without another line.
  const bool failedBefore = m_writeFailed;
  if (m_streamOutFile && !closeOutputFile(io) && !failedBefore) {
    m_streamOk = writeHasFailed(Arrival::AllPending, io);
  }
  releaseOutput();
  // Links that waited and directories, once no file is open.
  m_placer.finish(io);
  m_live.refresh();
  if (m_settings.captureXmlListing) endXmlListing(m_xmlListing);
  if (m_settings.options.requireEndOfArchive && m_streamOk && !m_endMarkSeen) {
    m_streamOk = io.fail("The archive has no end-of-archive mark.");
  }
  // A run that was broken off stays so.
  if (m_life == Life::Running) m_life = Life::Closed;
  return m_streamOk && !anyLeftOut();
}

// Less than a block behind the last member is no header; it is told and ignored, as other tars do. Steps that
// make no progress end it, whatever their result: StreamingUntarNext has noted a failure. Bytes may be
// pending though the last call consumed what it could: a step ends at each failure.
void StreamingUntar::takeWhatIsPending(ProgressMonitor* pm, LogBase& log) {
  while (!m_streamPending.isEmpty() && !m_streamFinished) {
    const auto before = standing();
    bool finished = false;
    StreamingUntarNext(nullptr, 0, finished, pm, log);
    const bool progressed = standing() != before;
    if (m_streamBytesLeft > 0 && progressed) continue;
    if (m_streamBytesLeft == 0 && m_streamPending.getSize() < kBlockSize) {
      // An archive that ends exactly behind its last padding leaves nothing here.
      log.LogNotice("Improperly terminated TAR archive.");
      return;
    }
    if (!progressed) return;
  }
}

// ---- One step

// An exception of a callback ends the run where nobody knows what of a member was taken.
bool StreamingUntar::streamingUntarInner(const unsigned char* data, unsigned numBytes, bool& finished,
                                         ProgressMonitor* pm, LogBase& log) {
  try {
    return takeStep(data, numBytes, finished, Io(log, pm));
  } catch (...) {
    breakOff();
    throw;
  }
}

// Each branch consumes what belongs to one state and returns; the caller comes back for the rest.
bool StreamingUntar::takeStep(const unsigned char* data, unsigned numBytes, bool& finished, const Io& io) {
  LogBase& log = io.log;
  finished = false;
  if (m_life == Life::BrokenOff) return io.fail("The run was broken off; begin another one.");
  // Behind the end of the archive, or of a run that a failure stopped, everything is accepted and nothing
  // kept, so that a decompressor reaches its own end and its checksum.
  if (m_streamFinished) {
    logInfoIfVerbose(log, "Streaming finished.");
    finished = true;
    return true;
  }
  const bool hasData = data && numBytes > 0;
  // Not while older bytes are pending, which come first.
  const bool fitsEntry = m_streamBytesLeft >= numBytes && m_streamPending.isEmpty();
  // After a failed write nothing more is kept for an output that takes nothing.
  if (hasData && m_writeFailed && m_streamBytesLeft > 0) {
    const long long pending = saturatedSum(m_streamPending.getSize(), numBytes);
    return writeHasFailed(fitsEntry                     ? Arrival::WholePiece
                          : m_streamBytesLeft < pending ? Arrival::SomePending
                                                        : Arrival::AllPending,
                          io);
  }
  if (hasData && m_streamBytesLeft > 0 && m_streamOutput && fitsEntry) {
    // The whole piece belongs to the current entry: straight from the producer to the output.
    if (!write(reinterpret_cast<const char*>(data), numBytes, Arrival::WholePiece, io)) return false;
    return m_streamBytesLeft > 0 || finishEntry(Arrival::WholePiece, io);
  }
  // What is pending stays small: a piece is added to less than a header, or to what one failed step has left.
  if (hasData && !m_streamPending.append(data, numBytes)) return io.fail("Out of memory for streamed data.");
  if (log.verbose()) log.LogDataInt64("curFileBytesLeft", m_streamBytesLeft);
  if (m_streamBytesLeft > 0) return consumeData(io);
  if (m_streamPaddingLeft == 0) return consumeHeader(finished, io);
  if (log.verbose()) {
    log.LogInfo("--- Consuming padding...");
    log.LogDataLong("paddingLeft", m_streamPaddingLeft);
  }
  return consumePadding();
}

// Takes bytes off the front of what is pending. The buffer only moves its start on for that, so that many
// headers in one piece cost no copies.
void StreamingUntar::eat(unsigned n) {
  m_streamPending.removeChunk(0, n);
  m_streamPosition += n;
}

// May be less than is needed; the rest is taken from the next piece.
bool StreamingUntar::consumePadding() {
  const unsigned n = std::min(m_streamPending.getSize(), m_streamPaddingLeft);
  eat(n);
  m_streamPaddingLeft -= n;
  return true;
}

// The position moves on here only for pieces that never were pending; eat() counts the others.
bool StreamingUntar::write(const char* bytes, unsigned n, Arrival arrival, const Io& io) {
  if (!m_streamOutput->writeBytesPM(bytes, n, io.monitor, io.log)) {
    m_writeFailed = true;
    return writeHasFailed(arrival, io);
  }
  m_streamBytesLeft -= n;
  m_streamBytesWritten += n;
  if (arrival == Arrival::WholePiece) m_streamPosition += n;
  return true;
}

// The number tells by which way the bytes came, for those who read logs of long ago.
bool StreamingUntar::writeHasFailed(Arrival arrival, const Io& io) {
  const std::string number = std::to_string(static_cast<int>(arrival));
  return io.fail(("Failed to write tar data to output. (" + number + ")").c_str());
}

// Here n fits an unsigned, since it is less than what is pending. Strictly less: data that end exactly with
// the piece leave no padding to be taken along, and have a message of their own.
bool StreamingUntar::consumeData(const Io& io) {
  if (!m_streamOutput) return io.fail("No output for streaming.");
  const unsigned pending = m_streamPending.getSize();
  const char* const bytes = reinterpret_cast<const char*>(m_streamPending.getData2());
  if (m_streamBytesLeft < pending) {
    logInfoIfVerbose(io.log, "--- Some incoming bytes finalize the current output file...");
    const unsigned n = static_cast<unsigned>(m_streamBytesLeft);
    if (!write(bytes, n, Arrival::SomePending, io)) return false;
    eat(n);
    return finishEntry(Arrival::SomePending, io) && consumePadding();
  }
  logInfoIfVerbose(io.log, "--- All bytes going to output file (2)...");
  if (!write(bytes, pending, Arrival::AllPending, io)) return false;
  // The bytes are consumed even where the file could not be ended, as the failure was not theirs.
  const bool ok = m_streamBytesLeft > 0 || finishEntry(Arrival::AllPending, io);
  m_streamPosition += pending;
  m_streamPending.weakClear();
  return ok;
}

// ---- The end of an entry

// Padding follows from what was written, which is the header's size by now. The output goes however its file
// ended; a member that was wanted counts only if that went well.
bool StreamingUntar::finishEntry(Arrival arrival, const Io& io) {
  if (m_behindFile) return handOver(arrival, io);
  LogBase& log = io.log;
  const std::string number = std::to_string(static_cast<int>(arrival));
  if (log.verbose()) log.LogDataInt64(("finishedFileSize" + number).c_str(), m_streamBytesWritten);
  const bool isWhole =
      m_streamOutFile ? settleOutputFile(io) : MemberPlacer::finishSpreading(*m_streamOutput, io);
  const bool ok = isWhole || writeHasFailed(arrival, io);
  m_streamPaddingLeft = paddingAfter(m_streamBytesWritten);
  releaseOutput();
  if (log.verbose() && arrival != Arrival::AllPending) {
    log.LogDataLong(("numPaddingBytesLeft" + number).c_str(), m_streamPaddingLeft);
  }
  if (m_wanted == Wanted::Arriving && ok) completeMember();
  return ok;
}

// The size is compared as a warning only: an output that dropped its data has said why. An access time is
// left to the system here, as it always was in this engine.
bool StreamingUntar::settleOutputFile(const Io& io) {
  const bool isSpread = m_reader->found().sparse.isSparse();  // then it gets more than comes
  if (!isSpread && m_streamOutFile->ftell64() != m_streamExpectedSize) {
    io.log.LogNotice("Warning: numByteWritten not equal to exected size.");
    io.log.LogDataInt64("expectedSize", m_streamExpectedSize);
    io.log.LogDataInt64("numBytesWritten", m_streamOutFile->ftell64());
  }
  const MorvaneFileTime modification = m_reader->found().mtime.fileTime();
  MemberTimes times;
  times.modification = &modification;
  times.accessStays = true;
  return endOutputFile(times, io);
}

// Of a file that gets no time of its own: an empty one, or one whose data did not all come. The latter gets
// nothing at all where members are restored, and how it ends is no news.
bool StreamingUntar::closeOutputFile(const Io& io) {
  if (!isPartOfRestored()) return endOutputFile({}, io);
  namePart(io);
  m_placer.settle(m_reader->found(), *m_streamOutput, *m_streamOutFile, false, {}, io);
  return true;
}

// Without a restore half of a file is closed as it is, without a line of its own.
bool StreamingUntar::isPartOfRestored() const {
  return m_streamOutFile && m_streamBytesLeft > 0 && m_settings.options.restore.any();
}

// Once for each file, since both the end of the data and the end of the run come to it.
void StreamingUntar::namePart(const Io& io) {
  if (!isPartOfRestored() || std::exchange(m_isPartNamed, true)) return;
  (void)m_placer.noteEnd({}, io);  // as one that is not whole
}

// What of the data did not come has been said; how the file ends is about what did.
bool StreamingUntar::endOutputFile(const MemberTimes& times, const Io& io) {
  const FileEnd end = m_placer.settle(m_reader->found(), *m_streamOutput, *m_streamOutFile, true, times, io);
  return m_placer.noteEnd(end, io);
}

// A wanted member has arrived. Where it was the only one, what comes behind it in the same piece is not
// looked at.
void StreamingUntar::completeMember() {
  m_wanted = Wanted::NotYet;
  ++m_completeMembers;
  m_streamFinished = m_firstAlone;
}

// Ends the run for good.
bool StreamingUntar::stop(const char* message, bool& finished, const Io& io) {
  finished = m_streamFinished = true;
  return io.fail(message);
}

}  // namespace morvane
