#include "tar/stream/StreamingUntar.h"

#include <algorithm>
#include <new>
#include <string>

#include "runtime/io/ForwardingOutput.h"
#include "runtime/io/OutputDataBuffer.h"
#include "runtime/log/LogCause.h"
#include "runtime/log/LogContextExitor.h"
#include "runtime/progress/ProgressMonitor.h"
#include "tar/format/TarBlock.h"
#include "tar/format/XmlEntry.h"
#include "tar/format/XmlListing.h"

namespace morvane {

namespace {

std::string typeText(char typeFlag) { return std::string(typeFlag ? 1 : 0, typeFlag); }

void logInfoIfVerbose(LogBase& log, const char* text) {
  if (log.verbose()) log.LogInfo(text);
}

bool isWriteVariantPadded(int variant) { return variant != 2; }

}  // namespace

StreamingUntar::~StreamingUntar() { releaseOutput(); }

// The only place where the output and its file change, so that one never outlives the other.
void StreamingUntar::setOutput(std::unique_ptr<_mvOutput> output, OutputFile* file) {
  m_streamOutput = std::move(output);
  m_streamOutFile = file;
  m_writeFailed = false;
}

void StreamingUntar::releaseOutput() { setOutput(nullptr, nullptr); }

void StreamingUntar::beginUnframed() {
  // Where a callback threw, nobody knows what of a member was taken: there is no state to go on from.
  if (m_brokenOff) resetRun();
  m_anyLeftOut = false;
  m_target.reset();
  m_path = MemberPath();
}

bool StreamingUntar::flushOpenOutput(ProgressMonitor* pm, LogBase& log) {
  return !m_streamOutFile || m_streamOutFile->flush(pm, log);
}

void StreamingUntar::BeginStreamingUntar() {
  m_live.refresh();
  if (m_settings.captureXmlListing) m_xmlListing.setFromUtf8(kXmlListingStart);
  resetRun();
  beginUnframed();
}

void StreamingUntar::resetRun() {
  releaseOutput();
  m_streamPending.clear();
  m_streamExpectedSize = m_streamBytesLeft = m_streamBytesWritten = 0;
  m_streamPrevTypeFlag = ' ';
  m_streamPaddingLeft = 0;
  m_streamFinished = false;
  m_streamOk = true;
  m_streamExtData.clear();
  m_streamPosition = 0;
  m_endMarkSeen = m_memberFound = m_memberComplete = m_inSparseMap = m_brokenOff = m_hasEnded = false;
  m_reader.reset();
  m_found = MemberReader::Found::Member;
  m_limits.clear();
}

void StreamingUntar::breakOff() {
  resetRun();
  m_brokenOff = true;
  m_streamOk = false;
}

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
    const unsigned pendingBefore = m_streamPending.getSize();
    if (!streamingUntarInner(nullptr, 0, finished, pm, log)) {
      log.LogError("Streaming untar failed (2)");
      m_streamOk = false;
      return false;
    }
    if (m_streamPending.getSize() == pendingBefore) break;  // a partial header waits for more
  }
  return true;
}

bool StreamingUntar::FinishStreamingUntar(ProgressMonitor* pm, LogBase& log) {
  LogContextExitor context(log, "FinishStreamingUntar");
  if (m_streamFinished) {
    logInfoIfVerbose(log, "streaming is finished.");
  } else {
    while (!m_streamPending.isEmpty() && !m_streamFinished) {
      const unsigned pendingBefore = m_streamPending.getSize();
      bool finished = false;
      StreamingUntarNext(nullptr, 0, finished, pm, log);
      const bool progressed = m_streamPending.getSize() != pendingBefore;
      if (m_streamBytesLeft > 0 && progressed) continue;
      if (m_streamBytesLeft == 0 && m_streamPending.getSize() < kBlockSize) {
        // An archive that ends exactly behind its last padding leaves nothing here.
        log.LogNotice("Improperly terminated TAR archive.");
        break;
      }
      if (!progressed) break;
    }
    // Between a sparse member's header and its data its map may go on: what is cut there is cut.
    if (m_streamBytesLeft > 0 || m_inSparseMap) {
      log.LogError("Unexpected end of archive file.");
      m_streamOk = false;
    }
  }
  const bool failedBefore = m_writeFailed;
  if (m_streamOutFile && !closeOutputFile(pm, log) && !goesOnWithout(pm, log) && !failedBefore) {
    m_streamOk = writeHasFailed(2, log);
  }
  releaseOutput();
  m_live.refresh();
  if (m_settings.captureXmlListing) endXmlListing(m_xmlListing);
  if (m_settings.options.requireEndOfArchive && m_streamOk && !m_endMarkSeen) {
    log.LogError("The archive has no end-of-archive mark.");
    m_streamOk = false;
  }
  m_hasEnded = true;
  return m_streamOk && !m_anyLeftOut;
}

// An exception of a callback ends the run where nobody knows what of a member was taken.
bool StreamingUntar::streamingUntarInner(const unsigned char* data, unsigned numBytes, bool& finished,
                                         ProgressMonitor* pm, LogBase& log) {
  try {
    return takeStep(data, numBytes, finished, pm, log);
  } catch (...) {
    breakOff();
    throw;
  }
}

bool StreamingUntar::takeStep(const unsigned char* data, unsigned numBytes, bool& finished,
                              ProgressMonitor* pm, LogBase& log) {
  finished = false;
  if (m_brokenOff) {
    log.LogError("The run was broken off; begin another one.");
    return false;
  }
  if (m_streamFinished) {
    logInfoIfVerbose(log, "Streaming finished.");
    finished = true;
    return true;
  }
  const bool hasData = data && numBytes > 0;
  // After a failed write nothing more is kept for an output that takes nothing.
  const bool fitsEntry = m_streamBytesLeft >= numBytes && m_streamPending.isEmpty();
  if (hasData && m_writeFailed && m_streamBytesLeft > 0) {
    const long long pending = saturatedSum(m_streamPending.getSize(), numBytes);
    return writeHasFailed(fitsEntry ? 1 : m_streamBytesLeft < pending ? 3 : 2, log);
  }
  if (hasData && m_streamBytesLeft > 0 && m_streamOutput && fitsEntry) {
    // The whole piece belongs to the current entry: straight from the producer to the output.
    if (!write(reinterpret_cast<const char*>(data), numBytes, 1, pm, log)) return false;
    return m_streamBytesLeft > 0 || finishEntry(1, pm, log);
  }
  if (hasData && !m_streamPending.append(data, numBytes)) {
    log.LogError("Out of memory for streamed data.");
    return false;
  }
  if (log.verbose()) log.LogDataInt64("curFileBytesLeft", m_streamBytesLeft);
  if (m_streamBytesLeft > 0) return consumeData(pm, log);
  if (m_streamPaddingLeft == 0) return consumeHeader(finished, pm, log);
  if (log.verbose()) {
    log.LogInfo("--- Consuming padding...");
    log.LogDataLong("paddingLeft", m_streamPaddingLeft);
  }
  return consumePadding();
}

// Takes bytes off the front of what is pending.
void StreamingUntar::eat(unsigned n) {
  m_streamPending.removeChunk(0, n);
  m_streamPosition += n;
}

bool StreamingUntar::consumePadding() {
  const unsigned n = std::min(m_streamPending.getSize(), m_streamPaddingLeft);
  eat(n);
  m_streamPaddingLeft -= n;
  return true;
}

bool StreamingUntar::write(const char* bytes, unsigned n, int variant, ProgressMonitor* pm, LogBase& log) {
  if (!m_streamOutput->writeBytesPM(bytes, n, pm, log)) {
    m_writeFailed = true;
    return writeHasFailed(variant, log);
  }
  m_streamBytesLeft -= n;
  m_streamBytesWritten += n;
  if (variant == 1) m_streamPosition += n;
  return true;
}

bool StreamingUntar::writeHasFailed(int variant, LogBase& log) {
  log.LogError(("Failed to write tar data to output. (" + std::to_string(variant) + ")").c_str());
  return false;
}

bool StreamingUntar::consumeData(ProgressMonitor* pm, LogBase& log) {
  if (!m_streamOutput) {
    log.LogError("No output for streaming.");
    return false;
  }
  const unsigned pending = m_streamPending.getSize();
  const char* const bytes = reinterpret_cast<const char*>(m_streamPending.getData2());
  if (m_streamBytesLeft < pending) {
    logInfoIfVerbose(log, "--- Some incoming bytes finalize the current output file...");
    const unsigned n = static_cast<unsigned>(m_streamBytesLeft);
    if (!write(bytes, n, 3, pm, log)) return false;
    eat(n);
    return finishEntry(3, pm, log) && consumePadding();
  }
  logInfoIfVerbose(log, "--- All bytes going to output file (2)...");
  if (!write(bytes, pending, 2, pm, log)) return false;
  const bool ok = m_streamBytesLeft > 0 || finishEntry(2, pm, log);
  m_streamPosition += pending;
  m_streamPending.weakClear();
  return ok;
}

// `variant` says where in the engine the entry ended: in the fast path (1), with all pending bytes (2), or
// with some of them (3).
bool StreamingUntar::finishEntry(int variant, ProgressMonitor* pm, LogBase& log) {
  const std::string number = std::to_string(variant);
  if (log.verbose()) log.LogDataInt64(("finishedFileSize" + number).c_str(), m_streamBytesWritten);
  bool ok = true;
  if (m_streamOutFile) {
    if (m_streamOutFile->ftell64() != m_streamExpectedSize) {
      log.LogNotice("Warning: numByteWritten not equal to exected size.");
      log.LogDataInt64("expectedSize", m_streamExpectedSize);
      log.LogDataInt64("numBytesWritten", m_streamOutFile->ftell64());
    }
    ok = m_streamOutFile->flush(pm, log);
    const TarTime& mtime = m_reader->found().mtime;
    const auto modification = MorvaneFileTime::fromUnixTime64(mtime.seconds, mtime.nanoseconds);
    const bool timesAreSet = m_streamOutFile->setFileTimeUtc(modification, &log);
    ok = closeOutputFile(pm, log) && ok;
    if (ok && !timesAreSet) reportTimesNotSet(m_path, pm ? &pm->event() : nullptr, log);
    ok = ok || goesOnWithout(pm, log) || writeHasFailed(variant, log);
  }
  m_streamPaddingLeft = paddingAfter(m_streamBytesWritten);
  releaseOutput();
  if (log.verbose() && isWriteVariantPadded(variant)) {
    log.LogDataLong(("numPaddingBytesLeft" + number).c_str(), m_streamPaddingLeft);
  }
  if (m_memberFound && ok) completeMember();
  return ok;
}

// The wanted member has arrived: what comes behind it in the same piece is not looked at.
void StreamingUntar::completeMember() { m_memberComplete = m_streamFinished = true; }

// Whether a file that has failed is one that the run goes on without.
bool StreamingUntar::goesOnWithout(ProgressMonitor* pm, LogBase& log) {
  if (!m_streamOutFile->hasFailedAlone()) return false;
  reportIncomplete(m_path, pm ? &pm->event() : nullptr, log);
  return m_anyLeftOut = true;
}

bool StreamingUntar::closeOutputFile(ProgressMonitor* pm, LogBase& log) {
  return m_streamOutFile->closeHandle(&log, pm);
}

// Ends the run for good.
bool StreamingUntar::stop(const char* message, bool& finished, LogBase& log) {
  finished = true;
  m_streamFinished = true;
  log.LogError(message);
  return false;
}

bool StreamingUntar::consumeHeader(bool& finished, ProgressMonitor* pm, LogBase& log) {
  if (m_streamPending.getSize() < kBlockSize) return true;
  if (m_inSparseMap) return consumeSparseMap(finished, pm, log);
  m_live.refresh();
  if (log.verbose()) {
    log.LogInfo("---- Next TAR Header ----");
    log.LogBracketed("previousHeaderType", typeText(m_streamPrevTypeFlag).c_str());
  }
  // An unframed run goes on from the one before, but reads as the words are now.
  if (!m_reader || m_reader->isFull() != m_settings.options.fullRead) {
    m_reader = MemberReader::make(m_settings.options.fullRead);
  }
  if (m_found == MemberReader::Found::Record && !applyExtensionData(log)) {
    finished = m_streamFinished = true;
    return false;
  }
  if (!parseHeader(m_streamPending.getData2(), finished, log)) return false;
  m_reader->found().headerPosition = m_streamPosition;
  eat(kBlockSize);
  if (finished) {
    m_streamPending.clear();
    m_streamFinished = m_endMarkSeen = true;
    return true;
  }
  if (!closeEmptyFile(pm, log)) return false;
  m_inSparseMap = m_reader->found().sparseMapGoesOn;
  return m_inSparseMap || takeHeader(finished, pm, log);
}

// The further blocks of a sparse map stand between header and data, and are counted in no size.
bool StreamingUntar::consumeSparseMap(bool& finished, ProgressMonitor* pm, LogBase& log) {
  m_inSparseMap = m_streamPending.getData2()[kSparseGoesOnInMap] != 0;
  eat(kBlockSize);
  return m_inSparseMap || takeHeader(finished, pm, log);
}

bool StreamingUntar::takeHeader(bool& finished, ProgressMonitor* pm, LogBase& log) {
  const bool isMember = m_found == MemberReader::Found::Member;
  Member& member = m_reader->found();
  if (m_settings.captureXmlListing) {
    // For every header, records included; the pull engine lists members only.
    toXmlEntry(member, m_xmlListing, nullptr, m_path.decoder(m_settings, log));
  }
  m_streamExpectedSize = 0;
  m_path.set(member, m_settings, log);
  if (isMember && pm) {
    announceHeader(pm->event(), member, m_path.entryPath());
    if (m_live.refresh()) m_path.set(member, m_settings, log);
  }
  if (m_settings.untarDebugLog) log.LogDataX("entry", m_path.entryPath());
  if (log.verbose()) log.LogBracketed("typeFlag", typeText(member.typeFlag).c_str());
  giveUpLongText(member.path);
  ProgressEvent* const event = pm ? &pm->event() : nullptr;
  if (isMember && !m_limits.takeMember(m_path.entryPath().str(), m_settings.options, event, log)) {
    finished = m_streamFinished = true;
    return false;
  }
  if (!beginEntry(finished, pm, log)) return false;
  m_streamPrevTypeFlag = member.typeFlag;
  return true;
}

// Stages what the entry before said of the one whose header has arrived.
bool StreamingUntar::applyExtensionData(LogBase& log) {
  if (!m_streamExtData.appendChar('\0')) {
    log.LogError("Out of memory for streamed data.");
    return false;
  }
  const auto* const text = reinterpret_cast<const char*>(m_streamExtData.getData2());
  bool ok = m_reader->takeRecord({text, m_streamExtData.getSize() - 1}, log);
  if (!m_reader->isFull()) {
    const bool isLongName = m_streamPrevTypeFlag == kTypeLongName;
    if (isLongName && log.verbose()) log.LogDataSb("L_Data", m_reader->header().m_path);
    // Here the run goes on with what was understood.
    if (!ok) log.LogError("Failed to parse PAX extended header.");
    ok = true;
  }
  m_streamExtData.clear();
  return ok;
}

bool StreamingUntar::parseHeader(const unsigned char* block, bool& finished, LogBase& log) {
  const bool merges = m_reader->followsRecord();
  if (!m_reader->takeBlock(block, m_found, log)) {
    stop(merges ? "Failed to parse TAR header.." : "Failed to parse tar header", finished, log);
    TarHeader::debugLogTarHeader(block, log);
    m_streamPending.clear();
    return false;
  }
  finished = m_found == MemberReader::Found::End;
  if (!merges || m_reader->isFull()) return true;
  if (m_streamPrevTypeFlag == kTypePax) {
    // A notice that readers of these logs know; pax headers are fully supported here.
    log.LogNotice("PAX header in streaming untar!");
  } else if (log.verbose()) {
    log.LogData("combinedFilename", m_reader->found().path.c_str());
  }
  return true;
}

// An entry of no bytes left its output open; its file gets no time of its own.
bool StreamingUntar::closeEmptyFile(ProgressMonitor* pm, LogBase& log) {
  const bool closed = !m_streamOutFile || closeOutputFile(pm, log) || goesOnWithout(pm, log);
  releaseOutput();
  return closed || writeHasFailed(2, log);
}

bool StreamingUntar::beginEntry(bool& finished, ProgressMonitor* pm, LogBase& log) {
  if (m_found == MemberReader::Found::Record) return beginExtension(finished, log);
  const bool leftOut = m_found == MemberReader::Found::PassedOver || isLeftOut();
  const long long dataSize = m_reader->found().dataSize();
  if (!leftOut && !m_memberOutput && !mayExtract(dataSize, pm, log)) {
    finished = m_streamFinished = true;
    return false;
  }
  const bool skipped = leftOut || isSkippedByEvent(pm);
  if (!skipped) m_limits.tookData(dataSize);
  return m_reader->found().isDirectory ? beginDirectory(skipped, finished, pm, log)
                                       : beginFile(skipped, finished, pm, log);
}

// The limits for what is extracted, asked before it is announced.
bool StreamingUntar::mayExtract(long long dataSize, ProgressMonitor* pm, LogBase& log) {
  ProgressEvent* const event = pm ? &pm->event() : nullptr;
  return RunLimits::mayMake(m_path.entryPath().str(), m_settings.options, event, log) &&
         m_limits.mayTakeData(dataSize, m_settings.options, event, log);
}

bool StreamingUntar::isLeftOut() const {
  if (m_settings.filter.excludes(m_path.entryPath().str())) return true;
  return m_memberOutput ? m_reader->found().isDirectory : m_settings.suppressOutput;
}

bool StreamingUntar::isSkippedByEvent(ProgressMonitor* pm) {
  bool skip = false;
  if (pm && (m_memberOutput || m_settings.options.entryEvents)) {
    const Member& member = m_reader->found();
    pm->event().onTarEntry(m_path.outputPath().getUtf8(), member.dataSize(), member.isDirectory, skip);
  }
  return skip;
}

bool StreamingUntar::beginExtension(bool& finished, LogBase& log) {
  m_streamExtData.clear();
  if (m_reader->found().size > m_settings.options.maxExtensionBytes) {
    stop("Extension data too large.", finished, log);
    log.LogDataInt64("size", m_reader->found().size);
    return false;
  }
  std::unique_ptr<_mvOutput> output(new (std::nothrow) OutputDataBuffer(m_streamExtData));
  if (!output) {
    stop("Failed to create output buffer for untar.", finished, log);
    log.noteReason("Out of memory.");
    return false;
  }
  setOutput(std::move(output), nullptr);
  m_streamBytesLeft = m_streamExpectedSize = m_reader->found().size;
  m_streamBytesWritten = 0;
  return true;
}

bool StreamingUntar::beginFile(bool skipped, bool& finished, ProgressMonitor* pm, LogBase& log) {
  bool leftOut = false;
  if (!skipped && m_memberOutput) {
    m_memberFound = true;
    setOutput(std::make_unique<ForwardingOutput>(*m_memberOutput), nullptr);
  } else if (!skipped && !createOutputFile(leftOut, finished, pm, log)) {
    return false;
  }
  if (skipped || leftOut) {
    if (log.verbose()) log.LogDataX("skippingFile", m_path.outputPath());
    setOutput(std::make_unique<_mvOutput>(), nullptr);
  }
  m_streamExpectedSize = m_streamBytesLeft = m_reader->found().size;
  m_streamBytesWritten = 0;
  if (m_memberFound && m_streamBytesLeft == 0) completeMember();
  return true;
}

bool StreamingUntar::createOutputFile(bool& leftOut, bool& finished, ProgressMonitor* pm, LogBase& log) {
  LogCause quiet;
  LogBase& directoryLog = log.verbose() ? log : quiet;
  std::unique_ptr<OutputFile> file;
  const auto outcome = m_target.createFile(m_path, m_settings, "creatingFile", directoryLog, log, file);
  leftOut = leavesOut(outcome, m_target.lastError(), m_path, m_settings, pm ? &pm->event() : nullptr, log);
  m_anyLeftOut |= leftOut;
  if (leftOut) return true;
  if (outcome == ExtractTarget::Outcome::NoTarget || outcome == ExtractTarget::Outcome::NoParent) {
    return stop("Failed to ensure ability to create output file for untar.", finished, log);
  }
  if (!file) return stop("Failed to create output file for untar.", finished, log);
  OutputFile* const opened = file.get();
  setOutput(std::move(file), opened);
  return true;
}

// Made also under UntarDiscardPaths, where the pull engine makes none: the path then is the directory's last
// part, or nothing when it ends in a slash.
bool StreamingUntar::beginDirectory(bool skipped, bool& finished, ProgressMonitor* pm, LogBase& log) {
  // A directory has no data here, whatever size its header states.
  if (skipped) {
    if (log.verbose()) log.LogDataX("skippingDir", m_path.outputPath());
    return true;
  }
  if (log.verbose()) log.LogDataX("creatingDir", m_path.outputPath());
  LogCause quiet;
  const auto outcome = m_target.makeDirectory(m_path, m_settings, log.verbose() ? log : quiet, log);
  if (outcome == ExtractTarget::Outcome::Ok) return true;
  if (!leavesOut(outcome, m_target.lastError(), m_path, m_settings, pm ? &pm->event() : nullptr, log)) {
    return stop("Failed to ensure untar directory.", finished, log);
  }
  m_anyLeftOut = true;
  return true;
}

}  // namespace morvane
