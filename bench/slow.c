// Loaded in front of a program (LD_PRELOAD), makes the file system a slow one: each open and each close takes
// a millisecond longer, as over a network. Waiting, not working: other threads go on meanwhile. RTLD_NEXT and
// openat2's number are GNU's.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdarg.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

// An interrupted sleep is a shorter one, and does no harm to a measurement of thousands.
static void answerSlowly(void) {
  const struct timespec answer = {0, 1000 * 1000};
  nanosleep(&answer, NULL);
}

// In C the mode stands behind the flags only where it is wanted; it does no harm where it is not. The C
// library's own function of that name is looked up each time, which costs nothing beside a millisecond.
static int openPathSlowly(const char* name, const char* path, int flags, mode_t mode) {
  answerSlowly();
  return ((int (*)(const char*, int, ...))dlsym(RTLD_NEXT, name))(path, flags, mode);
}

static int openSlowly(const char* name, int directory, const char* path, int flags, mode_t mode) {
  answerSlowly();
  return ((int (*)(int, const char*, int, ...))dlsym(RTLD_NEXT, name))(directory, path, flags, mode);
}

// Each under both names, since a program that is built for large files calls the second.
int open(const char* path, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const mode_t mode = va_arg(list, mode_t);
  va_end(list);
  return openPathSlowly("open", path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const mode_t mode = va_arg(list, mode_t);
  va_end(list);
  return openPathSlowly("open64", path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const mode_t mode = va_arg(list, mode_t);
  va_end(list);
  return openSlowly("openat", directory, path, flags, mode);
}

int openat64(int directory, const char* path, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const mode_t mode = va_arg(list, mode_t);
  va_end(list);
  return openSlowly("openat64", directory, path, flags, mode);
}

// Network file systems send what was written when a file is closed, and wait for the answer.
int close(int fd) {
  answerSlowly();
  return ((int (*)(int))dlsym(RTLD_NEXT, "close"))(fd);
}

// The C library has no openat2 of its own, so that programs call it by its number. Any other call goes
// through as it came: six words are what a call of the system has at most.
long syscall(long number, ...) {
  va_list list;
  va_start(list, number);
  long a[6];
  for (int i = 0; i < 6; ++i) a[i] = va_arg(list, long);
  va_end(list);
  if (number == SYS_openat2) answerSlowly();
  return ((long (*)(long, ...))dlsym(RTLD_NEXT, "syscall"))(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
