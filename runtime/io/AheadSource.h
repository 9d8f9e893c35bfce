// A source that may be read further than what was handed out: for a decompressor that works ahead of whoever
// uses what comes of it.
//
// Bytes are fetched early and shown to others; they are handed out later, and only then the monitor is told
// of them and asks whether to abort. So events come when they would come without any of this.
#pragma once

#include <deque>
#include <exception>
#include <memory>

#include "runtime/io/_mvDataSource.h"
#include "runtime/log/HeldLog.h"

namespace morvane {

// All of it is called by one thread, the application's; the pieces alone may be read by others. Reads forward
// only. What is fetched and not yet handed out is held in memory; how much that may be is the caller's to
// decide, by mayFetch.
class AheadSource : public _mvDataSource {
 public:
  // What one read of the source gave. It does not change once it was fetched.
  struct Piece {
    // Bytes of the piece before that stand in front of this one's, so that a few can be taken back.
    static constexpr unsigned kBehind = 64;
    // kBehind bytes and then `size` of its own.
    std::unique_ptr<char[]> memory;
    unsigned size = 0;      // 0: the end of the data, or a failure
    bool isFailed = false;  // the source failed
    // Of the first thread alone: what the source told a monitor, what it logged, and what it threw.
    long long reported = 0;
    HeldLog log;
    std::exception_ptr thrown;

    const char* bytes() const { return memory.get() + kBehind; }
    bool isLast() const { return size == 0; }
  };
  // Shared, because a worker may still read a piece that has been handed out here.
  using PiecePtr = std::shared_ptr<Piece>;

  // The source is not owned and must outlive this. `pm` may be null. The monitor and the log are those of the
  // whole job; what is handed out may have others.
  AheadSource(_mvDataSource& source, ProgressMonitor* pm, LogBase& log)
      : m_source(source), m_pm(pm), m_log(log) {}

  // Reads the source once more; null behind the last piece. What fails, or is thrown, is kept in the piece
  // and comes up when that is handed out. An event is asked only where a signal breaks a wait. Throws
  // std::bad_alloc only.
  PiecePtr fetch();
  // Whether the next bytes that are handed out have to be fetched first. The end, once it was fetched, needs
  // no further fetch.
  bool isDrained() const {
    return m_pieces.empty() || (m_pieces.size() == 1 && m_at == m_pieces[0]->size && !m_pieces[0]->isLast());
  }
  // Whether fetch would not wait, and not hold more than `most` bytes that were not handed out. False behind
  // the last piece, too.
  bool mayFetch(long long most);
  // Bytes that were fetched and not handed out go back to the source where it has positions. Called once,
  // when nobody reads here any more.
  void giveBack();

  // Up to n bytes, of one piece. Fetches where nothing was fetched, and may then wait.
  bool readSourcePM(char* buffer, unsigned int n, unsigned int& numRead, ProgressMonitor* pm,
                    LogBase& log) override;
  long long sizeIfKnown() override { return m_source.sizeIfKnown(); }
  bool canLend() override { return true; }
  // Tells `pm` and `log` what the source said when these bytes were fetched, and throws what it threw. The
  // bytes stay valid for as long as somebody keeps their piece, or until the next operation.
  bool lendBytes(unsigned most, const char*& bytes, unsigned& n, ProgressMonitor* pm, LogBase& log) override;
  // Up to kBehind bytes more than were lent last.
  void takeBack(unsigned n) override;

 private:
  // Fills a piece from the source; on failure its size is of no meaning.
  bool readInto(Piece& piece, ProgressMonitor* pm);
  // Asks and tells the monitor as the source itself would. False, with the line about it, for an abort.
  bool mayGoOn(unsigned handedOut, ProgressMonitor* pm, LogBase& log);

  _mvDataSource& m_source;
  ProgressMonitor* const m_pm;
  LogBase& m_log;
  // Fetched, with the one that is being handed out in front.
  std::deque<PiecePtr> m_pieces;
  // Fetched last, whether or not it was handed out; the next one's front is copied from it.
  PiecePtr m_newest;
  long long m_at = 0;            // in the first of them; negative: in what stands in front of it
  unsigned m_countedBefore = 0;  // bytes taken back, which the monitor has been told of
  long long m_held = 0;          // bytes fetched and not handed out
  long long m_reportedLeft = 0;  // what is still to be told of the first piece
};

}  // namespace morvane
