// The floor of plain archives: written, extracted and walked over.
#define _GNU_SOURCE
#include <dirent.h>
#include <err.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "floor_tar.h"

// The fields of a header block that are used here, as POSIX ustar has them: offset and width, two arguments
// of a call. Only the type and the texts are got at by their offsets alone.
#define MODE 100, 8
#define UID 108, 8
#define GID 116, 8
#define SIZE 124, 12
#define MTIME 136, 12
#define CHECKSUM 148, 8
enum { kTypeAt = 156, kMagicAt = 257, kUserAt = 265, kGroupAt = 297 };

static size_t padded(size_t n) { return (n + kBlock - 1) / kBlock * kBlock; }

// mmap says MAP_FAILED where malloc says NULL.
void* must(void* pointer, const char* what) {
  if (!pointer || pointer == MAP_FAILED) err(1, "%s", what);
  return pointer;
}

// 0644 only counts where a file is made.
int openIt(int dir, const char* path, int flags) {
  const int fd = openat(dir, path, flags | O_CLOEXEC, 0644);
  if (fd < 0) err(1, "%s", path);
  return fd;
}

// The system may take less than it is given, from a pipe's reader for example.
void writeAll(int fd, const void* bytes, size_t n) {
  for (size_t done = 0; done < n;) {
    const ssize_t written = write(fd, (const char*)bytes + done, n - done);
    if (written < 0) err(1, "write");
    done += (size_t)written;
  }
}

// ---- Header blocks

// The block is zeros before, so that the byte behind the digits ends the field.
static void putOctal(unsigned char* block, int offset, int width, uint64_t value) {
  for (int i = width - 2; i >= 0; --i, value >>= 3) block[offset + i] = (unsigned char)('0' + (value & 7));
}

// Fields end at a NUL, a blank or their width. No file of the data sets has a size that octal digits cannot
// hold.
static uint64_t getOctal(const unsigned char* block, int offset, int width) {
  uint64_t value = 0;
  for (int i = offset; i < offset + width && block[i] >= '0' && block[i] <= '7'; ++i)
    value = value << 3 | (uint64_t)(block[i] - '0');
  return value;
}

// The checksum counts its own field as eight blanks.
static unsigned checksum(const unsigned char* block) {
  unsigned sum = 8 * ' ';
  for (int i = 0; i < 148; ++i) sum += block[i];
  for (int i = 156; i < kBlock; ++i) sum += block[i];
  return sum;
}

// False at the end of the archive: a block of zeros, whose sum is that of the blanks. The second one that an
// archive ends with is not looked for.
static bool checkHeader(const unsigned char* block) {
  const unsigned sum = checksum(block);
  if (sum == getOctal(block, CHECKSUM)) return true;
  if (sum != 8 * ' ') errx(1, "a damaged header");
  return false;
}

// ---- Create: a file costs open, stat, read, close; its data are read straight into the output's buffer

static struct {
  int fd;
  unsigned char* buffer;
  size_t used;
} gOut;

// Global, as all state here is: a process does one job.
static void flushOut(void) {
  writeAll(gOut.fd, gOut.buffer, gOut.used);
  gOut.used = 0;
}

// A block of zeros in the buffer, to be filled in there.
static unsigned char* nextBlock(void) {
  if (gOut.used + kBlock > kBuffer) flushOut();
  unsigned char* const block = gOut.buffer + gOut.used;
  gOut.used += kBlock;
  return memset(block, 0, kBlock);
}

// The fields that GNU tar fills in, with its magic and its form of the checksum: six digits, a NUL and a
// blank. Names of owners are not looked up, because that would measure the user database.
static void putHeader(const char* path, char type, const struct stat* info) {
  unsigned char* const block = nextBlock();
  const int length = snprintf((char*)block, 100, "%s%s", path, type == '5' ? "/" : "");
  if (length >= 100) errx(1, "%s: too long", path);
  putOctal(block, MODE, info->st_mode & 07777);
  putOctal(block, UID, info->st_uid);
  putOctal(block, GID, info->st_gid);
  putOctal(block, SIZE, type == '0' ? (uint64_t)info->st_size : 0);
  putOctal(block, MTIME, (uint64_t)info->st_mtim.tv_sec);
  block[kTypeAt] = (unsigned char)type;
  memcpy(block + kMagicAt, "ustar  ", 8);
  memcpy(block + kUserAt, "root", 5);
  memcpy(block + kGroupAt, "root", 5);
  putOctal(block, 148, 7, checksum(block));
  block[155] = ' ';
}

static void putFile(int dir, const char* name, const char* path) {
  const int fd = openIt(dir, name, O_RDONLY);
  struct stat info;
  if (fstat(fd, &info) != 0) err(1, "%s", path);
  putHeader(path, '0', &info);
  for (size_t left = (size_t)info.st_size; left > 0;) {
    // Flushed before a file that would fit an empty buffer but not what is left of it, so that each such file
    // takes one read.
    if (gOut.used == kBuffer || (left <= kBuffer && gOut.used + left > kBuffer)) flushOut();
    const size_t room = kBuffer - gOut.used;
    const ssize_t got = read(fd, gOut.buffer + gOut.used, left < room ? left : room);
    // A file that has become shorter has no place in a data set.
    if (got <= 0) err(1, "%s", path);
    gOut.used += (size_t)got;
    left -= (size_t)got;
  }
  close(fd);
  const size_t end = padded(gOut.used);  // the buffer's size is a multiple of the block's
  memset(gOut.buffer + gOut.used, 0, end - gOut.used);
  gOut.used = end;
}

// In the order in which the directory gives them, since sorting is work that not every tar does. Directories
// are read past the C library, which would examine each of them once more and allocate a buffer for it. Paths
// are relative to open directories, so that the system looks up one name for each file.
static void putDir(int parent, const char* name, const char* path) {
  const int fd = openIt(parent, name, O_RDONLY | O_DIRECTORY);
  struct stat info;
  if (fstat(fd, &info) != 0) err(1, "%s", path);
  putHeader(path, '5', &info);
  char entries[32768] __attribute__((aligned(8)));
  for (ssize_t n; (n = getdents64(fd, entries, sizeof entries)) > 0;) {
    for (ssize_t at = 0; at < n;) {
      const struct dirent64* const entry = (const struct dirent64*)(const void*)(entries + at);
      at += entry->d_reclen;
      if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
      char below[512];
      snprintf(below, sizeof below, "%s/%s", path, entry->d_name);
      // Where the file system does not tell the type, the first directory ends the program as a file that
      // cannot be read.
      if (entry->d_type == DT_DIR)
        putDir(fd, entry->d_name, below);
      else
        putFile(fd, entry->d_name, below);
    }
  }
  close(fd);
}

// The end mark is two blocks of zeros, without the filling up to a record that tapes need. Closing is left to
// the process's end, as freeing is.
void create(const char* archive, const char* parent, const char* name) {
  gOut.fd = openIt(AT_FDCWD, archive, O_WRONLY | O_CREAT | O_TRUNC);
  gOut.buffer = must(malloc(kBuffer), "memory");
  putDir(openIt(AT_FDCWD, parent, O_RDONLY | O_DIRECTORY), name, name);
  nextBlock();
  nextBlock();
  flushOut();
}

// ---- Extract: the archive's bytes come in pieces. A file costs open, write, its time, close

static struct {
  bool on, ended;
  unsigned char carry[kBlock];  // the first bytes of a header that a piece ended in
  size_t carried;
  int file;
  uint64_t dataLeft, paddingLeft;
  struct timespec times[2];
} gIn = {.file = -1};

// From here on paths of members are relative to where the process stands.
void extractInto(const char* target) {
  if (target && chdir(target) != 0) err(1, "%s", target);
  gIn.on = target != NULL;
}

// Through the open file; the time of access is left as it is.
static void finishFile(void) {
  if (futimens(gIn.file, gIn.times) != 0 || close(gIn.file) != 0) err(1, "a file");
  gIn.file = -1;
}

// The target is new and empty, so that nothing has to be looked for or removed: whatever is there already
// ends it. Directories come before what is in them.
static void takeHeader(const unsigned char* block) {
  gIn.ended = !checkHeader(block);
  if (gIn.ended) return;
  const char* const path = (const char*)block;
  if (block[kTypeAt] == '5') {
    if (mkdir(path, 0755) != 0) err(1, "%s", path);
    return;
  }
  if (block[kTypeAt] != '0') errx(1, "%s: not expected here", path);
  gIn.file = openIt(AT_FDCWD, path, O_WRONLY | O_CREAT | O_EXCL);
  gIn.dataLeft = getOctal(block, SIZE);
  gIn.paddingLeft = padded(gIn.dataLeft) - gIn.dataLeft;
  gIn.times[0].tv_nsec = UTIME_OMIT;
  gIn.times[1].tv_sec = (time_t)getOctal(block, MTIME);
  // No data will come that would finish it.
  if (gIn.dataLeft == 0) finishFile();
}

// Pieces may end anywhere, as a decompressor makes them. Data go straight from the piece to the file; only a
// header that two pieces share is copied.
void feed(const unsigned char* bytes, size_t n) {
  while (gIn.on && n > 0 && !gIn.ended) {
    size_t taken;
    if (gIn.dataLeft > 0) {
      taken = least(gIn.dataLeft, n);
      writeAll(gIn.file, bytes, taken);
      gIn.dataLeft -= taken;
      if (gIn.dataLeft == 0) finishFile();
    } else if (gIn.paddingLeft > 0) {
      taken = least(gIn.paddingLeft, n);
      gIn.paddingLeft -= taken;
    } else if (gIn.carried == 0 && n >= kBlock) {
      taken = kBlock;
      takeHeader(bytes);
    } else {
      taken = least(kBlock - gIn.carried, n);
      memcpy(gIn.carry + gIn.carried, bytes, taken);
      gIn.carried += taken;
      if (gIn.carried == kBlock) {
        gIn.carried = 0;
        takeHeader(gIn.carry);
      }
    }
    bytes += taken;
    n -= taken;
  }
}

void checkEnded(void) {
  if (gIn.on && !gIn.ended) errx(1, "the archive is cut short");
}

// Reading ends with the end mark, behind which nothing of an archive counts.
void extract(const char* archive, const char* target) {
  const int fd = openIt(AT_FDCWD, archive, O_RDONLY);
  unsigned char* const buffer = must(malloc(kBuffer), "memory");
  extractInto(target);
  for (ssize_t n; !gIn.ended && (n = read(fd, buffer, kBuffer)) > 0;) feed(buffer, (size_t)n);
  checkEnded();
}

// ---- Walks over the headers: through a window while members are small, one block after a large member

typedef struct {
  int fd;
  uint64_t dataAt, size;
} Member;
typedef bool Visit(const unsigned char* block, Member member, void* context);  // false ends the walk

// A large member is jumped over, and only the block behind it is read, since what follows it may be large as
// well; small ones lie in one window with their data, and reading those costs less than a call for each
// header.
static void walk(const char* archive, Visit* visit, void* context) {
  enum { kWindow = 1 << 16, kLarge = 1 << 14 };
  static unsigned char window[kWindow];
  uint64_t base = 0, at = 0, size = 0;
  ssize_t filled = 0;
  const int fd = openIt(AT_FDCWD, archive, O_RDONLY);
  while (true) {
    // The block is not whole in the window; the window begins with it then.
    if (at + kBlock > base + (uint64_t)filled) {
      base = at;
      filled = pread(fd, window, size > kLarge ? kBlock : kWindow, (off_t)at);
      if (filled < kBlock) errx(1, "the archive is cut short");
    }
    const unsigned char* const block = window + (at - base);
    if (!checkHeader(block)) return;
    size = getOctal(block, SIZE);
    at += kBlock;
    if (!visit(block, (Member){fd, at, size}, context)) return;
    at += padded(size);
  }
}

// Members are directories, too: what --verify counts.
static bool countIt(const unsigned char* block, Member member, void* context) {
  (void)block, (void)member;
  ++*(unsigned*)context;
  return true;
}

unsigned countMembers(const char* archive) {
  unsigned members = 0;
  walk(archive, countIt, &members);
  return members;
}

// As ListXml writes a member. Nothing is escaped, because no name of the data sets needs it.
static bool listIt(const unsigned char* block, Member member, void* context) {
  const time_t mtime = (time_t)getOctal(block, MTIME);
  struct tm t;
  gmtime_r(&mtime, &t);
  fprintf(context,
          "\t<entry type=\"%c\" kind=\"%s\" size=\"%" PRIu64
          "\" mode=\"%04o\" uid=\"%u\" gid=\"%u\" "
          "mtime=\"%ld\" modified=\"%04d-%02d-%02dT%02d:%02d:%02dZ\">\r\n\t\t<path>%.100s</path>\r\n"
          "\t\t<user>%.32s</user>\r\n\t\t<group>%.32s</group>\r\n\t</entry>\r\n",
          block[kTypeAt], block[kTypeAt] == '5' ? "directory" : "file", member.size,
          (unsigned)getOctal(block, MODE), (unsigned)getOctal(block, UID), (unsigned)getOctal(block, GID),
          (long)mtime, t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, block,
          block + kUserAt, block + kGroupAt);
  return true;
}

// A buffer of the size that the other jobs have, so that the listing takes few writes.
void list(const char* archive) {
  static char buffer[kBuffer];
  setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
  printf("<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n<tar>\r\n");
  walk(archive, listIt, stdout);
  printf("</tar>\r\n");
}

// The data are first brought into memory, as the call that this is compared with brings them. One byte more,
// because a null pointer is what malloc may give for none.
static bool firstIt(const unsigned char* block, Member member, void* context) {
  if (strncmp((const char*)block, context, 100) != 0) return true;
  void* const copy = must(malloc(member.size + 1), "memory");
  if (pread(member.fd, copy, member.size, (off_t)member.dataAt) != (ssize_t)member.size) err(1, "read");
  writeAll(STDOUT_FILENO, copy, member.size);
  return false;
}

void first(const char* archive, const char* name) { walk(archive, firstIt, (void*)name); }
