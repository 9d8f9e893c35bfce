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

// Owns one descriptor.
class MORVANE_API OsFile {
 public:
  explicit OsFile(int fd = -1) : m_fd(fd) {}
  ~OsFile() { close(); }
  OsFile(OsFile&& other) noexcept : m_fd(other.release()) {}
  OsFile& operator=(OsFile&& other) noexcept;

  bool isOpen() const { return m_fd >= 0; }
  int fd() const { return m_fd; }
  int release();
  void reset(int fd);
  // 0, or -1 with errno. The descriptor is gone in both cases.
  int close();

  // One system call each, EINTR included in what may come back.
  ssize_t readSome(void* buffer, size_t n) const;
  ssize_t readSomeAt(void* buffer, size_t n, long long position) const;
  ssize_t writeSome(const void* bytes, size_t n) const;

  int status(struct stat& out) const;
  int setTimes(const timespec& access, const timespec& modification) const;
  // Makes reads and writes wait again after an open that must not.
  int setBlocking() const;
  long long seek(long long offset, int whence) const;
  int setLength(long long length) const;

 private:
  int m_fd;
};

// The *at calls on a path of any length, relative to the current directory. O_CLOEXEC is always added.
int osOpen(const char* path, int flags, mode_t mode = 0);
int osOpenOnce(const char* path, int flags);  // a wait that a signal breaks is not taken up again
// openat, taken up again after a signal.
int osOpenAt(int directory, const char* name, int flags, mode_t mode = 0);
// Opens a file to be copied: for reading, never waiting for a FIFO, never taking a terminal, not following a
// symbolic link at the path's end, which has come there since the file was examined.
enum class SourceLinks { NotFollowed, Followed };
int osOpenSource(const char* path, SourceLinks links = SourceLinks::NotFollowed);
// The same for a name in an open directory.
int osOpenSource(int directory, const char* name, SourceLinks links = SourceLinks::NotFollowed);
int osStatus(const char* path, struct stat& out, bool followLinks);
int osMakeDirectory(const char* path, mode_t mode);
// The text of a symbolic link in an open directory, of any length. 0, or an errno.
int osReadLink(int directory, const char* name, std::string& text);
int osSetTimes(const char* path, const timespec& access, const timespec& modification);

// Whether a text can be a path at all. One with a NUL cannot: the system would take it to end there, and so
// to be another file's.
bool hasNul(const XString& path);
// The same; what cannot be one is logged with `message`.
bool isSystemPath(const XString& path, const char* message, LogBase& log);

// The error line `message`, then "path" and the reason that `error` gives, which is then what errno says.
void logOsError(LogBase& log, const char* message, const char* path, int error);

}  // namespace morvane
