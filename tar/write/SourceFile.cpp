// One file at a time, from the look at it to its last byte. Looking and reading should be at one and the same
// file; where events may come between, its name is looked up twice on purpose, because applications create or
// replace files in them.
#include "tar/write/SourceFile.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "runtime/fs/OsFile.h"
#include "runtime/fs/Psdk.h"
#include "runtime/log/LogNull.h"

namespace morvane {

namespace {

// By the open directory of the walk where there is one: a path could lead elsewhere by now, and may be too
// long.
int openSource(const SourcePlace& place) {
  const auto links = place.followsLinks ? SourceLinks::Followed : SourceLinks::NotFollowed;
  if (place.directory < 0) return osOpenSource(place.fullPath.getUtf8(), links);
  return osOpenSource(place.directory, place.name, links);
}

}  // namespace

// Only what the directory already calls a regular file is opened, since opening a device or FIFO may do
// something. If it is none after all, or cannot be opened, it is examined by name, and the failure is told
// when its data are wanted.
bool SourceFile::examine(const SourcePlace& place, bool mayOpen, mvFileInfo& info, LogBase& log) {
  close();
  const char* const path = place.fullPath.getUtf8();
  if (place.directory < 0) {
    return place.followsLinks ? info.loadTargetInfoUtf8(path, log) : info.loadFileInfoUtf8(path, log);
  }
  if (place.isRegular && mayOpen) {
    OsFile file(openSource(place));
    struct stat status;
    if (file.isOpen() && file.status(status) == 0 && S_ISREG(status.st_mode)) {
      info.setFromStatus(status);
      m_data.adoptForCopy(std::move(file), path, info.m_size);
      m_open = true;
      return true;
    }
  }
  return info.loadFileInfoAt(place.directory, place.name, path, log, place.followsLinks);
}

// Nothing is open then: the worker has read all of it and closed it.
void SourceFile::take(const ReadAhead::Found& found, mvFileInfo& info) {
  close();
  info = found.info;
  m_open = true;
  m_wholeBytes = found.bytes;
}

// A link that has come to the path since is not followed, and is a failure.
bool SourceFile::open(const SourcePlace& place, const mvFileInfo& info, LogBase& log) {
  if (m_open) return true;
  const char* const path = place.fullPath.getUtf8();
  OsFile file(openSource(place));
  if (!file.isOpen()) {
    logOsError(log, "Failed to open file.", path, errno);
    return false;
  }
  m_data.adoptForCopy(std::move(file), path, info.m_size);
  m_open = true;
  return true;
}

// They stay with the source, which hands them out first. One byte is enough to have the source fill its
// buffer, or fail.
bool SourceFile::readFirst(LogBase& log) {
  if (m_wholeBytes) return true;
  const char* bytes = nullptr;
  unsigned got = 0;
  return m_data.peekBytes(1, bytes, got, nullptr, log);
}

// By the descriptor: the name may be another file's by now. Only for a message, so that why it cannot be told
// is not said.
long long SourceFile::sizeNow() {
  mvFileInfo info;
  LogNull unwanted;
  return m_data.getFileInfo(info, unwanted) ? info.m_size : -1;
}

// The text is any bytes; only its own header decides whether they fit.
bool SourceFile::readLink(const SourcePlace& place, std::string& text, LogBase& log) {
  const char* const path = place.fullPath.getUtf8();
  const int error =
      place.directory < 0 ? osReadLink(AT_FDCWD, path, text) : osReadLink(place.directory, place.name, text);
  if (error != 0) logOsError(log, "Failed to read the symbolic link.", path, error);
  return error == 0;
}

// The open file where there is one, else a descriptor that can only name it: nothing has to be readable for
// its attributes to be. The attributes of all name spaces only for the superuser, who alone may set them
// again.
bool SourceFile::readAttributes(const SourcePlace& place, FileMetadata::Attributes& attributes,
                                LogBase& log) {
  const char* const path = place.fullPath.getUtf8();
  OsFile named;
  const int noFollow = place.followsLinks ? 0 : O_NOFOLLOW;
  const bool hasFile = m_open && !m_wholeBytes;
  if (!hasFile) {
    named.reset(place.directory < 0 ? osOpen(path, O_PATH | noFollow)
                                    : osOpenAt(place.directory, place.name, O_PATH | noFollow));
  }
  const int fd = hasFile ? m_data.descriptor() : named.fd();
  const int error = fd < 0 ? errno : FileMetadata::readAttributes(fd, Psdk::isSuperuser(), attributes);
  if (error != 0) logOsError(log, "Failed to read the attributes of the file.", path, error);
  return error == 0;
}

// Where the file system cannot tell, the file is stored whole, and so is one of more ranges than a map may
// have.
void SourceFile::findRanges(long long size, SparseMap& map) {
  std::vector<SparseRange> ranges;
  long long stored = 0, start = 0, end = 0;
  for (long long at = 0; at < size; at = end) {
    const DataSearch found = osNextData(m_data.descriptor(), at, start, end);
    if (found == DataSearch::CannotTell) return;
    if (found == DataSearch::NoMore || start >= size) break;  // the rest is a hole
    end = std::min(end, size);
    // The map is still empty, and the file counts as one without holes.
    if (static_cast<long long>(ranges.size()) == SparseMap::kMostRanges) return;
    ranges.push_back({start, end - start});
    stored += end - start;
  }
  // No hole: an ordinary file.
  if (stored == size) return;
  map.begin(size);
  bool ok = true;
  for (const SparseRange& range : ranges) ok = ok && map.add(range.offset, range.length);
  // Ranges that a file being changed gives out of order make no map.
  if (!ok) map.clear();
}

// The source keeps its buffer for the next file.
void SourceFile::close() {
  if (m_open && !m_wholeBytes) m_data.close();
  m_open = false;
  m_wholeBytes = nullptr;
}

}  // namespace morvane
