// Reading files, pipes and devices through one window of memory.
//
// The window is filled by single reads. How much is read at a time follows from what was done before: it
// starts small, grows by four with each fill that was used up, and becomes small again behind a jump, because
// what lies behind a header that was jumped to is seldom wanted. In front of the window the last bytes of the
// one before are kept, so that a few can always be taken back.
//
// A file that is copied into an archive (adoptForCopy) has rules of its own: it has an end, taken when
// reading begins, so that a log that is being written to cannot make its copy endless.
#include "runtime/io/_mvFileDataSource.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <utility>

#include "runtime/base/AlignedArray.h"
#include "runtime/fs/OsFile.h"
#include "runtime/fs/mvFileInfo.h"
#include "runtime/io/Abort.h"
#include "runtime/text/XString.h"

namespace morvane {

namespace {

constexpr char kCannotOpen[] = "Failed to open file.";

// The largest piece that is read ahead. From half of it on a read passes the window by.
constexpr unsigned kWindow = 256 * 1024;
// Behind a jump a header is wanted and, likely, another jump: what is read beyond it is read for nothing. So
// little is read behind a short one and one block behind a long one, over a member that has the likes of it
// behind it.
constexpr unsigned kAfterJump = 8 * 1024;
constexpr unsigned kAfterLongJump = 512;
constexpr long long kLongJump = 32 * 1024;
// The first fill; those that follow it without a jump are four times larger each, up to the window.
constexpr unsigned kAtStart = 64 * 1024;
// Files are copied in pieces of 20,000 bytes; the window holds a whole number of them.
constexpr unsigned kCopyAtStart = 3 * 20000;
constexpr unsigned kCopyWindow = 12 * 20000;
static_assert(kCopyWindow <= kWindow);

// Bytes of the window before that stay in front of it, more than takeBack may reach behind a piece.
constexpr unsigned kBehind = 64;

}  // namespace

struct _mvFileDataSource::State {
  OsFile file;
  std::string path;
  // Whether reads have positions; a source without them is moved forward by reading.
  bool seekable = false;
  // Every read fails from then on, without a further line.
  bool failed = false;
  // The last read of the system met the end, or the limit of a copy.
  bool atEnd = false;
  long long position = 0;   // of the next byte handed out
  long long systemAt = 0;   // of the next byte the system will give
  long long endAt = -1;     // -1: where the file ends
  long long sizeSeen = -1;  // of a file to be copied whole
  AlignedArray window;
  // The bytes of the window not handed out yet; in front of it are the last ones of the window before.
  unsigned windowAt = kBehind, windowEnd = kBehind;
  unsigned countedBefore = 0;  // bytes taken back, which the monitor has been told of
  // Bytes of the next fill.
  unsigned readAhead = 0;
};

_mvFileDataSource::_mvFileDataSource() : m_state(std::make_unique<State>()) {}
_mvFileDataSource::~_mvFileDataSource() = default;

// The object may adopt another file afterwards.
void _mvFileDataSource::close() { m_state->file.close(); }
int _mvFileDataSource::descriptor() const { return m_state->file.fd(); }
bool _mvFileDataSource::readsAtOnce() {
  return m_state->windowAt < m_state->windowEnd || m_state->file.readsAtOnce();
}
const OsFile* _mvFileDataSource::sharedFile() const {
  return m_state->seekable && !m_state->failed ? &m_state->file : nullptr;
}
long long _mvFileDataSource::bytesPassed() const { return m_state->position; }
long long _mvFileDataSource::ftell64() { return m_state->seekable ? m_state->position : -1; }
// A limit of ours (endAt) proves nothing of the file, nor does an end that is still ahead in the window.
bool _mvFileDataSource::endWasSeen() const {
  return m_state->atEnd && m_state->endAt < 0 && m_state->windowAt == m_state->windowEnd;
}

// Opening a FIFO waits for its writer, and a signal breaks the wait; then the event is asked, and without its
// word the wait goes on. osOpenOnce leaves EINTR to its caller for that.
bool _mvFileDataSource::openDataSourceFile(const XString& path, LogBase& log, ProgressMonitor* pm) {
  if (!isSystemPath(path, kCannotOpen, log)) return false;
  OsFile file;
  do {
    file.reset(osOpenOnce(path.getUtf8(), O_RDONLY | O_NOCTTY));
  } while (!file.isOpen() && errno == EINTR && !endsWait(pm, log));
  if (!file.isOpen()) {
    logOsError(log, kCannotOpen, path.getUtf8(), errno);
    return false;
  }
  return adopt(std::move(file), path.getUtf8(), log);
}

// A directory opens like a file and would fail only at the first read, so it is refused here. Seeking is left
// to files and block devices: what other devices answer to a seek means nothing.
bool _mvFileDataSource::adopt(OsFile file, const char* path, LogBase& log) {
  m_state->file = std::move(file);
  m_state->path = path;
  m_state->failed = m_state->atEnd = false;
  m_state->windowAt = m_state->windowEnd = kBehind;
  m_state->readAhead = kAtStart;
  m_state->endAt = m_state->sizeSeen = -1;
  struct stat status {};
  const int error = m_state->file.status(status) != 0 ? errno : S_ISDIR(status.st_mode) ? EISDIR : 0;
  if (error != 0) {
    logOsError(log, kCannotOpen, path, error);
    // Nothing is left open behind a failure, whoever keeps the object.
    m_state->file.close();
    return false;
  }
  // The descriptor may be another program's, as standard input is, and stand anywhere.
  const long long at = m_state->file.seek(0, SEEK_CUR);
  m_state->seekable = at >= 0 && (S_ISREG(status.st_mode) || S_ISBLK(status.st_mode));
  m_state->position = m_state->systemAt = m_state->seekable ? at : 0;
  return true;
}

bool _mvFileDataSource::adoptFrom(const _mvFileDataSource& other, long long position, LogBase& log) {
  const State& from = *other.m_state;
  OsFile second = from.file.duplicate();
  if (!second.isOpen()) {
    logOsError(log, kCannotOpen, from.path.c_str(), errno);
    m_state->failed = true;
    return false;
  }
  return adopt(std::move(second), from.path.c_str(), log) && fseekAbsolute64(position, log);
}

// Whoever calls this has examined the file: it is regular and stands at its beginning. That saves two system
// calls for each of many small files.
void _mvFileDataSource::adoptForCopy(OsFile file, const char* path, long long sizeSeen) {
  m_state->file = std::move(file);
  m_state->path = path;
  m_state->failed = m_state->atEnd = false;
  m_state->windowAt = m_state->windowEnd = kBehind;
  m_state->readAhead = kCopyAtStart;
  m_state->endAt = -1;
  m_state->sizeSeen = sizeSeen;
  m_state->seekable = true;
  m_state->position = m_state->systemAt = 0;
}

// Spares a small file the read that would find nothing, and fixes where a larger or a growing one ends.
// Called behind each read of such a file.
void _mvFileDataSource::noteCopyEnd(unsigned wanted, unsigned got) {
  if (got == 0 || (got < wanted && m_state->systemAt == m_state->sizeSeen)) {
    m_state->atEnd = true;
  } else if (m_state->endAt < 0) {
    struct stat status;
    // Files that the system makes up while they are read say that they are smaller than they are.
    if (m_state->file.status(status) == 0 && status.st_size >= m_state->systemAt)
      m_state->endAt = status.st_size;
  }
}

// A pipe or a device has no size that would be of use.
long long _mvFileDataSource::getFileSize64(LogBase& log) {
  mvFileInfo info;
  return getFileInfo(info, log) && info.m_isRegularFile ? info.m_size : 0;
}

bool _mvFileDataSource::getFileInfo(mvFileInfo& info, LogBase& log) const {
  struct stat status;
  if (m_state->file.status(status) != 0) {
    logOsError(log, "Failed to get file information.", m_state->path.c_str(), errno);
    return false;
  }
  info.setFromStatus(status);
  return true;
}

long long _mvFileDataSource::sizeIfKnown() {
  struct stat status;
  return m_state->file.status(status) == 0 && S_ISREG(status.st_mode) ? status.st_size : -1;
}

// A read of one byte at a position moves nothing; on what has no positions it fails, which is false too.
bool _mvFileDataSource::hasByteAt(long long position) const {
  char byte;
  return m_state->file.readSomeAt(&byte, 1, position) > 0;
}

bool _mvFileDataSource::endOfStream() {
  if (m_state->windowAt < m_state->windowEnd) return false;
  if (m_state->atEnd || m_state->endAt >= 0) return m_state->atEnd || m_state->position >= m_state->endAt;
  // Nobody has met the end yet; a file that is smaller than it was ends its copy by a read.
  return m_state->seekable && m_state->position >= m_state->sizeSeen && !hasByteAt(m_state->position);
}

// One read that moves at least a byte unless the data end; `got` 0 is the end. Reads are by position where
// there is one, so that descriptors that share a file do not move each other. A failure stays: later reads
// fail, without a line of their own.
bool _mvFileDataSource::readSystem(char* buffer, unsigned n, unsigned& got, ProgressMonitor* pm,
                                   LogBase& log) {
  got = 0;
  // The system refuses a read that would go on past the last position a file can have.
  const long long end = m_state->endAt >= 0 ? m_state->endAt : std::numeric_limits<long long>::max();
  n = static_cast<unsigned>(std::clamp<long long>(end - m_state->systemAt, 0, n));
  // An end that was met holds for a copy alone. Elsewhere the file may have grown since, and is read again.
  m_state->atEnd = n == 0 || (m_state->sizeSeen >= 0 && m_state->atEnd);
  if (m_state->atEnd) return true;
  while (true) {
    const ssize_t read = m_state->seekable ? m_state->file.readSomeAt(buffer, n, m_state->systemAt)
                                           : m_state->file.readSome(buffer, n);
    if (read >= 0) {
      m_state->atEnd = read == 0;
      got = static_cast<unsigned>(read);
      m_state->systemAt += read;
      if (m_state->sizeSeen >= 0) noteCopyEnd(n, got);
      return true;
    }
    const int error = errno;
    if (error == EINTR && !endsWait(pm, log)) continue;
    // A descriptor that somebody shares with us may have been told not to wait.
    if (error == EAGAIN && m_state->file.setBlocking() == 0) continue;
    m_state->failed = true;
    if (error != EINTR) logOsError(log, "Failed to read from file.", m_state->path.c_str(), error);
    return false;
  }
}

// Made when it is needed first: a source that is only asked for its size has none.
bool _mvFileDataSource::makeWindow(LogBase& log) {
  if (m_state->window) return true;
  m_state->window = makeAlignedArray(kBehind + kWindow);
  if (!m_state->window) log.LogError("Out of memory for a read buffer.");
  return m_state->window != nullptr;
}

// Only when all of the window has been handed out.
bool _mvFileDataSource::fillWindow(ProgressMonitor* pm, LogBase& log) {
  if (!makeWindow(log)) return false;
  // For takeBack, which may reach behind the new piece.
  std::memmove(m_state->window.get(), m_state->window.get() + m_state->windowEnd - kBehind, kBehind);
  m_state->windowAt = m_state->windowEnd = kBehind;
  unsigned got = 0;
  if (!readSystem(m_state->window.get() + kBehind, m_state->readAhead, got, pm, log)) return false;
  m_state->windowEnd += got;
  m_state->readAhead =
      std::clamp(m_state->readAhead * 4, kAfterJump, m_state->sizeSeen >= 0 ? kCopyWindow : kWindow);
  return true;
}

// Progress counts each byte once, also one that was taken back and is handed out again.
bool _mvFileDataSource::mayGoOn(unsigned moved, ProgressMonitor* pm, LogBase& log) {
  const unsigned again = std::min(moved, m_state->countedBefore);
  m_state->countedBefore -= again;
  if (!pm || !(pm->abortCheckTimed(log) || pm->consumeProgress(moved - again, log))) return true;
  return logAborted(log);
}

// No more than the window holds, at the most.
bool _mvFileDataSource::lendBytes(unsigned most, const char*& bytes, unsigned& n, ProgressMonitor* pm,
                                  LogBase& log) {
  n = 0;
  if (m_state->failed) return false;
  if (m_state->windowAt == m_state->windowEnd && !fillWindow(pm, log)) return false;
  n = std::min(most, m_state->windowEnd - m_state->windowAt);
  bytes = m_state->window.get() + m_state->windowAt;
  m_state->windowAt += n;
  m_state->position += n;
  return mayGoOn(n, pm, log);
}

// The caller took them from here: they are still in front of where the window stands.
void _mvFileDataSource::takeBack(unsigned n) {
  m_state->windowAt -= n;
  m_state->position -= n;
  m_state->countedBefore += n;
}

// Small reads go through the window, large ones past it, straight into the caller's memory. A pipe's short
// reads are gathered until all n bytes are there, or the data end.
bool _mvFileDataSource::readSourcePM(char* buffer, unsigned int n, unsigned int& numRead, ProgressMonitor* pm,
                                     LogBase& log) {
  numRead = 0;
  if (m_state->failed) return false;
  while (numRead < n) {
    unsigned wanted = n - numRead, got = 0;
    // From half a window on a read of its own costs less than the copy.
    if (m_state->windowAt == m_state->windowEnd && wanted < kWindow / 2 && !fillWindow(pm, log)) return false;
    if (m_state->windowAt < m_state->windowEnd) {
      got = std::min(wanted, m_state->windowEnd - m_state->windowAt);
      std::memcpy(buffer + numRead, m_state->window.get() + m_state->windowAt, got);
      m_state->windowAt += got;
    } else if (wanted >= kWindow / 2 && !readSystem(buffer + numRead, wanted, got, pm, log)) {
      return false;
    }
    if (got == 0) break;
    m_state->position += got;
    numRead += got;
  }
  return mayGoOn(numRead, pm, log);
}

// What lies in the window comes first, alone: a second source of bytes in one call could wait.
bool _mvFileDataSource::readOnce(char* buffer, unsigned n, unsigned& got, LogBase& log) {
  got = 0;
  if (m_state->failed) return false;
  if (m_state->windowAt < m_state->windowEnd)
    return readSourcePM(buffer, std::min(n, m_state->windowEnd - m_state->windowAt), got, nullptr, log);
  if (!readSystem(buffer, n, got, nullptr, log)) return false;
  m_state->position += got;
  return true;
}

// n is 512 at most and the window starts with at least as much room. Nothing is told to the monitor: the
// bytes have not been passed.
bool _mvFileDataSource::peekBytes(unsigned n, const char*& bytes, unsigned& got, ProgressMonitor* pm,
                                  LogBase& log) {
  if (m_state->failed || !makeWindow(log)) return false;
  // A pipe may give its first bytes in small pieces: gather them at the window's start.
  const unsigned held = m_state->windowEnd - m_state->windowAt;
  if (m_state->windowAt > kBehind) {
    std::memmove(m_state->window.get(), m_state->window.get() + m_state->windowAt - kBehind, kBehind + held);
    m_state->windowAt = kBehind;
    m_state->windowEnd = kBehind + held;
  }
  while (m_state->windowEnd - m_state->windowAt < n) {
    // Not 0: less than n bytes are held, and readAhead is at least as much as n may be.
    const unsigned room = kBehind + m_state->readAhead - m_state->windowEnd;
    unsigned more = 0;
    if (!readSystem(m_state->window.get() + m_state->windowEnd, room, more, pm, log)) return false;
    if (more == 0) break;
    m_state->windowEnd += more;
  }
  bytes = m_state->window.get() + m_state->windowAt;
  got = std::min(n, m_state->windowEnd - m_state->windowAt);
  return true;
}

// Within the window only the position moves. Beyond it nothing is done but to note where the next read
// begins, for nobody knows yet whether there will be one. Without positions a source moves forward by
// reading.
bool _mvFileDataSource::fseekAbsolute64(long long position, LogBase& log) {
  if (position < 0 || (!m_state->seekable && position < m_state->position)) {
    log.LogError(position < 0 ? "Cannot seek to a negative position." : "Cannot seek back in this file.");
    log.LogData("path", m_state->path.c_str());
    m_state->failed = true;
    return false;
  }
  const long long forward = position - m_state->position;
  if (forward >= 0 && forward <= m_state->windowEnd - m_state->windowAt) {
    m_state->windowAt += static_cast<unsigned>(forward);
    m_state->position = position;
    return true;
  }
  if (!m_state->seekable) return skip(forward, nullptr, log);
  if (position != m_state->systemAt)
    m_state->readAhead = position - m_state->systemAt >= kLongJump ? kAfterLongJump : kAfterJump;
  m_state->windowAt = m_state->windowEnd = kBehind;
  // From the new position on the end may not be met.
  m_state->position = m_state->systemAt = position;
  m_state->atEnd = false;
  return true;
}

}  // namespace morvane
