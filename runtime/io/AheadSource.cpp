// Two readers of one source: fetch is ahead, lendBytes follows and keeps the accounts.
#include "runtime/io/AheadSource.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "runtime/io/Abort.h"

namespace morvane {

namespace {

// A source that lends has its bytes ready, and has told the monitor of them; another is read as a
// decompressor would.
constexpr unsigned kMostLent = 256 * 1024;
constexpr unsigned kMostRead = 64 * 1024;

// What a source asks while it waits is asked of the application; everything else has its own time. The
// monitor that is made with it sends no percentages and asks nothing by time, but counts what the source
// tells it.
class WaitingEvent : public ProgressEvent {
 public:
  WaitingEvent(ProgressMonitor& pm, LogBase& log) : m_pm(pm), m_log(log) {}
  void onAbortCheck(bool& abort) override { abort = m_pm.abortCheck(m_log); }

 private:
  ProgressMonitor& m_pm;
  LogBase& m_log;
};

}  // namespace

bool AheadSource::readInto(Piece& piece, ProgressMonitor* pm) {
  const char* lent = nullptr;
  const bool lends = m_source.canLend();
  if (lends && !m_source.lendBytes(kMostLent, lent, piece.size, pm, piece.log)) return false;
  piece.memory.reset(new char[Piece::kBehind + (lends ? piece.size : kMostRead)]);
  char* const bytes = piece.memory.get() + Piece::kBehind;
  if (lends) {
    std::copy_n(lent, piece.size, bytes);
  } else if (!m_source.readSourcePM(bytes, kMostRead, piece.size, pm, piece.log)) {
    return false;
  }
  // The end of the piece before together with what stands in front of it, so that kBehind bytes are there
  // however short that piece is.
  if (m_newest) std::memcpy(piece.memory.get(), m_newest->memory.get() + m_newest->size, Piece::kBehind);
  return true;
}

AheadSource::PiecePtr AheadSource::fetch() {
  if (m_newest && m_newest->isLast()) return nullptr;
  auto piece = std::make_shared<Piece>();
  piece->log.beginLike(m_log);
  try {
    if (m_pm) {
      WaitingEvent event(*m_pm, m_log);
      // The largest total, since a monitor counts no further than its total.
      ProgressMonitor counted(event, 0, 0, std::numeric_limits<long long>::max());
      piece->isFailed = !readInto(*piece, &counted);
      piece->reported = counted.done();
    } else {
      piece->isFailed = !readInto(*piece, nullptr);
    }
  } catch (...) {
    // A source of the application's may throw anything. Whoever uses the bytes is to meet it where these
    // bytes would have come, and not before.
    piece->thrown = std::current_exception();
    piece->isFailed = true;
  }
  // So a failed piece is a last one, and nothing is fetched behind it.
  if (piece->isFailed) piece->size = 0;
  // It is in front already, and lendBytes does not get to take its account over from a piece before.
  if (m_pieces.empty()) m_reportedLeft = piece->reported;
  m_held += piece->size;
  m_pieces.push_back(piece);
  return m_newest = piece;
}

// A read that may wait is left to the moment when its bytes are needed.
bool AheadSource::mayFetch(long long most) {
  return m_held < most && !(m_newest && m_newest->isLast()) && m_source.readsAtOnce();
}

// For a reader that goes on behind the compressed data. A source without positions keeps to where it was
// read, as behind any reader with a buffer. Nothing may be lent behind this.
void AheadSource::giveBack() {
  const long long position = m_source.ftell64();
  if (m_held > 0 && position >= m_held && !m_source.fseekAbsolute64(position - m_held, m_log)) return;
  m_pieces.clear();
  m_held = 0;
}

// As sources ask and tell: first whether to abort, then the progress. A piece that was not told of byte for
// byte is told of with its last one.
bool AheadSource::mayGoOn(unsigned handedOut, ProgressMonitor* pm, LogBase& log) {
  const unsigned again = std::min(handedOut, m_countedBefore);
  // Bytes that were taken back have been told of and are told of once.
  m_countedBefore -= again;
  const Piece& piece = *m_pieces.front();
  long long told = std::min<long long>(handedOut - again, m_reportedLeft);
  if (m_at == piece.size) told = m_reportedLeft;
  m_reportedLeft -= told;
  if (!pm || !(pm->abortCheckTimed(log) || pm->consumeProgress(told, log))) return true;
  return logAborted(log);
}

// The last piece stays, so that the end can be met again; what failed once fails again, without a line.
bool AheadSource::lendBytes(unsigned most, const char*& bytes, unsigned& n, ProgressMonitor* pm,
                            LogBase& log) {
  n = 0;
  if (!m_pieces.empty() && m_at == m_pieces.front()->size && !m_pieces.front()->isLast()) {
    m_pieces.pop_front();
    m_at = 0;
    m_reportedLeft = m_pieces.empty() ? 0 : m_pieces.front()->reported;
  }
  // Nothing to fetch behind the last piece is the end.
  if (m_pieces.empty() && !fetch()) return true;
  Piece& piece = *m_pieces.front();
  // The lines that the source logged come now, in front of whatever the bytes bring about.
  piece.log.tellTo(log);
  if (piece.thrown) std::rethrow_exception(piece.thrown);
  if (piece.isFailed) return false;
  n = static_cast<unsigned>(std::min<long long>(most, piece.size - m_at));
  bytes = piece.bytes() + m_at;
  m_at += n;
  m_held -= n;
  return mayGoOn(n, pm, log);
}

// Never further than the bytes in front of the piece, and those were handed out with the one before. So m_at
// may become negative, and lendBytes then begins in the copy that stands there.
void AheadSource::takeBack(unsigned n) {
  m_at -= n;
  m_held += n;
  m_countedBefore += n;
}

bool AheadSource::readSourcePM(char* buffer, unsigned int n, unsigned int& numRead, ProgressMonitor* pm,
                               LogBase& log) {
  const char* bytes = nullptr;
  if (!lendBytes(n, bytes, numRead, pm, log)) return false;
  if (numRead > 0) std::memcpy(buffer, bytes, numRead);
  return true;
}

}  // namespace morvane
