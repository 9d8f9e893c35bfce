// The push engine's small files on their way to workers, and what workers could not do done again.
#include <new>

#include "runtime/log/LogNull.h"
#include "tar/format/TarBlock.h"
#include "tar/stream/StreamingUntar.h"

namespace morvane {

// What is done again here is of earlier entries; this one's outcome comes later. Its output only collected
// the data, and goes without being ended.
bool StreamingUntar::handOver(Arrival arrival, const Io& io) {
  WriteBehind::File& file = *m_behindFile;
  file.arrival = static_cast<int>(arrival);
  m_streamPaddingLeft = paddingAfter(m_streamBytesWritten);
  releaseOutput();
  m_placer.submitBehind(file);
  return doUndone(false, io);
}

// The run has gone on since, and so ends where it stands.
bool StreamingUntar::doUndone(bool waitsForAll, const Io& io) {
  const bool ok =
      m_placer.doUndone(waitsForAll, [&](const WriteBehind::File& file) { return doAgain(file, io); });
  if (!ok) m_streamFinished = true;
  return ok;
}

// Without a monitor, as progress was told when the data came. The failure has the number of the way by which
// this file's bytes came, and not of those that are coming now.
bool StreamingUntar::doAgain(const WriteBehind::File& file, const Io& io) {
  const Io again(io.log, nullptr, io.event);
  const Placed placed = m_placer.placeAgain(file, again);
  if (placed.result == Placed::Result::LeftOut) return true;
  bool finished = false;
  if (placed.result != Placed::Result::Made) return couldNotPlace(placed.result, finished, io);
  const FileEnd end = m_placer.fillAgain(file, placed, again);
  return m_placer.noteEnd(end, again) || writeHasFailed(static_cast<Arrival>(file.arrival), io);
}

// Where that fails nothing of the open entry is made: with one thread the run would have ended before it.
bool StreamingUntar::comeUp(const Io& io) {
  bool ok = false;
  try {
    ok = doUndone(true, io) && becomeFileInItsTurn(Io(io.log, nullptr, io.event));
  } catch (...) {
    // What a callback threw: nobody knows what of the entry was taken, and its output is over a file behind.
    breakOff();
    throw;
  }
  if (ok) return true;
  if (m_behindFile) releaseOutput();
  m_streamOk = false;
  // As it would have failed in its turn, within a step.
  return io.fail(kStepFailed);
}

// With what has come of it; the rest goes there as it comes. For an entry that was to go behind and whose
// data stop for now: no worker may hold it beyond the call.
bool StreamingUntar::becomeFileInItsTurn(const Io& io) {
  WriteBehind::File* const file = m_behindFile;
  if (!file) return true;
  file->takeSize();
  bool skipped = false, finished = false;
  if (!placeFile(skipped, finished, io)) return false;
  // What was placed is open now, and the file behind no output's any more. Left out, it still has data to
  // come, which are dropped.
  if (skipped) setOutput(std::make_unique<_mvOutput>(), nullptr);
  if (m_streamOutput->writeBytesPM(file->bytes(), file->size, nullptr, io.log)) return true;
  m_writeFailed = true;
  return writeHasFailed(Arrival::AllPending, io);
}

// The file behind is gone with the last of them, and so must be what writes into it.
bool StreamingUntar::endBehind(const Io& io) {
  const bool ok = comeUp(io);
  m_placer.finishBehind();
  return ok;
}

// The open entry keeps what has come of it, as a file in its turn would.
void StreamingUntar::endBehindQuietly() noexcept {
  try {
    LogNull unwanted;
    (void)becomeFileInItsTurn(Io(unwanted));
  } catch (...) {  // out of memory: there is nothing more that could be done
  }
  if (m_behindFile) releaseOutput();
  m_placer.finishBehindQuietly();
}

}  // namespace morvane
