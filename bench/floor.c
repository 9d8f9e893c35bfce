// The floor under bench/compare: each job with the fewest system calls and no tar program around it. Each
// makes the result that the programs it is compared with make, for archives as simple as those of the data
// sets: ordinary files and directories, paths under 100 bytes. Anything else, and any failure, ends it.
#define _GNU_SOURCE
#include <err.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "floor_codec.h"
#include "floor_tar.h"

// ---- Measuring: runs a command from a process so small that the command's peak memory is its own, and
// writes "seconds peakKiB" to a file

// The time is the wall's, from before the start until the end is known, for all programs alike. The status is
// the command's own, and 128 for one that a signal ended.
static int measure(const char* report, char** command) {
  struct timespec begin, end;
  struct rusage usage;
  int status;
  pid_t child;
  clock_gettime(CLOCK_MONOTONIC, &begin);
  if (posix_spawnp(&child, command[0], NULL, NULL, command, environ) != 0)
    errx(127, "%s: not found", command[0]);
  // ru_maxrss is in KiB on Linux, and begins with what this process had when it started the command.
  if (wait4(child, &status, 0, &usage) < 0) err(1, "wait");
  clock_gettime(CLOCK_MONOTONIC, &end);
  const double seconds = (double)(end.tv_sec - begin.tv_sec) + (double)(end.tv_nsec - begin.tv_nsec) * 1e-9;
  dprintf(openIt(AT_FDCWD, report, O_WRONLY | O_CREAT | O_TRUNC), "%.6f %ld\n", seconds, usage.ru_maxrss);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

// Every job but `measure` takes its archive first. 64 is wrong usage, as in sysexits.h.
int main(int argc, char** argv) {
  const char* const job = argc > 2 ? argv[1] : "";
  if (strcmp(job, "measure") == 0 && argc > 3) return measure(argv[2], argv + 3);
  if (strcmp(job, "create") == 0 && argc == 5)
    create(argv[2], argv[3], argv[4]);
  else if (strcmp(job, "extract") == 0 && argc == 4)
    extract(argv[2], argv[3]);
  else if (strcmp(job, "verify") == 0)
    printf("%u\n", countMembers(argv[2]));
  else if (strcmp(job, "list") == 0)
    list(argv[2]);
  else if (strcmp(job, "first") == 0 && argc == 4)
    first(argv[2], argv[3]);
  else if (argc < 3 || argc > 4 || !runCodec(job, argv[2], argv[3]))
    errx(64,
         "create ARCHIVE PARENT NAME | extract ARCHIVE DIR | verify|list ARCHIVE | first ARCHIVE NAME |\n"
         "deflate|bzip2 FROM TO | inflate|bunzip2|lzw FROM [DIR] | measure REPORT COMMAND...");
  return 0;
}
