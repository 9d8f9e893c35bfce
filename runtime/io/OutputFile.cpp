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

#include "runtime/fs/MorvaneFileTime.h"
#include "runtime/fs/mvFileInfo.h"
#include "runtime/io/Abort.h"
#include "runtime/log/LogNull.h"

namespace morvane {

namespace {

// Most files are small: they get a small buffer, and a large one only once that has been filled. What does
// not fit and has kPassesBuffer bytes or more gains nothing by being copied first.
constexpr unsigned kSmallBuffer = 16 * 1024;
constexpr unsigned kLargeBuffer = 256 * 1024;
constexpr unsigned kPassesBuffer = 64 * 1024;
static_assert(OutputFile::kMostSpare <= kLargeBuffer);

}  // namespace

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
    return new OutputFile(std::move(file), path);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// Whoever wants to know how it ended has closed it before.
OutputFile::~OutputFile() { closeHandle(); }

// Bytes that stand in the buffer already (see spareRoom) are only counted. After a failure that concerns this
// file alone, writes are accepted and dropped where the owner asked for that.
bool OutputFile::_writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) {
  // What is dropped counts as accepted, so that the positions of whoever writes stay right.
  if (m_dropping) m_bytesWritten += n;
  if (m_failed || !m_file.isOpen()) return m_dropping;
  if (n == 0) return true;
  ProgressMonitor* const pm = io.monitor();
  const bool isInPlace = m_capacity > 0 && bytes == m_buffer.get() + m_buffered;
  if (n > m_capacity - m_buffered) {
    if (m_buffered > 0 && !flush(pm, log)) {
      if (m_dropping) m_bytesWritten += n;
      return m_dropping;
    }
    // A file that comes in one or two middling pieces needs no buffer either.
    const bool passes = n >= kPassesBuffer || (m_capacity == 0 && (n >= kSmallBuffer || n == m_expected));
    if (passes || !makeBuffer(m_capacity == 0 ? kSmallBuffer : kLargeBuffer)) {
      const bool written = writeThrough(bytes, n, pm, log) || m_dropping;
      if (written) m_bytesWritten += n;
      return written;
    }
  }
  if (!isInPlace) std::memcpy(m_buffer.get() + m_buffered, bytes, n);
  m_buffered += n;
  m_bytesWritten += n;
  return true;
}

// A buffer of at least this capacity, with what is in it; false when there is no memory, and the bytes then
// pass the buffer by. Bytes pass it by without a failure: a buffer is for speed alone.
bool OutputFile::makeBuffer(unsigned capacity) {
  if (capacity <= m_capacity) return true;
  AlignedArray grown = makeAlignedArray(capacity);
  if (!grown) return false;
  if (m_buffered > 0) std::memcpy(grown.get(), m_buffer.get(), m_buffered);
  m_buffer = std::move(grown);
  m_capacity = capacity;
  return true;
}

// Always in the large buffer: who asks for it copies whole files through.
char* OutputFile::spareRoom(unsigned n, unsigned& room, ProgressMonitor* pm, LogBase& log) {
  if (m_failed || !m_file.isOpen()) return nullptr;
  if (!makeBuffer(kLargeBuffer)) return nullptr;
  if (n > m_capacity - m_buffered && !flush(pm, log)) return nullptr;
  room = m_capacity - m_buffered;
  return m_buffer.get() + m_buffered;
}

// The bytes count as gone even where writing them fails, since the file is then of no use.
bool OutputFile::flush(ProgressMonitor* pm, LogBase& log) {
  if (m_failed) return false;
  const unsigned buffered = m_buffered;
  m_buffered = 0;
  return writeThrough(m_buffer.get(), buffered, pm, log);
}

// Until all is written or the system says no. Whether to abort is asked only when a signal has broken a wait.
bool OutputFile::writeThrough(const char* bytes, size_t n, ProgressMonitor* pm, LogBase& log) {
  while (n > 0) {
    const ssize_t written = m_file.writeSome(bytes, n);
    if (written > 0) {
      bytes += written;
      n -= static_cast<size_t>(written);
      continue;
    }
    const int error =
        written == 0 ? EIO : errno;  // a device that takes nothing takes nothing the next time either
    if (error == EINTR && !endsWait(pm, log)) continue;
    // A FIFO was opened without waiting for its reader; from here on writes wait.
    if (error == EAGAIN && m_file.setBlocking() == 0) continue;
    failWith(error);
    if (error != EINTR) logOsError(log, "Failed to write to file.", m_path.c_str(), error);
    return false;
  }
  return true;
}

// EIO, EFBIG and EDQUOT speak of this file; a full disk (ENOSPC) concerns those behind it as well.
void OutputFile::failWith(int error) {
  m_failed = true;
  m_dropping = m_dropsAfterOwnFailure && (error == EIO || error == EFBIG || error == EDQUOT);
}

void OutputFile::failAlone() {
  m_failed = true;
  m_dropping = m_dropsAfterOwnFailure;
}

// Of the open file and not of the path, which may mean another one by now.
bool OutputFile::getFileInfo(mvFileInfo& info) const {
  struct stat status;
  if (!m_file.isOpen() || m_file.status(status) != 0) return false;
  info.setFromStatus(status);
  return true;
}

// A regular file takes its bytes without waiting. Anything else may wait for a reader who does not come.
void OutputFile::abandon() {
  LogNull unwanted;
  mvFileInfo info;
  if (getFileInfo(info) && info.m_isRegularFile) flush(nullptr, unwanted);
  m_failed = m_failed || m_buffered > 0;
  m_buffered = 0;
}

// A network's file system may tell only here that a write failed before. An error behind an earlier one is
// not logged.
bool OutputFile::closeHandle(LogBase* log, ProgressMonitor* pm) {
  LogNull unwanted;
  LogBase& to = log ? *log : unwanted;
  if (!m_file.isOpen()) return !m_failed;
  flush(pm, to);
  if (m_file.close() != 0 && !m_failed) {
    const int error = errno;
    failWith(error);
    logOsError(to, "Failed to close file.", m_path.c_str(), error);
  }
  return !m_failed;
}

bool OutputFile::passHole(long long n, ProgressMonitor* pm, LogBase& log) {
  if (!flush(pm, log)) return m_dropping;
  m_bytesWritten += n;
  return m_file.seek(n, SEEK_CUR) >= 0 || failToShape("Failed to move on in the file.", log);
}

bool OutputFile::setLength(long long length, ProgressMonitor* pm, LogBase& log) {
  if (!flush(pm, log)) return m_dropping;
  return m_file.setLength(length) == 0 || failToShape("Failed to give the file its length.", log);
}

// What a file system cannot hold of one file's length is no reason to lose the others. EPERM: it does not
// lengthen files.
bool OutputFile::failToShape(const char* message, LogBase& log) {
  const int error = errno;
  failWith(error == EINVAL || error == EPERM ? EFBIG : error);
  logOsError(log, message, m_path.c_str(), error);
  return m_dropping;
}

// The access time stays.
bool OutputFile::setFileTimeUtc(const MorvaneFileTime& modification, LogBase* log) {
  LogNull unwanted;
  timespec leaveAccess{};
  leaveAccess.tv_nsec = UTIME_OMIT;
  return setTimes(leaveAccess, modification.toTimespec(), log ? *log : unwanted);
}

bool OutputFile::setFileTimeUtc_3(const MorvaneFileTime&, const MorvaneFileTime& access,
                                  const MorvaneFileTime& modification, LogBase& log) {
  return setTimes(access.toTimespec(), modification.toTimespec(), log);
}

// A flush that fails has said so, and the times are set all the same.
bool OutputFile::setTimes(const timespec& access, const timespec& modification, LogBase& log) {
  // What is still in the buffer would change the time again when it is written.
  if (m_buffered > 0) flush(nullptr, log);
  const int result = m_file.isOpen() ? m_file.setTimes(access, modification)
                                     : osSetTimes(m_path.c_str(), access, modification);
  if (result != 0) logOsError(log, "Failed to set file times.", m_path.c_str(), errno);
  return result == 0;
}

}  // namespace morvane
