// Owner, mode, times and attributes by descriptor. Descriptors of links and special files can only name them
// (O_PATH): the newer calls take those with an empty path, the older ones answer EBADF and are given the name
// that /proc has for the descriptor, which leads to that very file whatever its path is by then.
#include "runtime/fs/FileMetadata.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <system_error>
#include <thread>

#include "runtime/base/SignalsBlocked.h"

namespace morvane {

namespace {

// The system's -1 with errno, as the result that this file promises.
int resultOf(long returned) { return returned < 0 ? errno : 0; }

// A path to an open file, for the calls that take no descriptor that can only name one. Without /proc these
// calls fail, mostly with ENOENT.
std::string pathOf(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

bool startsWith(const std::string& name, std::string_view start) {
  return name.compare(0, start.size(), start) == 0;
}

// Of the name space "system." the access lists are the only ones that are a user's.
bool isWanted(const std::string& name, bool all) {
  return FileMetadata::isUserAttribute(name) || name == FileMetadata::kAccessList ||
         name == FileMetadata::kDefaultList || (all && FileMetadata::isSecurityAttribute(name));
}

// Attributes may grow between two calls, so the size is asked for anew as long as it was too small.
template <class Read>
int readGrowing(std::string& bytes, Read read) {
  // The tries are counted, because somebody may be changing them all the time.
  for (int tries = 0; tries < 8; ++tries) {
    const ssize_t size = read(nullptr, 0);
    if (size < 0) return errno;
    bytes.resize(static_cast<size_t>(size));
    if (size == 0) return 0;
    const ssize_t got = read(&bytes[0], bytes.size());
    if (got >= 0) {
      bytes.resize(static_cast<size_t>(got));
      return 0;
    }
    if (errno != ERANGE) return errno;
  }
  return ERANGE;
}

// Asking the kernel sets it, too. So a thread asks, that has parted with the process's; too strict a guess
// where that is not allowed costs rights that the user can give again, too lax a one gives away what others
// may then read.
unsigned umaskByThread() {
  unsigned mask = 077;
  try {
    const SignalsBlocked blocked;
    std::thread([&mask] {
      if (unshare(CLONE_FS) == 0) mask = ::umask(0) & FileMetadata::kPermissions;
    }).join();
  } catch (const std::system_error&) {  // the system gives no thread
  }
  return mask;
}

}  // namespace

// Links have owners, so that none is followed: the descriptor is the file itself. fchownat takes the empty
// path for descriptors of every kind.
int FileMetadata::setOwner(int fd, unsigned uid, unsigned gid) {
  return resultOf(fchownat(fd, "", uid, gid, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW));
}

// Permissions with the set-id and sticky bits, as setMode takes them. fstat takes O_PATH descriptors, too.
void FileMetadata::look(int fd, Status& status) {
  struct stat found;
  status.isKnown = fstat(fd, &found) == 0;
  status.error = status.isKnown ? 0 : errno;
  if (!status.isKnown) return;
  status.uid = found.st_uid;
  status.gid = found.st_gid;
  status.mode = found.st_mode & kAllBits;
}

// The effective ids, which are the ones that the system gives to new files.
void FileMetadata::ownIds(unsigned& uid, unsigned& gid) {
  uid = geteuid();
  gid = getegid();
}

// fchmod is the one call for open files, and answers EBADF where the descriptor only names one.
int FileMetadata::setMode(int fd, unsigned mode) {
  if (fchmod(fd, mode) == 0) return 0;
  return errno == EBADF ? resultOf(chmod(pathOf(fd).c_str(), mode)) : errno;
}

// The kernel takes the empty path here, too, so that links get their times without /proc. Linux does so since
// 5.8; older ones say EINVAL, and the link keeps its time.
int FileMetadata::setTimes(int fd, const timespec& access, const timespec& modification) {
  const timespec times[] = {access, modification};
  if (futimens(fd, times) == 0) return 0;
  return errno == EBADF ? resultOf(utimensat(fd, "", times, AT_EMPTY_PATH)) : errno;
}

bool FileMetadata::isUserAttribute(const std::string& name) { return startsWith(name, "user."); }

bool FileMetadata::isSecurityAttribute(const std::string& name) {
  return startsWith(name, "security.") || startsWith(name, "trusted.");
}

// By its name in /proc also where it is a link: that name leads to the link and no further.
int FileMetadata::setAttribute(int fd, const std::string& name, const std::string& value) {
  if (fsetxattr(fd, name.c_str(), value.data(), value.size(), 0) == 0) return 0;
  if (errno != EBADF) return errno;
  return resultOf(setxattr(pathOf(fd).c_str(), name.c_str(), value.data(), value.size(), 0));
}

// Listed and read by path for the sake of descriptors that only name a file. The list is one string of names,
// each with its NUL.
int FileMetadata::readAttributes(int fd, bool all, Attributes& attributes) {
  attributes.clear();
  const std::string path = pathOf(fd);
  std::string names;
  const int error =
      readGrowing(names, [&](char* buffer, size_t size) { return listxattr(path.c_str(), buffer, size); });
  // Having none is no failure.
  if (error != 0) return error == ENOTSUP || error == ENOSYS ? 0 : error;
  for (size_t start = 0; start < names.size();) {
    const std::string name = names.c_str() + start;
    start += name.size() + 1;
    if (!isWanted(name, all)) continue;
    std::string value;
    const int failed = readGrowing(
        value, [&](char* buffer, size_t size) { return getxattr(path.c_str(), name.c_str(), buffer, size); });
    if (failed == ENODATA) continue;  // it has gone meanwhile
    if (failed != 0) return failed;
    // The kernel bounds both: names together to 64 KiB, a value to 64 KiB.
    attributes.emplace_back(name, std::move(value));
  }
  return 0;
}

// The kernel tells it since 4.7, where /proc is.
unsigned FileMetadata::umask() {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen("/proc/self/status", "re"),
                                                             std::fclose);
  char line[256];
  while (file && std::fgets(line, sizeof line, file.get())) {
    // The line reads "Umask:", a tab, and octal digits.
    constexpr char kTag[] = "Umask:";
    if (std::strncmp(line, kTag, sizeof kTag - 1) == 0) {
      return static_cast<unsigned>(std::strtoul(line + sizeof kTag - 1, nullptr, 8)) & kPermissions;
    }
  }
  return umaskByThread();
}

}  // namespace morvane
