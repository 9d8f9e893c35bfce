// The names in one directory, read at once and sorted by their bytes, and the open directory itself.
#pragma once

#include <string>
#include <vector>

#include "runtime/fs/OsFile.h"

namespace morvane {

// A value that is filled in once; any thread may do that.
struct DirListing {
  // Opens `name` in the open directory `parent` and reads it. With `followsLinks` a link to a directory will
  // do. Returns 0, or an errno; then nothing of it is good. EFBIG: the names take more than `most` bytes, and
  // the system has more of them; its last piece may go beyond that.
  int readIn(int parent, const char* name, bool followsLinks, size_t most = std::string::npos);
  // Where nobody has asked for the directory yet: links are not followed, and a file system that is mounted
  // there is not entered (EXDEV), because it might not answer. ENOSYS or EPERM where the kernel cannot tell.
  int readAheadIn(int parent, const char* name, size_t most);
  // The same of a directory by its path, which may be a link.
  int read(const char* path);
  // Of the n-th entry, which is there: "." and ".." are none. The type is one of the system's (DT_REG and its
  // like), DT_UNKNOWN where the file system tells none.
  const char* nameOf(size_t n) const { return names.data() + entries[n] + 1; }
  unsigned char typeOf(size_t n) const { return static_cast<unsigned char>(names[entries[n]]); }

  // Open for as long as the listing lives, unless its owner closes it.
  OsFile directory;
  // To know it again when it is opened anew.
  unsigned long long device = 0, inode = 0;
  // For each entry its type byte, its name, NUL; and where they begin, sorted by name.
  std::string names;
  std::vector<size_t> entries;

 private:
  // Reads all of `directory`, which has just been opened. Returns what readIn returns.
  int readOpen(size_t most);
};

}  // namespace morvane
