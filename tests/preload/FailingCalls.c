// Loaded in front of a program (LD_PRELOAD), lets single system calls fail, as the environment says:
//   FAIL_TIMES=1      setting the times of an open file: EPERM
//   FAIL_PREAD=N      the N-th read at a position, and all behind it: EIO
//   END_PREAD=N       the same: nothing more is there
//   BROKEN_FROM=B     reads at a position from byte B of any file on: EIO
//   FAIL_USERS=1      reading the user database: EIO
//   FULL_OPENAT2=N    the N-th openat2, and all behind it: ENOSPC
//   FULL_WRITE=N      the N-th call that changes a file's bytes, length or place on the disk, and all behind it: ENOSPC
//   FULL_ONCE=N       the same, but for those behind it
//   KILL_WRITE=N      at the N-th such call the process is killed
//   INTERRUPT=1       the first openat2, the first read of each kind, and the first write to standard output and
//                     to anything else: EINTR
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <pwd.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

static int failsWith(int error) {
  errno = error;
  return -1;
}

static int isFrom(const char* name, int count) {
  const char* const from = getenv(name);
  return from && count >= atoi(from);
}

// Whether a call that writes a file is to fail. Standard streams do not count.
static int isFull(int fd) {
  static int count = 0;
  if (fd <= 2 || !(getenv("FULL_WRITE") || getenv("FULL_ONCE") || getenv("KILL_WRITE"))) return 0;
  ++count;
  if (isFrom("KILL_WRITE", count)) raise(SIGKILL);
  return isFrom("FULL_WRITE", count) || (isFrom("FULL_ONCE", count) && !isFrom("FULL_ONCE", count - 1));
}

ssize_t pwrite(int fd, const void* bytes, size_t n, off_t at) {
  if (isFull(fd)) return failsWith(ENOSPC);
  return ((ssize_t(*)(int, const void*, size_t, off_t))dlsym(RTLD_NEXT, "pwrite"))(fd, bytes, n, at);
}

int ftruncate(int fd, off_t length) {
  isFull(fd);  // a full disk is no reason for this one to fail
  return ((int (*)(int, off_t))dlsym(RTLD_NEXT, "ftruncate"))(fd, length);
}

int fdatasync(int fd) {
  if (isFull(fd)) return failsWith(ENOSPC);
  return ((int (*)(int))dlsym(RTLD_NEXT, "fdatasync"))(fd);
}

int futimens(int fd, const struct timespec times[2]) {
  if (getenv("FAIL_TIMES")) return failsWith(EPERM);
  return ((int (*)(int, const struct timespec*))dlsym(RTLD_NEXT, "futimens"))(fd, times);
}

ssize_t pread(int fd, void* buffer, size_t n, off_t at) {
  static int count = 0;
  if (isFrom("FAIL_PREAD", ++count)) return failsWith(EIO);
  if (count == 1 && getenv("INTERRUPT")) return failsWith(EINTR);
  if (isFrom("END_PREAD", count)) return 0;
  const char* const broken = getenv("BROKEN_FROM");
  if (broken && at >= atol(broken)) return failsWith(EIO);
  // As a disk gives what lies in front of the damage.
  if (broken && n > (size_t)(atol(broken) - at)) n = (size_t)(atol(broken) - at);
  return ((ssize_t(*)(int, void*, size_t, off_t))dlsym(RTLD_NEXT, "pread"))(fd, buffer, n, at);
}

ssize_t read(int fd, void* buffer, size_t n) {
  static int count = 0;
  if (++count == 1 && getenv("INTERRUPT")) return failsWith(EINTR);
  return ((ssize_t(*)(int, void*, size_t))dlsym(RTLD_NEXT, "read"))(fd, buffer, n);
}

ssize_t write(int fd, const void* bytes, size_t n) {
  static int counts[2] = {0, 0};  // of other outputs, and of standard output
  if (isFull(fd)) return failsWith(ENOSPC);
  if (++counts[fd == 1] == 1 && getenv("INTERRUPT")) return failsWith(EINTR);
  return ((ssize_t(*)(int, const void*, size_t))dlsym(RTLD_NEXT, "write"))(fd, bytes, n);
}

int fgetpwent_r(FILE* file, struct passwd* entry, char* buffer, size_t n, struct passwd** found) {
  if (getenv("FAIL_USERS")) return EIO;
  return ((int (*)(FILE*, struct passwd*, char*, size_t, struct passwd**))dlsym(RTLD_NEXT, "fgetpwent_r"))(
      file, entry, buffer, n, found);
}

long syscall(long number, ...) {
  static int count = 0;
  if (number == SYS_openat2) {
    ++count;
    if (isFrom("FULL_OPENAT2", count)) return failsWith(ENOSPC);
    if (count == 1 && getenv("INTERRUPT")) return failsWith(EINTR);
  }
  va_list list;
  va_start(list, number);
  long a[6];
  for (int i = 0; i < 6; ++i) a[i] = va_arg(list, long);
  va_end(list);
  return ((long (*)(long, ...))dlsym(RTLD_NEXT, "syscall"))(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
