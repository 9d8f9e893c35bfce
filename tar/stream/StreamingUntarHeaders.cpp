// The push engine's headers: what a block begins, and where the bytes behind it are to go.
#include <new>
#include <string>

#include "runtime/io/ForwardingOutput.h"
#include "runtime/io/OutputDataBuffer.h"
#include "tar/format/TarBlock.h"
#include "tar/format/XmlEntry.h"
#include "tar/stream/StreamingUntar.h"

namespace morvane {

// A header is looked at once 512 bytes are there. What comes behind the end mark is thrown away: archives are
// filled up to the record size of a tape, and some carry more. An empty member's file is closed only here, by
// the header behind it, as its outcome has always been told there.
bool StreamingUntar::consumeHeader(bool& finished, const Io& io) {
  if (m_streamPending.getSize() < kBlockSize) return true;
  if (m_expected == Expected::SparseMap) return consumeSparseMap(finished, io);
  if (m_expected == Expected::BlockBehind) {
    // It is looked at and stays, to be taken for what it is.
    m_reader->takeBlockBehind(m_streamPending.getData2());
    m_expected = Expected::Header;
    return takeHeader(finished, io);
  }
  m_live.refresh();
  if (io.log.verbose()) {
    io.log.LogInfo("---- Next TAR Header ----");
    io.log.LogBracketed("previousHeaderType", typeText(m_streamPrevTypeFlag).c_str());
  }
  // An unframed run goes on from the one before, but reads as the words are now.
  const MemberReader::Demand demand = demandOf(m_settings.options);
  if (!m_reader || !(m_reader->demand() == demand)) m_reader = MemberReader::make(demand);
  // The run ends, since what the record said of the next member is not known.
  const bool isApplied = m_found != MemberReader::Found::Record ||
                         inTurn(io, [this](const Io& step) { return applyExtensionData(step); });
  if (!isApplied) {
    finished = m_streamFinished = true;
    return false;
  }
  const auto parse = [&](const Io& step) { return parseHeader(m_streamPending.getData2(), finished, step); };
  if (!inTurn(io, parse)) return false;
  // Before the block is taken, which moves the position on.
  m_reader->found().headerPosition = m_streamPosition;
  eat(kBlockSize);
  // What is pending is given up, so that nothing of it is taken for a header by a later call.
  if (finished) {
    m_streamPending.clear();
    m_streamFinished = m_endMarkSeen = true;
    return true;
  }
  // The block is taken by now: a failure of the file before must not have it read a second time.
  if (!closeEmptyFile(io)) return false;
  if (m_reader->found().sparseMapGoesOn) m_expected = Expected::SparseMap;
  if (m_found == MemberReader::Found::Member && m_reader->wantsBlockBehind())
    m_expected = Expected::BlockBehind;
  return m_expected != Expected::Header || takeHeader(finished, io);
}

// The further blocks of a sparse map stand between header and data, and are counted in no size. Each needs a
// whole block of its own, so that this is a state and not a loop.
bool StreamingUntar::consumeSparseMap(bool& finished, const Io& io) {
  const bool goesOn = m_reader->takeSparseBlock(m_streamPending.getData2());
  eat(kBlockSize);
  if (goesOn) return true;
  m_expected = Expected::Header;
  return takeHeader(finished, io);
}

// Stages what the entry before said of the one whose header has arrived. Only now, because the record's
// padding lay between. The NUL is for the lenient reader, which takes C strings.
bool StreamingUntar::applyExtensionData(const Io& io) {
  if (!m_streamExtData.appendChar('\0')) return io.fail("Out of memory for streamed data.");
  const auto* const text = reinterpret_cast<const char*>(m_streamExtData.getData2());
  bool ok = m_reader->takeRecord({text, m_streamExtData.getSize() - 1}, io.log);
  if (!m_reader->isFull()) {
    const bool isLongName = m_streamPrevTypeFlag == kTypeLongName;
    if (isLongName && io.log.verbose()) io.log.LogDataSb("L_Data", m_reader->header().m_path);
    // Here the run goes on with what was understood.
    if (!ok) io.fail("Failed to parse PAX extended header.");
    ok = true;
  }
  m_streamExtData.clear();
  return ok;
}

// A header that cannot be parsed ends the run for good, since nobody knows where the next one would be. The
// block is shown in the log before it is given up.
bool StreamingUntar::parseHeader(const unsigned char* block, bool& finished, const Io& io) {
  const bool merges = m_reader->followsRecord();
  if (!m_reader->takeBlock(block, m_found, io.log)) {
    stop(merges ? "Failed to parse TAR header.." : "Failed to parse tar header", finished, io);
    TarHeader::debugLogTarHeader(block, io.log);
    m_streamPending.clear();
    return false;
  }
  finished = m_found == MemberReader::Found::End;
  if (!merges || m_reader->isFull()) return true;
  if (m_streamPrevTypeFlag == kTypePax) {
    // A notice that readers of these logs know; pax headers are fully supported here.
    io.log.LogNotice("PAX header in streaming untar!");
  } else if (io.log.verbose()) {
    io.log.LogData("combinedFilename", m_reader->found().path.c_str());
  }
  return true;
}

// An entry of no bytes left its output open; its file gets no time of its own. An output that is no file goes
// without a word.
bool StreamingUntar::closeEmptyFile(const Io& io) {
  const bool closed = !m_streamOutFile || closeOutputFile(io);
  releaseOutput();
  return closed || writeHasFailed(Arrival::AllPending, io);
}

// The same steps as the pull engine's handleMember, with this engine's lines; a record takes part in listing
// and path, but is announced to nobody.
bool StreamingUntar::takeHeader(bool& finished, const Io& io) {
  const bool isMember = m_found == MemberReader::Found::Member;
  Member& member = m_reader->found();
  MemberPath& path = m_placer.path();
  if (m_settings.captureXmlListing) {
    // For every header, records included; the pull engine lists members only.
    toXmlEntry(member, m_xmlListing, nullptr, path.decoder(m_settings, io.log));
  }
  // It stays so for a directory.
  m_streamExpectedSize = 0;
  // A record has a path, too, for the log.
  m_placer.setPath(member, io);
  if (isMember) m_placer.announce(member, io);
  if (m_settings.untarDebugLog) io.log.LogDataX("entry", path.entryPath());
  if (io.log.verbose()) io.log.LogBracketed("typeFlag", typeText(member.typeFlag).c_str());
  giveUpLongText(member.path);
  if (isMember && !m_placer.isWithinLimits(io, [&] { return doUndoneOfAll(io); })) {
    finished = m_streamFinished = true;
    return false;
  }
  if (!beginEntry(finished, io)) return false;
  m_streamPrevTypeFlag = member.typeFlag;
  return true;
}

// ---- The beginning of an entry

// Here suppressing may be switched on and off between members, because settings are taken anew with each
// header. What is passed over is treated as a file that nobody wants: its data have to be consumed.
bool StreamingUntar::beginEntry(bool& finished, const Io& io) {
  using Choice = MemberPlacer::Choice;
  if (m_found == MemberReader::Found::Record) return beginExtension(finished, io);
  const auto aim = m_memberOutput              ? MemberPlacer::Aim::IntoOutput
                   : m_settings.suppressOutput ? MemberPlacer::Aim::Look
                                               : MemberPlacer::Aim::Extract;
  const bool passesOver = m_found == MemberReader::Found::PassedOver;
  Member& member = m_reader->found();
  const Choice choice =
      passesOver ? Choice::Unwanted : m_placer.choose(member, aim, io, [&] { return doUndoneOfAll(io); });
  if (choice == Choice::LimitReached) {
    finished = m_streamFinished = true;
    return false;
  }
  const bool skipped = choice != Choice::Extract;
  MemberPlacer::Turn turn;
  // Only what is made on the disk can meet files under way; what is skipped is not.
  if (!skipped && !m_memberOutput) turn = m_placer.turnOf(member, io);
  if (!doUndone(turn.waits, io)) {
    finished = true;
    return false;
  }
  return member.isDirectory ? beginDirectory(skipped, finished, io)
                            : beginFile(skipped, turn.isBehind, finished, io);
}

// The size is a claim: the buffer grows by what arrives, and a limit is asked before.
bool StreamingUntar::beginExtension(bool& finished, const Io& io) {
  m_streamExtData.clear();
  if (m_reader->found().size > m_settings.options.maxExtensionBytes) {
    stop("Extension data too large.", finished, io);
    io.log.LogDataInt64("size", m_reader->found().size);
    return false;
  }
  std::unique_ptr<_mvOutput> output(new (std::nothrow) OutputDataBuffer(m_streamExtData));
  if (!output) {
    stop("Failed to create output buffer for untar.", finished, io);
    io.log.noteReason("Out of memory.");
    return false;
  }
  // A new one for each record, over the same buffer.
  setOutput(std::move(output), nullptr);
  m_streamBytesLeft = m_streamExpectedSize = m_reader->found().size;
  m_streamBytesWritten = 0;
  return true;
}

// A file that is left out gets an output that takes everything and does nothing, so that its data are
// consumed like any other's. One that cannot be made ends the run: without an output its data have nowhere to
// go.
bool StreamingUntar::beginFile(bool skipped, bool isBehind, bool& finished, const Io& io) {
  WriteBehind::File* const behind = isBehind ? m_placer.fileBehind(m_reader->found(), io) : nullptr;
  if (behind) {
    setOutput(std::make_unique<OutputDataBuffer>(*behind->data), nullptr);
    m_behindFile = behind;
  } else if (!skipped && m_memberOutput) {
    m_wanted = Wanted::Arriving;
    auto out = std::make_unique<ForwardingOutput>(*m_memberOutput);
    setOutput(MemberPlacer::spreading(m_reader->found(), std::move(out), nullptr), nullptr);
  } else if (!skipped && !placeFile(skipped, finished, io)) {
    return false;
  }
  if (skipped && io.log.verbose()) io.log.LogDataX("skippingFile", m_placer.path().outputPath());
  // What takes no data has them passed over.
  if (skipped || !m_streamOutput) setOutput(std::make_unique<_mvOutput>(), nullptr);
  m_streamExpectedSize = m_streamBytesLeft = m_reader->found().size;
  m_streamBytesWritten = 0;
  // No data will come to end it, and by the next header it would be another entry's turn.
  if (m_wanted == Wanted::Arriving && m_streamBytesLeft == 0) {
    if (!MemberPlacer::finishSpreading(*m_streamOutput, io)) return writeHasFailed(Arrival::AllPending, io);
    completeMember();
  }
  if (m_behindFile && m_streamBytesLeft == 0) return handOver(Arrival::AllPending, io);
  // By the next header it would be too late for what this one says of it.
  const bool isEmptyAndRestored =
      m_streamOutFile && m_streamBytesLeft == 0 && m_settings.options.restore.any();
  return !isEmptyAndRestored || closeEmptyFile(io);
}

// What is left out has no output here; the caller gives it one that drops its data.
bool StreamingUntar::placeFile(bool& skipped, bool& finished, const Io& io) {
  Placed placed = m_placer.place(m_reader->found(), io);
  skipped = placed.result == Placed::Result::LeftOut;
  if (!skipped && placed.result != Placed::Result::Made) {
    finished = true;
    return isFirstFailure(io) && couldNotPlace(placed.result, finished, io);
  }
  if (placed.out) setOutput(std::move(placed.out), placed.file);
  return true;
}

// Why a directory above the file cannot be made has been said or noted by now; why the file cannot is told
// here.
bool StreamingUntar::couldNotPlace(Placed::Result result, bool& finished, const Io& io) {
  if (result == Placed::Result::NoPlace) {
    return stop("Failed to ensure ability to create output file for untar.", finished, io);
  }
  m_placer.target().tellNotCreated(io.log);
  return stop("Failed to create output file for untar.", finished, io);
}

// A directory has no data here, whatever size its header states; but for a listing, which nobody wants.
bool StreamingUntar::beginDirectory(bool skipped, bool& finished, const Io& io) {
  if (m_reader->found().hasListing() && m_reader->found().size > 0) {
    setOutput(std::make_unique<_mvOutput>(), nullptr);
    m_streamExpectedSize = m_streamBytesLeft = m_reader->found().size;
    m_streamBytesWritten = 0;
  }
  if (io.log.verbose()) {
    io.log.LogDataX(skipped ? "skippingDir" : "creatingDir", m_placer.path().outputPath());
  }
  if (skipped) return true;
  // A directory has no output, and is noted for the end of the run by the placer.
  const Placed::Result result = m_placer.place(m_reader->found(), io).result;
  if (result == Placed::Result::Made || result == Placed::Result::LeftOut) return true;
  finished = true;
  return isFirstFailure(io) && stop("Failed to ensure untar directory.", finished, io);
}

}  // namespace morvane
