// The system's calls, each in one place: whether a call that a signal broke is taken up again, whether a
// descriptor is inherited, and what becomes of a path that is too long are decided here once.
#include "runtime/fs/OsFile.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <utility>

#include "runtime/log/LogBase.h"
#include "runtime/text/XString.h"

namespace morvane {

namespace {

constexpr size_t kLongestLink = 1 << 20;  // no system has longer ones

// What was a regular file when it was examined may be a FIFO or a terminal when it is opened. Regular files
// do not notice O_NONBLOCK; who reads from anything else makes it wait again (setBlocking).
constexpr int kOpenSource = O_RDONLY | O_NONBLOCK | O_NOCTTY;

// A link is followed only where the user asked for what it points at.
int sourceFlags(SourceLinks links) { return kOpenSource | (links == SourceLinks::Followed ? 0 : O_NOFOLLOW); }

// Calls system(directory, rest) for a path. A path that the kernel would refuse for its length is walked down
// first, as many whole parts at a time as it takes.
// Parts are opened relative to the one before, so that nothing starts over at the root, and links are
// followed as the kernel itself would. Slashes in front of what is left go: it would be an absolute path with
// them. A path that ends in slashes leaves the directory reached, ".".
template <class Call>
// Any shorter path costs no more than the call itself.
int onPath(const char* path, Call call) {
  size_t length = std::strlen(path);
  if (length < PATH_MAX) return call(AT_FDCWD, path);
  OsFile directory;
  while (length >= PATH_MAX) {
    size_t cut = PATH_MAX - 1;
    // The piece ends behind a slash, so that no name is cut in two.
    while (cut > 0 && path[cut - 1] != '/') --cut;
    if (cut == 0) break;  // one part longer than any name may be: let the kernel say so
    const std::string parents(path, cut);
    const int from = directory.isOpen() ? directory.fd() : AT_FDCWD;
    // A right to read the directory is not needed on the way.
    const int opened = openat(from, parents.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (opened < 0) return -1;
    directory.reset(opened);
    path += cut;
    length -= cut;
    for (; *path == '/'; ++path) --length;
  }
  return call(directory.isOpen() ? directory.fd() : AT_FDCWD, *path ? path : ".");
}

}  // namespace

OsFile& OsFile::operator=(OsFile&& other) noexcept {
  if (this != &other) reset(other.release());
  return *this;
}

int OsFile::release() { return std::exchange(m_fd, -1); }

void OsFile::reset(int fd) {
  close();
  m_fd = fd;
}

// Not again after EINTR: Linux has given the number free by then, and another thread may have it already.
int OsFile::close() { return m_fd < 0 ? 0 : ::close(release()); }

// Reads and writes leave EINTR to the caller, who asks whether to abort before going on.
ssize_t OsFile::readSome(void* buffer, size_t n) const { return ::read(m_fd, buffer, n); }

ssize_t OsFile::readSomeAt(void* buffer, size_t n, long long position) const {
  return ::pread(m_fd, buffer, n, position);
}

// poll says so of every file on a disk. Where poll itself fails the answer is no, which only costs time.
bool OsFile::readsAtOnce() const {
  pollfd asked{m_fd, POLLIN, 0};
  return ::poll(&asked, 1, 0) > 0;
}

ssize_t OsFile::writeSome(const void* bytes, size_t n) const { return ::write(m_fd, bytes, n); }

ssize_t OsFile::writeSomeAt(const void* bytes, size_t n, long long position) const {
  return ::pwrite(m_fd, bytes, n, position);
}

int OsFile::writeWhole(const char* bytes, size_t n) const {
  while (n > 0) {
    const ssize_t written = writeSome(bytes, n);
    if (written < 0 && errno == EINTR) continue;
    // A device that takes nothing takes nothing the next time either.
    if (written <= 0) return written == 0 ? EIO : errno;
    bytes += written;
    n -= static_cast<size_t>(written);
  }
  return 0;
}

int OsFile::status(struct stat& out) const { return ::fstat(m_fd, &out); }

// File systems that are programs or networks may let a signal break this, which is then no failure.
int OsFile::setTimes(const timespec& access, const timespec& modification) const {
  const timespec times[2] = {access, modification};
  int result;
  do {
    result = ::futimens(m_fd, times);
  } while (result != 0 && errno == EINTR);
  return result;
}

// The flag belongs to the open file, not to the number: whoever shares it is changed, too.
int OsFile::setBlocking() const {
  const int flags = ::fcntl(m_fd, F_GETFL);
  return flags < 0 ? -1 : ::fcntl(m_fd, F_SETFL, flags & ~O_NONBLOCK);
}

long long OsFile::seek(long long offset, int whence) const { return ::lseek(m_fd, offset, whence); }

// A signal may break this as it may break setTimes; the length is asked for again and is the same.
int OsFile::setLength(long long length) const {
  int result;
  do {
    result = ::ftruncate(m_fd, length);
  } while (result != 0 && errno == EINTR);
  return result;
}

// The file's own length is enough of its metadata. Times and the like may reach the disk later (fdatasync).
int OsFile::sync() const {
  int result;
  do {
    result = ::fdatasync(m_fd);
  } while (result != 0 && errno == EINTR);
  return result;
}

// dup would leave the copy open in a program that another thread starts meanwhile.
OsFile OsFile::duplicate() const { return OsFile(::fcntl(m_fd, F_DUPFD_CLOEXEC, 0)); }

// The mode is without meaning unless the flags create a file. An open may wait long, for a FIFO or a network,
// and a signal in that time is taken for none.
int osOpen(const char* path, int flags, mode_t mode) {
  int fd;
  do {
    fd = onPath(path, [&](int directory, const char* rest) {
      return openat(directory, rest, flags | O_CLOEXEC, mode);
    });
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// So that Ctrl-C gets a program out of a FIFO that nobody writes to.
int osOpenOnce(const char* path, int flags) {
  return onPath(path,
                [&](int directory, const char* rest) { return openat(directory, rest, flags | O_CLOEXEC); });
}

// A single name, or a path that the kernel takes at once.
int osOpenAt(int directory, const char* name, int flags, mode_t mode) {
  int fd;
  do {
    fd = openat(directory, name, flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

int osOpenSource(const char* path, SourceLinks links) { return osOpen(path, sourceFlags(links)); }

// By its number, because most C libraries have no function for it. A program that another thread starts
// meanwhile must not inherit the descriptor.
int osOpenResolved(int directory, const char* path, int flags, mode_t mode, unsigned long long resolve) {
  open_how how{};
  how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
  how.mode = mode;
  how.resolve = resolve;
  return static_cast<int>(::syscall(SYS_openat2, directory, path, &how, sizeof how));
}

int osOpenSource(int directory, const char* name, SourceLinks links) {
  return osOpenAt(directory, name, sourceFlags(links));
}

int osStatus(const char* path, struct stat& out, bool followLinks) {
  return onPath(path, [&](int directory, const char* rest) {
    return fstatat(directory, rest, &out, followLinks ? 0 : AT_SYMLINK_NOFOLLOW);
  });
}

// The system does not tell whether the text was cut: one that fills the buffer is read again into a larger
// one. Links of /proc have no size to ask for beforehand.
int osReadLink(int directory, const char* name, std::string& text) {
  for (text.resize(256); text.size() <= kLongestLink; text.resize(text.size() * 4)) {
    const ssize_t length = ::readlinkat(directory, name, &text[0], text.size());
    if (length < 0) return errno;
    if (static_cast<size_t>(length) < text.size()) {
      text.resize(static_cast<size_t>(length));
      return 0;
    }
  }
  return ENAMETOOLONG;
}

int osRemoveFile(const char* path) {
  return onPath(path, [&](int directory, const char* rest) { return unlinkat(directory, rest, 0); });
}

int osMakeDirectory(const char* path, mode_t mode) {
  return onPath(path, [&](int directory, const char* rest) { return mkdirat(directory, rest, mode); });
}

// Follows a link at the end of the path, as the caller's own path may be one.
int osSetTimes(const char* path, const timespec& access, const timespec& modification) {
  const timespec times[2] = {access, modification};
  return onPath(path, [&](int directory, const char* rest) { return utimensat(directory, rest, times, 0); });
}

bool hasNul(const std::string& path) { return path.find('\0') != std::string::npos; }

// ENXIO: from there on there is but a hole, or the file has ended. A file system without this search says
// EINVAL. A file's end counts as a hole, so that the second search finds at least that.
DataSearch osNextData(int fd, long long from, long long& start, long long& end) {
  start = ::lseek(fd, from, SEEK_DATA);
  if (start < 0) return errno == ENXIO ? DataSearch::NoMore : DataSearch::CannotTell;
  end = ::lseek(fd, start, SEEK_HOLE);
  // The file may change meanwhile, so that the two need not fit.
  return end > start ? DataSearch::Found : DataSearch::CannotTell;
}

// EINVAL, since the system never sees such a path to find a reason of its own.
bool isSystemPath(const XString& path, const char* message, LogBase& log) {
  if (!hasNul(path.str())) return true;
  logOsError(log, message, path.getUtf8(), EINVAL);
  return false;
}

// Writing the lines may change errno, and callers look at it afterwards.
void logOsError(LogBase& log, const char* message, const char* path, int error) {
  log.LogError(message);
  log.LogData("path", path);
  log.LogData("reason", std::strerror(error));
  errno = error;
}

}  // namespace morvane
