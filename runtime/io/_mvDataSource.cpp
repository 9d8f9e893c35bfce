// What every source has beside what it supplies itself: reading whole amounts, copying, passing over, and in
// all of them the question whether to abort, so that no derived source can forget it.
#include "runtime/io/_mvDataSource.h"

#include <algorithm>

#include "runtime/base/ByteArrayOwner.h"
#include "runtime/io/Abort.h"
#include "runtime/io/_mvOutput.h"
#include "runtime/progress/ProgressMonitor.h"

namespace morvane {

namespace {

// For sources that do not lend.
constexpr unsigned kCopyBuffer = 64 * 1024;

// n may be any size a header claims; a piece has 32 bits. So the smaller of the two always fits.
unsigned pieceOf(long long n, unsigned most) { return static_cast<unsigned>(std::min<long long>(n, most)); }

// For copies, which promise all their bytes; passing over does not.
bool endedEarly(long long missing, LogBase& log) {
  log.LogError("The data ended early.");
  log.LogDataInt64("bytesMissing", missing);
  return false;
}

}  // namespace

_mvDataSource::~_mvDataSource() = default;

// A source that has not been read has not ended, as far as this can tell.
bool _mvDataSource::endOfStream() { return m_gaveNothing; }

// Not called where ftell64 says that there are no positions.
bool _mvDataSource::fseekAbsolute64(long long, LogBase& log) {
  log.LogError("This data source cannot seek.");
  return false;
}

// What the base says of everything that a source need not supply: it cannot.
long long _mvDataSource::ftell64() { return -1; }

// For progress, and for room taken at once; never trusted for more.
long long _mvDataSource::sizeIfKnown() { return -1; }

bool _mvDataSource::readsAtOnce() { return false; }

bool _mvDataSource::canLend() { return false; }

bool _mvDataSource::lendBytes(unsigned, const char*&, unsigned&, ProgressMonitor*, LogBase&) { return false; }

void _mvDataSource::takeBack(unsigned) {}

bool _mvDataSource::canPeek() { return false; }

bool _mvDataSource::peekBytes(unsigned, const char*&, unsigned&, ProgressMonitor*, LogBase&) { return false; }

namespace {

// The question whether to abort behind an operation of a source that may or may not have asked it. It goes by
// a count of the questions asked, because asking is the application's callback, and one call between two
// pieces is enough.
class AbortQuestion {
 public:
  explicit AbortQuestion(ProgressMonitor* pm) : m_pm(pm), m_before(pm ? pm->timedChecks() : 0) {}
  bool goesOn(LogBase& log) const {
    return !m_pm || m_pm->timedChecks() != m_before || !m_pm->abortCheckTimed(log) || logAborted(log);
  }

 private:
  ProgressMonitor* const m_pm;
  const unsigned m_before;
};

}  // namespace

// An abort that is heard behind a read that succeeded makes it a failure: its bytes are not wanted any more.
bool _mvDataSource::read(char* buffer, unsigned n, unsigned& numRead, ProgressMonitor* pm, LogBase& log) {
  const AbortQuestion question(pm);
  if (!readSourcePM(buffer, n, numRead, pm, log)) return false;
  m_gaveNothing = numRead == 0;
  return question.goesOn(log);
}

// Lending counts as reading, for endOfStream and for the question.
bool _mvDataSource::lend(unsigned most, const char*& bytes, unsigned& n, ProgressMonitor* pm, LogBase& log) {
  const AbortQuestion question(pm);
  if (!lendBytes(most, bytes, n, pm, log)) return false;
  m_gaveNothing = n == 0;
  return question.goesOn(log);
}

// Sources may give less than they were asked for at any time, as pipes do.
bool _mvDataSource::readFully(char* buffer, unsigned n, unsigned& numRead, ProgressMonitor* pm,
                              LogBase& log) {
  numRead = 0;
  while (numRead < n) {
    unsigned got = 0;
    if (!read(buffer + numRead, n - numRead, got, pm, log)) return false;
    // No byte is the end; fewer than were asked for is not.
    if (got == 0) break;
    numRead += got;
  }
  return true;
}

// A source that lends needs no buffer, and its bytes are copied once less.
bool _mvDataSource::copyNToOutputPM(_mvOutput& out, long long n, ProgressMonitor* pm, LogBase& log) {
  if (canLend()) return copyNToOutput2PM(out, n, nullptr, 0, pm, log);
  const ByteArrayOwner buffer(mvNewChar(kCopyBuffer));
  if (!buffer.get()) {
    log.LogError("Out of memory for a copy buffer.");
    return false;
  }
  return copyNToOutput2PM(out, n, buffer.get(), kCopyBuffer, pm, log);
}

// An output that fails ends the copy with bytes read that were not written; the source is then of no use for
// going on.
bool _mvDataSource::copyNToOutput2PM(_mvOutput& out, long long n, char* buffer, unsigned bufferSize,
                                     ProgressMonitor* pm, LogBase& log) {
  const bool lends = canLend();
  while (n > 0) {
    const char* bytes = buffer;
    unsigned got = 0;
    const bool ok = lends ? lend(pieceOf(n, kLentPiece), bytes, got, pm, log)
                          : read(buffer, pieceOf(n, bufferSize), got, pm, log);
    if (!ok) return false;
    // A copy promised all its bytes.
    if (got == 0) return endedEarly(n, log);
    if (!out.writeBytesPM(bytes, got, pm, log)) return false;
    n -= got;
  }
  return true;
}

// In the order in which a source asks and tells. Of the piece at which it is aborted a reader would have
// nothing.
bool _mvDataSource::passUnread(unsigned n, unsigned& passed, ProgressMonitor* pm, LogBase& log) {
  const long long end = ftell64() + n;
  for (passed = 0; passed < n;) {
    const unsigned piece = pieceOf(n - passed, kLentPiece);
    if (pm && (pm->abortCheckTimed(log) || pm->consumeProgress(piece, log))) return logAborted(log);
    passed += piece;
  }
  return fseekAbsolute64(end, log);
}

// The end of the data is none of its business: what follows is asked for by whoever goes on, and missed there
// with a better message.
bool _mvDataSource::skip(long long n, ProgressMonitor* pm, LogBase& log) {
  const bool lends = canLend();
  // What is read is thrown away; a source that lends needs no memory for that.
  const ByteArrayOwner buffer(lends ? nullptr : mvNewChar(kCopyBuffer));
  if (!lends && !buffer.get()) {
    log.LogError("Out of memory for a copy buffer.");
    return false;
  }
  while (n > 0) {
    const char* bytes = nullptr;
    unsigned got = 0;
    const bool ok = lends ? lend(pieceOf(n, kLentPiece), bytes, got, pm, log)
                          : read(buffer.get(), pieceOf(n, kCopyBuffer), got, pm, log);
    if (!ok) return false;
    if (got == 0) return true;
    n -= got;
  }
  return true;
}

}  // namespace morvane
