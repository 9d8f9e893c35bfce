// A file being written: small writes gathered, errors kept, and nothing called written before the system took
// it.
//
// A write may be broken by a signal, be taken in part, be refused for now (a pipe that was told not to wait)
// or for good. The first three are gone on with here, so that callers see bytes that arrived or a failure.
#include "runtime/io/OutputFile.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "runtime/base/AlignedArray.h"
#include "runtime/fs/MorvaneFileTime.h"
#include "runtime/fs/OsFile.h"
#include "runtime/fs/mvFileInfo.h"
#include "runtime/io/Abort.h"
#include "runtime/log/LogNull.h"
#include "runtime/parallel/WorkerPool.h"

namespace morvane {

namespace {

// Most files are small: they get a small buffer, and a large one only once that has been filled. What does
// not fit and has kPassesBuffer bytes or more gains nothing by being copied first.
constexpr unsigned kSmallBuffer = 16 * 1024;
constexpr unsigned kLargeBuffer = 256 * 1024;
// For a worker: as large as its cache, because each one costs two threads a wait.
constexpr unsigned kBehindBuffer = 1024 * 1024;
constexpr unsigned kPassesBuffer = 64 * 1024;
static_assert(OutputFile::kMostSpare <= kLargeBuffer);

// The buffer that a worker writes. Left alone by the first thread from submit to finish.
struct BufferBehind : WorkerPool::Task {
  explicit BufferBehind(const OsFile& theFile) : file(theFile) {}
  void work() override { error = file.writeWhole(bytes.get(), n); }

  const OsFile& file;  // nobody else moves in it meanwhile
  AlignedArray bytes;
  unsigned n = 0;
  int error = 0;
  bool isUnderWay = false;  // handed in, and not finished: the first thread's own note
  // Last, because it waits for the worker.
  WorkerPool pool{1};
};

}  // namespace

// It stands behind a pointer, because applications include the header, and none of this is theirs.
struct OutputFile::State {
  State(OsFile theFile, const char* thePath) : file(std::move(theFile)), path(thePath) {}

  OsFile file;
  std::string path;
  // Made with the first write that wants one, and only ever grown.
  AlignedArray buffer;
  unsigned capacity = 0;
  unsigned buffered = 0;
  // Accepted, wherever they are: in the buffer, in the file, or dropped.
  long long bytesWritten = 0;
  // Of the whole file, as the caller foresees it; -1 where nobody does.
  long long expected = -1;
  // Set once and never taken back.
  bool failed = false;
  // What the owner asked for, and whether it has come to that.
  bool dropsAfterOwnFailure = false;
  bool dropping = false;  // it failed, and so alone
  // Null where nothing is written by a worker. Last, because it writes to the file.
  std::unique_ptr<BufferBehind> behind;

  unsigned largeBuffer() const { return behind ? kBehindBuffer : kLargeBuffer; }
};

OutputFile::OutputFile(std::unique_ptr<State> state) : m_state(std::move(state)) {}

// O_NONBLOCK, so that opening a FIFO fails at once instead of waiting for a reader; it has no meaning for a
// file on a disk. O_NOCTTY, because a path may be a terminal's, which must not become the process's own.
OutputFile* OutputFile::createFileUtf8(const char* path, LogBase& log) {
  OsFile file(osOpen(path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_NOCTTY, 0666));
  if (!file.isOpen()) {
    logOsError(log, kCannotCreate, path, errno);
    return nullptr;
  }
  OutputFile* const opened = adopt(std::move(file), path);
  if (!opened) logOsError(log, kCannotCreate, path, ENOMEM);
  return opened;
}

// The descriptor is closed if there is no memory: it has been taken over.
OutputFile* OutputFile::adopt(OsFile file, const char* path) {
  try {
    return new OutputFile(std::make_unique<State>(std::move(file), path));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// Whoever wants to know how it ended has closed it before.
OutputFile::~OutputFile() { closeHandle(); }

void OutputFile::expect(long long n) { m_state->expected = n; }
void OutputFile::dropAfterOwnFailure() { m_state->dropsAfterOwnFailure = true; }
bool OutputFile::hasFailedAlone() const { return m_state->failed && m_state->dropping; }
long long OutputFile::ftell64() { return m_state->bytesWritten; }
int OutputFile::descriptor() const { return m_state->file.fd(); }

// Bytes that stand in the buffer already (see spareRoom) are only counted. After a failure that concerns this
// file alone, writes are accepted and dropped where the owner asked for that.
bool OutputFile::_writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) {
  // What is dropped counts as accepted, so that the positions of whoever writes stay right.
  if (m_state->dropping) m_state->bytesWritten += n;
  if (m_state->failed || !m_state->file.isOpen()) return m_state->dropping;
  if (n == 0) return true;
  ProgressMonitor* const pm = io.monitor();
  // The address tells: no caller has it but by spareRoom, and then the bytes fit.
  const bool isInPlace = m_state->capacity > 0 && bytes == m_state->buffer.get() + m_state->buffered;
  if (n > m_state->capacity - m_state->buffered) {
    if (m_state->buffered > 0 && !emptyBuffer(pm, log)) {
      if (m_state->dropping) m_state->bytesWritten += n;
      return m_state->dropping;
    }
    // A file that comes in one or two middling pieces needs no buffer either.
    const bool passes =
        n >= kPassesBuffer || (m_state->capacity == 0 && (n >= kSmallBuffer || n == m_state->expected));
    // The second time the buffer is too small the file is no small one, and gets the large buffer.
    if (passes || !makeBuffer(m_state->capacity == 0 ? kSmallBuffer : m_state->largeBuffer())) {
      const bool written = (finishBehind(log) && writeThrough(bytes, n, pm, log)) || m_state->dropping;
      if (written) m_state->bytesWritten += n;
      return written;
    }
  }
  if (!isInPlace) std::memcpy(m_state->buffer.get() + m_state->buffered, bytes, n);
  m_state->buffered += n;
  m_state->bytesWritten += n;
  return true;
}

// A buffer of at least this capacity, with what is in it; false when there is no memory, and the bytes then
// pass the buffer by. Bytes pass it by without a failure: a buffer is for speed alone.
bool OutputFile::makeBuffer(unsigned capacity) {
  if (capacity <= m_state->capacity) return true;
  // The old buffer stays in use when there is no memory for a larger one.
  AlignedArray grown = makeAlignedArray(capacity);
  if (!grown) return false;
  if (m_state->buffered > 0) std::memcpy(grown.get(), m_state->buffer.get(), m_state->buffered);
  m_state->buffer = std::move(grown);
  m_state->capacity = capacity;
  return true;
}

// Always in the large buffer: who asks for it copies whole files through.
char* OutputFile::spareRoom(unsigned n, unsigned& room, ProgressMonitor* pm, LogBase& log) {
  if (m_state->failed || !m_state->file.isOpen()) return nullptr;
  if (!makeBuffer(m_state->largeBuffer())) return nullptr;
  if (n > m_state->capacity - m_state->buffered && !emptyBuffer(pm, log)) return nullptr;
  room = m_state->capacity - m_state->buffered;
  return m_state->buffer.get() + m_state->buffered;
}

// Threads that wait for nothing but the disk can be had for regular files alone: elsewhere a write may wait
// for a reader, and then an event is asked.
void OutputFile::beginBehind() {
  mvFileInfo info;
  if (!m_state->behind && getFileInfo(info) && info.m_isRegularFile)
    m_state->behind = std::make_unique<BufferBehind>(m_state->file);
}

bool OutputFile::endBehind(LogBase& log) {
  const bool ok = finishBehind(log);
  m_state->behind.reset();
  return ok;
}

bool OutputFile::finishBehind(LogBase& log) {
  BufferBehind* const behind = m_state->behind.get();
  if (!behind || !behind->isUnderWay) return !m_state->failed;
  behind->isUnderWay = false;
  behind->pool.finish(*behind);
  return behind->error == 0 || failToWrite(behind->error, log);
}

// The buffer that was written last is filled next. Small ones are not worth it, nor is anything without
// memory for the second.
bool OutputFile::emptyBuffer(ProgressMonitor* pm, LogBase& log) {
  BufferBehind* const behind = m_state->behind.get();
  if (!behind || m_state->failed || m_state->capacity < kBehindBuffer) return flush(pm, log);
  if (!finishBehind(log)) {
    m_state->buffered = 0;
    return false;
  }
  if (!behind->bytes) behind->bytes = makeAlignedArray(m_state->capacity);
  if (!behind->bytes) return flush(pm, log);
  std::swap(behind->bytes, m_state->buffer);
  behind->n = std::exchange(m_state->buffered, 0);
  try {
    behind->pool.submit(*behind, 0, behind->n);
    behind->isUnderWay = true;
    return true;
  } catch (const std::bad_alloc&) {
    // Nobody has taken it over.
    std::swap(behind->bytes, m_state->buffer);
    m_state->buffered = behind->n;
    return flush(pm, log);
  }
}

// The bytes count as gone even where writing them fails, since the file is then of no use.
bool OutputFile::flush(ProgressMonitor* pm, LogBase& log) {
  const unsigned buffered = std::exchange(m_state->buffered, 0);
  if (m_state->failed || !finishBehind(log)) return false;
  return writeThrough(m_state->buffer.get(), buffered, pm, log);
}

// Always false, for the caller to return.
bool OutputFile::failToWrite(int error, LogBase& log) {
  failWith(error);
  logOsError(log, "Failed to write to file.", m_state->path.c_str(), error);
  return false;
}

// Until all is written or the system says no. Whether to abort is asked only when a signal has broken a wait.
bool OutputFile::writeThrough(const char* bytes, size_t n, ProgressMonitor* pm, LogBase& log) {
  while (n > 0) {
    const ssize_t written = m_state->file.writeSome(bytes, n);
    if (written > 0) {
      bytes += written;
      n -= static_cast<size_t>(written);
      continue;
    }
    const int error =
        written == 0 ? EIO : errno;  // a device that takes nothing takes nothing the next time either
    // endsWait has logged the abort, so that EINTR has no line of its own below.
    if (error == EINTR && !endsWait(pm, log)) continue;
    // A FIFO was opened without waiting for its reader; from here on writes wait.
    if (error == EAGAIN && m_state->file.setBlocking() == 0) continue;
    if (error != EINTR) return failToWrite(error, log);
    failWith(error);
    return false;
  }
  return true;
}

// EIO, EFBIG and EDQUOT speak of this file; a full disk (ENOSPC) concerns those behind it as well.
void OutputFile::failWith(int error) {
  m_state->failed = true;
  m_state->dropping = m_state->dropsAfterOwnFailure && (error == EIO || error == EFBIG || error == EDQUOT);
}

// Without the owner's wish to drop, this is a failure like any other.
void OutputFile::failAlone() {
  m_state->failed = true;
  m_state->dropping = m_state->dropsAfterOwnFailure;
}

// Of the open file and not of the path, which may mean another one by now.
bool OutputFile::getFileInfo(mvFileInfo& info) const {
  struct stat status;
  if (!m_state->file.isOpen() || m_state->file.status(status) != 0) return false;
  info.setFromStatus(status);
  return true;
}

// A regular file takes its bytes without waiting. Anything else may wait for a reader who does not come.
void OutputFile::abandon() {
  LogNull unwanted;
  mvFileInfo info;
  // Whether that succeeds is kept in `failed`; the job has its reason already.
  if (getFileInfo(info) && info.m_isRegularFile) flush(nullptr, unwanted);
  m_state->failed = m_state->failed || m_state->buffered > 0;
  m_state->buffered = 0;
}

// A network's file system may tell only here that a write failed before. An error behind an earlier one is
// not logged.
bool OutputFile::closeHandle(LogBase* log, ProgressMonitor* pm) {
  LogNull unwanted;
  LogBase& to = log ? *log : unwanted;
  if (!m_state->file.isOpen()) return !m_state->failed;
  // Its answer is kept in `failed`, and the file is to be closed in either case.
  flush(pm, to);
  if (m_state->file.close() != 0 && !m_state->failed) {
    const int error = errno;
    failWith(error);
    logOsError(to, "Failed to close file.", m_state->path.c_str(), error);
  }
  return !m_state->failed;
}

// The hole comes about by writing behind it; one at the end of the file is setLength's.
bool OutputFile::passHole(long long n, ProgressMonitor* pm, LogBase& log) {
  const bool isFlushed = flush(pm, log);
  // As in _writeBytes: what is dropped counts.
  if (isFlushed || m_state->dropping) m_state->bytesWritten += n;
  if (!isFlushed) return m_state->dropping;
  return m_state->file.seek(n, SEEK_CUR) >= 0 || failToShape("Failed to move on in the file.", log);
}

// The position need not be moved: nothing is written behind this.
bool OutputFile::setLength(long long length, ProgressMonitor* pm, LogBase& log) {
  if (!flush(pm, log)) return m_state->dropping;
  return m_state->file.setLength(length) == 0 || failToShape("Failed to give the file its length.", log);
}

// What a file system cannot hold of one file's length is no reason to lose the others. EPERM: it does not
// lengthen files.
bool OutputFile::failToShape(const char* message, LogBase& log) {
  const int error = errno;
  failWith(error == EINVAL || error == EPERM ? EFBIG : error);
  logOsError(log, message, m_state->path.c_str(), error);
  return m_state->dropping;
}

bool OutputFile::setFileTimeUtc(const MorvaneFileTime& modification, LogBase* log) {
  LogNull unwanted;
  return setTimes(nullptr, modification, log ? *log : unwanted);
}

bool OutputFile::setFileTimeUtc_3(const MorvaneFileTime&, const MorvaneFileTime& access,
                                  const MorvaneFileTime& modification, LogBase& log) {
  return setTimes(&access, modification, log);
}

// Without a time of access the file keeps its own. A flush that fails has said so, and the times are set all
// the same.
bool OutputFile::setTimes(const MorvaneFileTime* access, const MorvaneFileTime& modification, LogBase& log) {
  timespec accessTime{};
  accessTime.tv_nsec = UTIME_OMIT;
  if (access) accessTime = access->toTimespec();
  const timespec modificationTime = modification.toTimespec();
  // What is still in the buffer would change the time again when it is written.
  if (m_state->buffered > 0 || m_state->behind) flush(nullptr, log);
  const int result = m_state->file.isOpen() ? m_state->file.setTimes(accessTime, modificationTime)
                                            : osSetTimes(m_state->path.c_str(), accessTime, modificationTime);
  if (result != 0) logOsError(log, "Failed to set file times.", m_state->path.c_str(), errno);
  return result == 0;
}

}  // namespace morvane
