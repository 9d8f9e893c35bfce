// The operating system's files behind owned descriptors. Everything else in the library goes through this
// folder.
//
// Operations return what the system call returned and leave the reason in errno; interpreting and logging it
// is the caller's. Paths may be longer than PATH_MAX: such a path is walked down directory by directory.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>

#include "runtime/base/Export.h"

namespace morvane {

class LogBase;
class XString;

// Owns one descriptor. It is moved, never copied, and closed with the object; a close whose result matters
// (written data) is called by itself. One thread at a time; the system's own rules hold for descriptors that
// are shared. -1 is none.
class MORVANE_API OsFile {
 public:
  explicit OsFile(int fd = -1) : m_fd(fd) {}
  ~OsFile() { close(); }
  OsFile(OsFile&& other) noexcept : m_fd(other.release()) {}
  OsFile& operator=(OsFile&& other) noexcept;

  bool isOpen() const { return m_fd >= 0; }
  int fd() const { return m_fd; }
  // Gives the descriptor away, to be closed by the caller, and owns none.
  int release();
  // Closes what it had and takes the new one over.
  void reset(int fd);
  // 0, or -1 with errno. The descriptor is gone in both cases.
  int close();

  // One system call each, EINTR included in what may come back. They return how many bytes were moved, which
  // may be fewer than asked for; 0 at the end of a file. readSomeAt leaves the position alone.
  ssize_t readSome(void* buffer, size_t n) const;
  ssize_t readSomeAt(void* buffer, size_t n, long long position) const;
  // Whether a read would not wait: there are bytes, or the end, or a failure.
  bool readsAtOnce() const;
  ssize_t writeSome(const void* bytes, size_t n) const;
  ssize_t writeSomeAt(const void* bytes, size_t n, long long position) const;
  // Until all is written: signals, and a system that takes only a part, are gone on with. 0, or an errno.
  int writeWhole(const char* bytes, size_t n) const;

  // Times are set to the nanosecond, as far as the file system keeps them.
  int status(struct stat& out) const;
  int setTimes(const timespec& access, const timespec& modification) const;
  // Makes reads and writes wait again after an open that must not.
  int setBlocking() const;
  // The new position from the start, or -1; `whence` is the system's (SEEK_SET, SEEK_DATA).
  long long seek(long long offset, int whence) const;
  // Cuts the file, or lengthens it by a hole. The position stays.
  int setLength(long long length) const;
  // Waits until the disk has what was written. 0, or -1 with errno.
  int sync() const;
  // Another descriptor of the same open file, which shares the position; closed when there is none to be had.
  OsFile duplicate() const;

 private:
  int m_fd;
};

// The *at calls on a path of any length, relative to the current directory. O_CLOEXEC is always added.
int osOpen(const char* path, int flags, mode_t mode = 0);
int osOpenOnce(const char* path, int flags);  // a wait that a signal breaks is not taken up again
// openat, taken up again after a signal.
int osOpenAt(int directory, const char* name, int flags, mode_t mode = 0);
// openat2 (Linux 5.6), tried once: `resolve` are the RESOLVE flags of linux/openat2.h. -1 with ENOSYS or
// EPERM where there is none.
int osOpenResolved(int directory, const char* path, int flags, mode_t mode, unsigned long long resolve);
// Opens a file to be copied: for reading, never waiting for a FIFO, never taking a terminal, not following a
// symbolic link at the path's end, which has come there since the file was examined.
enum class SourceLinks { NotFollowed, Followed };
int osOpenSource(const char* path, SourceLinks links = SourceLinks::NotFollowed);
// The same for a name in an open directory.
int osOpenSource(int directory, const char* name, SourceLinks links = SourceLinks::NotFollowed);
// What lies at the path; with `followLinks` a link at its end is what it points at.
int osStatus(const char* path, struct stat& out, bool followLinks);
// 0 or -1 with errno. Its parent must be there.
int osMakeDirectory(const char* path, mode_t mode);
// Removes a file's name. 0 or -1 with errno.
int osRemoveFile(const char* path);
// The text of a symbolic link in an open directory, of any length. 0, or an errno.
int osReadLink(int directory, const char* name, std::string& text);
int osSetTimes(const char* path, const timespec& access, const timespec& modification);

// The first range of data in an open file from `from` on, in bytes, up to the hole behind it or the file's
// end. File systems that know no holes name the whole file; CannotTell where they answer nothing of use. The
// position of the file is another one behind it.
enum class DataSearch { Found, NoMore, CannotTell };
DataSearch osNextData(int fd, long long from, long long& start, long long& end);

// Whether a text can be a path at all. One with a NUL cannot: the system would take it to end there, and so
// to be another file's.
bool hasNul(const std::string& path);
// The same; what cannot be one is logged with `message`.
bool isSystemPath(const XString& path, const char* message, LogBase& log);

// The words for a file that cannot be made, wherever that is tried.
constexpr char kCannotCreate[] = "Failed to create file.";

// The error line `message`, then "path" and the reason that `error` gives, which is then what errno says.
void logOsError(LogBase& log, const char* message, const char* path, int error);

}  // namespace morvane
