// The order is what makes it safe: bytes behind, the disk asked for them, then the held ones from the last to
// the first, since the first one is what a reader looks at.
#include "runtime/io/AppendOutput.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>

#include "runtime/log/LogBase.h"

namespace morvane {

namespace {

// Written in one call each. A disk writes no less, so that half of one is never seen. A tar block has the
// same size, so that a reader never meets half of a header.
constexpr unsigned kAtomic = 512;
constexpr char kCannotAppend[] = "Failed to append to file.";

}  // namespace

// Whatever can fail comes before there is an object, whose destructor would take back what was never written:
// without the old length, it would cut the end mark off. Two descriptors of one file share a position, which
// the second one writes from.
std::unique_ptr<AppendOutput> AppendOutput::create(OsFile file, const std::string& path, long long at,
                                                   unsigned held, LogBase& log) {
  struct stat status;
  OsFile second;
  bool isReady = file.status(status) == 0 && file.seek(at + held, SEEK_SET) >= 0;
  if (isReady) second = file.duplicate();
  isReady = isReady && second.isOpen();
  if (!isReady) {
    logOsError(log, kCannotAppend, path.c_str(), errno);
    return nullptr;
  }
  std::unique_ptr<OutputFile> rest(OutputFile::adopt(std::move(second), path.c_str()));
  if (!rest) throw std::bad_alloc();
  return std::unique_ptr<AppendOutput>(
      new AppendOutput(std::move(file), path, at, held, status.st_size, std::move(rest)));
}

// The room is made here: a later write that has none would leave a part of the archive out.
AppendOutput::AppendOutput(OsFile file, const std::string& path, long long at, unsigned held,
                           long long oldLength, std::unique_ptr<OutputFile> rest)
    : m_file(std::move(file)),
      m_path(path),
      m_at(at),
      m_held(held),
      m_oldLength(oldLength),
      m_rest(std::move(rest)) {
  m_front.reserve(held);
}

// What is buffered must have gone before the file is cut. The position, which both descriptors have, tells
// how far that came: of a write that failed the system may have taken a part.
AppendOutput::~AppendOutput() {
  m_rest.reset();
  if (m_isCommitted) return;
  const long long end = m_file.seek(0, SEEK_CUR);
  takeBack(end < 0 ? m_oldLength : end);
}

bool AppendOutput::_writeBytes(const char* bytes, unsigned int n, _mvIoParams& io, LogBase& log) {
  // Once all of the held bytes are there this is 0.
  const auto kept = std::min(n, m_held - static_cast<unsigned>(m_front.size()));
  m_front.append(bytes, kept);
  return n == kept || m_rest->_writeBytes(bytes + kept, n - kept, io, log);
}

// Behind the new end nothing is left of the old zeros.
bool AppendOutput::commit(ProgressMonitor* pm, LogBase& log) {
  const long long newLength = m_at + static_cast<long long>(m_front.size()) + m_rest->ftell64();
  if (!m_rest->closeHandle(&log, pm)) return false;
  // The disk is not asked again behind the held bytes: as long as the first of them is not there, the archive
  // is the one that it was.
  if (m_file.sync() != 0) return fail(log);
  if (!writeHeld(log)) return false;
  if (m_file.setLength(newLength) != 0) return fail(log);
  m_isCommitted = true;
  return true;
}

bool AppendOutput::writeHeld(LogBase& log) {
  m_isFrontTouched = true;
  for (size_t end = m_front.size(); end > 0;) {
    const size_t start = (end - 1) / kAtomic * kAtomic;
    const ssize_t written =
        m_file.writeSomeAt(m_front.data() + start, end - start, m_at + static_cast<long long>(start));
    if (written < 0 && errno == EINTR) continue;
    // A short write brings no reason; a lack of room is what it means on a disk.
    if (written >= 0 && static_cast<size_t>(written) < end - start) errno = ENOSPC;
    if (written < 0 || static_cast<size_t>(written) < end - start) return fail(log);
    end = start;
  }
  return true;
}

// False, for the caller to return.
bool AppendOutput::fail(LogBase& log) {
  logOsError(log, kCannotAppend, m_path.c_str(), errno);
  return false;
}

// Zeros are what was there. They are written, because a file that is cut off may not be allowed to grow
// again; where writing fails that is tried all the same. The held bytes are touched only when they are in
// doubt.
void AppendOutput::takeBack(long long end) {
  const long long keeps = m_isFrontTouched ? m_at : m_at + m_held;
  static constexpr char kZeros[16 * 1024] = {};
  for (long long at = keeps; at < std::min(end, m_oldLength);) {
    const auto n = static_cast<size_t>(std::min<long long>(sizeof kZeros, std::min(end, m_oldLength) - at));
    const ssize_t written = m_file.writeSomeAt(kZeros, n, at);
    if (written < 0 && errno == EINTR) continue;
    // What is over a limit now was so before.
    if (written < 0 && errno == EFBIG) break;
    if (written <= 0) {
      // Where zeros cannot be written, the new bytes are cut off at least. The length below brings zeros back
      // where the file may grow.
      m_file.setLength(std::min(m_oldLength, keeps));
      break;
    }
    at += written;
  }
  m_file.setLength(m_oldLength);
}

}  // namespace morvane
