#include "FailingSystemCalls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <iterator>
#include <utility>

namespace morvane::testing {
namespace {

thread_local bool g_meets = false;
thread_local std::string g_wanted;
thread_local std::function<void(int)> g_act;
thread_local int g_count = 0, g_at = 0, g_error = 0;
std::atomic<bool> g_hasOpenat2{true};

// Whether this is the call that is to fail. The flag is asked first, because calls come before the program
// has begun.
bool failsNow(const char* name) {
  if (!g_meets || (!g_wanted.empty() && g_wanted != name)) return false;
  const int step = ++g_count - g_at;
  if (g_at == 0 || step < 0 || step > (g_act ? 1 : 0)) return false;
  if (g_act) {
    g_meets = false;
    g_act(step);
    g_meets = true;
    return false;
  }
  errno = g_error;
  return true;
}

// Without the guard of a static variable: that would itself make calls.
template <class Call>
Call* realOne(std::atomic<Call*>& known, const char* name) {
  if (!known) known = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, name));
  return known;
}

}  // namespace

MetCall::MetCall(const std::string& name, int at) {
  g_wanted = name;
  g_act = nullptr;
  g_count = 0;
  g_at = at;
  g_meets = true;
}
MetCall::~MetCall() { g_meets = false; }
int MetCall::count() { return g_count; }

FailingCall::FailingCall(const std::string& name, int at, int error) : MetCall(name, at) { g_error = error; }
OvertakenCall::OvertakenCall(int at, std::function<void(int)> act) : MetCall("", at) {
  g_act = std::move(act);
}

WithoutOpenat2::WithoutOpenat2() { g_hasOpenat2 = false; }
WithoutOpenat2::~WithoutOpenat2() { g_hasOpenat2 = true; }

std::optional<bool> withoutThreads(const std::function<bool()>& work) {
  constexpr int kCannot = 77;
  const pid_t child = fork();
  if (child == 0) {
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone3, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{std::size(code), code};
    const bool isForbidden = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
                             prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
    _exit(!isForbidden ? kCannot : work() ? 0 : 1);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return false;
  if (WEXITSTATUS(status) == kCannot) return std::nullopt;
  return WEXITSTATUS(status) == 0;
}

}  // namespace morvane::testing

// The exception specification is the C library's own.
#define MORVANE_MEET(result, name, parameters, arguments)                                             \
  extern "C" result name parameters noexcept {                                                        \
    static std::atomic<result(*) parameters> real{nullptr};                                           \
    return morvane::testing::failsNow(#name) ? -1 : morvane::testing::realOne(real, #name) arguments; \
  }

MORVANE_MEET(int, fchownat, (int dir, const char* name, uid_t uid, gid_t gid, int flags),
             (dir, name, uid, gid, flags))
MORVANE_MEET(int, fchmod, (int fd, mode_t mode), (fd, mode))
MORVANE_MEET(int, chmod, (const char* path, mode_t mode), (path, mode))
MORVANE_MEET(int, symlinkat, (const char* text, int dir, const char* name), (text, dir, name))
MORVANE_MEET(int, linkat, (int from, const char* old, int dir, const char* name, int flags),
             (from, old, dir, name, flags))
MORVANE_MEET(int, mknodat, (int dir, const char* name, mode_t mode, dev_t device), (dir, name, mode, device))
MORVANE_MEET(int, mkdirat, (int dir, const char* name, mode_t mode), (dir, name, mode))
MORVANE_MEET(int, fsetxattr, (int fd, const char* name, const void* value, size_t n, int flags),
             (fd, name, value, n, flags))
MORVANE_MEET(int, utimensat, (int dir, const char* name, const timespec* times, int flags),
             (dir, name, times, flags))
MORVANE_MEET(int, futimens, (int fd, const timespec* times), (fd, times))
MORVANE_MEET(int, ftruncate, (int fd, off_t length), (fd, length))
MORVANE_MEET(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence))
MORVANE_MEET(int, fstat, (int fd, struct stat* status), (fd, status))
MORVANE_MEET(int, fstatat, (int dir, const char* name, struct stat* status, int flags),
             (dir, name, status, flags))
MORVANE_MEET(int, unlinkat, (int dir, const char* name, int flags), (dir, name, flags))
MORVANE_MEET(ssize_t, listxattr, (const char* path, char* list, size_t n), (path, list, n))
MORVANE_MEET(ssize_t, getxattr, (const char* path, const char* name, void* value, size_t n),
             (path, name, value, n))
MORVANE_MEET(ssize_t, readlinkat, (int dir, const char* name, char* text, size_t n), (dir, name, text, n))

// These two take what their callers give, so that every argument that there may be is handed on.
extern "C" int openat(int dir, const char* name, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const mode_t mode = va_arg(list, mode_t);
  va_end(list);
  static std::atomic<int (*)(int, const char*, int, ...)> real{nullptr};
  return morvane::testing::failsNow("openat")
             ? -1
             : morvane::testing::realOne(real, "openat")(dir, name, flags, mode);
}

// What was not given lies on the stack of the caller, which the address sanitizer would not have read.
extern "C" __attribute__((no_sanitize_address)) long syscall(long number, ...) noexcept {
  va_list list;
  va_start(list, number);
  long a[6];
  for (long& each : a) each = va_arg(list, long);
  va_end(list);
  if (number == SYS_openat2) {
    if (morvane::testing::failsNow("openat2")) return -1;
    if (!morvane::testing::g_hasOpenat2) {
      errno = ENOSYS;
      return -1;
    }
  }
  static std::atomic<long (*)(long, ...)> real{nullptr};
  return morvane::testing::realOne(real, "syscall")(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
