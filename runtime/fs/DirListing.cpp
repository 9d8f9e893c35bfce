// Read to its end before the first entry is used: the order wants that, and what the application does to the
// directory meanwhile cannot make entries come twice.
#include "runtime/fs/DirListing.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace morvane {

namespace {

// O_DIRECTORY fails for anything else before it is opened, so that a FIFO of that name is not waited for.
constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY;

bool isSelfOrParent(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

}  // namespace

int DirListing::readIn(int parent, const char* name, bool followsLinks, size_t most) {
  directory.reset(osOpenAt(parent, name, kOpenDirectory | (followsLinks ? 0 : O_NOFOLLOW)));
  return directory.isOpen() ? readOpen(most) : errno;
}

int DirListing::readAheadIn(int parent, const char* name, size_t most) {
  directory.reset(
      osOpenResolved(parent, name, kOpenDirectory | O_NOFOLLOW, 0, RESOLVE_NO_XDEV | RESOLVE_NO_SYMLINKS));
  return directory.isOpen() ? readOpen(most) : errno;
}

int DirListing::read(const char* path) {
  directory.reset(osOpen(path, kOpenDirectory));
  return directory.isOpen() ? readOpen(std::string::npos) : errno;
}

// getdents64 itself, and not readdir, because a broken read is then told from the end, and the descriptor
// stays the listing's. Entries are offsets, because the string moves while it grows. By bytes, whatever the
// locale: the order of an archive must not depend on who makes it.
int DirListing::readOpen(size_t most) {
  names.clear();
  entries.clear();
  struct stat status;
  if (directory.status(status) != 0) return errno;
  // These belong to the open directory, whatever has the name by now.
  device = status.st_dev;
  inode = status.st_ino;
  // Some hundreds of names for each call. The kernel aligns entries from the beginning of the buffer on.
  alignas(dirent64) char buffer[32 * 1024];
  while (true) {
    const ssize_t filled = getdents64(directory.fd(), buffer, sizeof buffer);
    if (filled < 0) return errno;
    if (filled == 0) break;
    // Asked only once there is more: names that came with the first read are taken, however many bytes they
    // have.
    if (names.size() > most) return EFBIG;
    for (ssize_t at = 0; at < filled;) {
      const auto* const entry = reinterpret_cast<const dirent64*>(buffer + at);
      at += entry->d_reclen;
      if (isSelfOrParent(entry->d_name)) continue;
      entries.push_back(names.size());
      names.push_back(static_cast<char>(entry->d_type));
      names.append(entry->d_name).push_back('\0');
    }
  }
  // The string grows no more, so that the entries can be compared where they lie.
  const char* const all = names.data();
  std::sort(entries.begin(), entries.end(),
            [all](size_t a, size_t b) { return std::strcmp(all + a + 1, all + b + 1) < 0; });
  return 0;
}

}  // namespace morvane
