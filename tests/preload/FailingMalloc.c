// Loaded in front of a program (LD_PRELOAD), lets one of its allocations fail: the one that FAIL_ALLOCATION counts to,
// from 1 on; with FAIL_ALL_BEHIND in the environment also all behind it. At its end the program's allocations are
// counted into the file that COUNT_ALLOCATIONS names.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

static long g_count = 0, g_failing = 0;
static int g_allBehind = 0;

__attribute__((constructor)) static void begin(void) {
  const char* const failing = getenv("FAIL_ALLOCATION");
  g_failing = failing ? atol(failing) : 0;
  g_allBehind = getenv("FAIL_ALL_BEHIND") != NULL;
  g_count = 0;
}

__attribute__((destructor)) static void end(void) {
  const char* const path = getenv("COUNT_ALLOCATIONS");
  if (!path) return;
  char text[32];
  const int n = snprintf(text, sizeof text, "%ld\n", g_count);
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
  if (fd >= 0 && write(fd, text, (size_t)n) == n) close(fd);
}

static int fails(void) {
  const long count = __atomic_add_fetch(&g_count, 1, __ATOMIC_RELAXED);
  if (g_failing == 0 || count < g_failing || (count > g_failing && !g_allBehind)) return 0;
  errno = ENOMEM;
  return 1;
}

void* malloc(size_t size) { return fails() ? NULL : __libc_malloc(size); }
void* calloc(size_t count, size_t size) { return fails() ? NULL : __libc_calloc(count, size); }
void* realloc(void* old, size_t size) { return fails() ? NULL : __libc_realloc(old, size); }
void* memalign(size_t alignment, size_t size) { return fails() ? NULL : __libc_memalign(alignment, size); }
void* aligned_alloc(size_t alignment, size_t size) { return fails() ? NULL : __libc_memalign(alignment, size); }
int posix_memalign(void** out, size_t alignment, size_t size) {
  if (fails()) return ENOMEM;
  *out = __libc_memalign(alignment, size);
  return *out ? 0 : ENOMEM;
}
