#include "FailingSystemCalls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>

namespace morvane::testing {
namespace {

thread_local const char* g_name = nullptr;
thread_local std::string g_wanted;
thread_local int g_count = 0, g_at = 0, g_error = 0;

// Whether this is the call that is to fail. Asked before g_wanted is touched, because calls come before the
// program has begun.
bool failsNow(const char* name) {
  if (!g_name || g_wanted != name || ++g_count != g_at) return false;
  errno = g_error;
  return true;
}

std::vector<std::string>& names() {
  static std::vector<std::string> all;
  return all;
}
struct Named {
  explicit Named(const char* name) { names().emplace_back(name); }
};

}  // namespace

std::vector<std::string> failingCalls() { return names(); }

FailingCall::FailingCall(const std::string& name, int at, int error) {
  g_wanted = name;
  g_count = 0;
  g_at = at;
  g_error = error;
  g_name = g_wanted.c_str();
}
FailingCall::~FailingCall() { g_name = nullptr; }
int FailingCall::count() { return g_count; }

}  // namespace morvane::testing

// The exception specification is the C library's own.
#define MORVANE_MAY_FAIL(result, name, parameters, arguments)                                 \
  static const morvane::testing::Named name##IsNamed(#name);                                  \
  extern "C" result name parameters noexcept {                                                \
    static const auto real = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name)); \
    return morvane::testing::failsNow(#name) ? -1 : real arguments;                           \
  }

MORVANE_MAY_FAIL(int, fchownat, (int dir, const char* name, uid_t uid, gid_t gid, int flags),
                 (dir, name, uid, gid, flags))
MORVANE_MAY_FAIL(int, fchmod, (int fd, mode_t mode), (fd, mode))
MORVANE_MAY_FAIL(int, chmod, (const char* path, mode_t mode), (path, mode))
MORVANE_MAY_FAIL(int, symlinkat, (const char* text, int dir, const char* name), (text, dir, name))
MORVANE_MAY_FAIL(int, linkat, (int from, const char* old, int dir, const char* name, int flags),
                 (from, old, dir, name, flags))
MORVANE_MAY_FAIL(int, mknodat, (int dir, const char* name, mode_t mode, dev_t device),
                 (dir, name, mode, device))
MORVANE_MAY_FAIL(int, mkdirat, (int dir, const char* name, mode_t mode), (dir, name, mode))
MORVANE_MAY_FAIL(int, fsetxattr, (int fd, const char* name, const void* value, size_t n, int flags),
                 (fd, name, value, n, flags))
MORVANE_MAY_FAIL(int, utimensat, (int dir, const char* name, const timespec* times, int flags),
                 (dir, name, times, flags))
MORVANE_MAY_FAIL(int, futimens, (int fd, const timespec* times), (fd, times))
MORVANE_MAY_FAIL(int, ftruncate, (int fd, off_t length), (fd, length))
MORVANE_MAY_FAIL(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence))
MORVANE_MAY_FAIL(int, fstat, (int fd, struct stat* status), (fd, status))
MORVANE_MAY_FAIL(int, fstatat, (int dir, const char* name, struct stat* status, int flags),
                 (dir, name, status, flags))
MORVANE_MAY_FAIL(int, unlinkat, (int dir, const char* name, int flags), (dir, name, flags))
MORVANE_MAY_FAIL(ssize_t, listxattr, (const char* path, char* list, size_t n), (path, list, n))
MORVANE_MAY_FAIL(ssize_t, getxattr, (const char* path, const char* name, void* value, size_t n),
                 (path, name, value, n))
MORVANE_MAY_FAIL(ssize_t, readlinkat, (int dir, const char* name, char* text, size_t n), (dir, name, text, n))
