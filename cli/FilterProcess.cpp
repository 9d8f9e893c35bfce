// posix_spawn, because it needs no copy of the process, and takes the descriptors and signals of the new one
// from a list.
#include "cli/FilterProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "cli/ArchiveName.h"
#include "cli/Interrupt.h"
#include "runtime/fs/OsFile.h"

namespace mvtar {

namespace {

// As a shell would cut them, without anything else that a shell does: no variables, no patterns, no further
// commands, so that a name with such characters does no harm. Inside single quotes a back slash is itself. A
// quote that is never closed goes to the end, and a back slash at the very end is itself.
std::vector<std::string> wordsOf(const std::string& text) {
  std::vector<std::string> words;
  bool inWord = false;
  char quote = '\0';
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (quote == '\0' && (c == ' ' || c == '\t')) {
      inWord = false;
      continue;
    }
    // Before the quotes are looked at, so that '' is a word, though an empty one.
    if (!inWord) words.emplace_back();
    inWord = true;
    if (c == quote) {
      quote = '\0';
    } else if (quote == '\0' && (c == '\'' || c == '"')) {
      quote = c;
    } else if (c == '\\' && quote != '\'' && i + 1 < text.size()) {
      words.back() += text[++i];
    } else {
      words.back() += c;
    }
  }
  return words;
}

// A script says in its first line what runs it, and the system starts nothing where that is missing; a text
// without such a line is for a shell alone. Anything else the system is left to judge.
int formatError(const std::string& path) {
  const morvane::OsFile file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  char bytes[256];
  const ssize_t n = file.isOpen() ? file.readSomeAt(bytes, sizeof bytes, 0) : 0;
  const std::string_view start(bytes, static_cast<size_t>(std::max<ssize_t>(n, 0)));
  if (start.substr(0, 2) != "#!") {
    const bool isText = n > 0 && std::all_of(start.begin(), start.end(), [](char c) { return c >= '\t'; });
    return isText ? ENOEXEC : 0;
  }
  const size_t from = start.find_first_not_of(" \t", 2);
  if (from == std::string_view::npos) return ENOEXEC;
  const std::string runner(start.substr(from, start.find_first_of(" \t\n", from) - from));
  return access(runner.c_str(), X_OK) == 0 ? 0 : errno;
}

// Why a program cannot be started, as errno; 0 when it can. It is looked for as posix_spawnp looks for it: a
// name with a slash is a path, any other is tried in each directory of PATH, of which an empty one is where
// the process stands. Without a PATH the system's own two count. Something that may not be executed is
// remembered and does not end the search.
int startError(const std::string& name) {
  const bool isPath = name.find('/') != std::string::npos;
  const char* const given = std::getenv("PATH");
  const std::string dirs = isPath ? "" : given ? given : "/bin:/usr/bin";
  int error = ENOENT;
  for (size_t start = 0; start <= dirs.size();) {
    const size_t end = std::min(dirs.find(':', start), dirs.size());
    const std::string path = isPath ? name : joinNames(dirs.substr(start, end - start), name);
    start = end + 1;
    struct stat status;
    if (stat(path.c_str(), &status) != 0) continue;
    if (S_ISREG(status.st_mode) && access(path.c_str(), X_OK) == 0) return formatError(path);
    error = EACCES;
  }
  return error;
}

}  // namespace

// The program may be gone by the time it is started, and `start` fails then. This question spares an archive
// from being truncated in the usual case, a misspelt name.
bool FilterProcess::canStart(const std::string& program, Report& report) {
  const std::vector<std::string> words = wordsOf(program);
  const int error = words.empty() || words[0].empty() ? ENOENT : startError(words[0]);
  if (error != 0) report.problem(program, std::strerror(error));
  return error == 0;
}

// For the ways out that do not call `finish`, such as an exception, or content that is no archive. What the
// program does is of no use any more, and so it is ended instead of being waited for. Without the wait it
// would stay a zombie as long as this process lives.
FilterProcess::~FilterProcess() {
  if (!isRunning()) return;
  kill(m_pid, SIGTERM);
  while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

// A compressor without options compresses; "-d" makes it expand, which all of them understand alike. That is
// the custom of other tars, too.
int FilterProcess::startWriting(const std::string& program, int to, Report& report) {
  m_program = program;
  return start(wordsOf(program), to, true, report);
}

int FilterProcess::startReading(const std::string& program, int from, Report& report) {
  m_program = program;
  std::vector<std::string> words = wordsOf(program);
  words.emplace_back("-d");
  return start(std::move(words), from, false, report);
}

// Both ends of the pipe close on exec, so that the program has them only where the list below puts them: if
// it kept the writing end of its own input it would never see the end of it. None of the descriptors is 0, 1
// or 2, because main has occupied those, so that the first dup2 cannot overwrite what the second is to copy.
int FilterProcess::start(std::vector<std::string> words, int other, bool writes, Report& report) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    report.problem(m_program, std::strerror(errno));
    return -1;
  }
  const int ours = ends[writes ? 1 : 0], theirs = ends[writes ? 0 : 1];
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, theirs, writes ? STDIN_FILENO : STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, other, writes ? STDOUT_FILENO : STDIN_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  // A closed pipe has to end the program, although this process ignores the signal for it: what is ignored
  // stays ignored across exec, and few programs look at the result of each write.
  sigset_t defaults;
  sigemptyset(&defaults);
  for (const int signal : {SIGPIPE, SIGXFSZ, SIGALRM}) sigaddset(&defaults, signal);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  // posix_spawnp wants pointers to char, and changes nothing behind them.
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  const int error =
      words.empty() ? ENOENT
                    : posix_spawnp(&m_pid, arguments[0], &actions, &attributes, arguments.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  // The program alone has that end now. While this process held it, too, the end of the program would not be
  // the end of the pipe.
  close(theirs);
  if (error == 0) return ours;
  m_pid = -1;
  close(ours);
  report.problem(m_program, std::strerror(error));
  return -1;
}

// A pipe does not tell when it is empty, and so it is asked. An interrupt ends the wait; what then becomes of
// the archive is said elsewhere.
bool FilterProcess::takesAll(int descriptor, Report& report) {
  constexpr int kMilliseconds = 2;
  for (int left = 0; ioctl(descriptor, FIONREAD, &left) == 0 && left > 0 && !isInterrupted();) {
    // POLLERR comes unasked, once nobody can read.
    pollfd pipe{descriptor, 0, 0};
    if (poll(&pipe, 1, kMilliseconds) > 0 && (pipe.revents & POLLERR) != 0) {
      report.problem(m_program, "it has not read all of the archive");
      return false;
    }
  }
  return true;
}

// The wait is broken by an interrupt, and then by the timer's knocks until the program has ended.
bool FilterProcess::finish(End end, Report& report) {
  if (!isRunning()) return true;
  // Given up in any case: what cannot be waited for is no child any more, and its number may be another's.
  const pid_t pid = std::exchange(m_pid, -1);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return report.problem(m_program, std::strerror(errno)), false;
    // Whoever interrupts the command wants the whole of it to end.
    if (isInterrupted()) kill(pid, SIGTERM);
  }
  // A reader that stops early closes the pipe, and SIGPIPE is how a program that still writes hears of it.
  const bool brokeOff = WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE;
  if (status == 0 || end == End::Any || (end == End::BrokenOff && brokeOff)) return true;
  report.problem(m_program, WIFSIGNALED(status) ? "ended by signal " + std::to_string(WTERMSIG(status))
                                                : "ended with status " + std::to_string(WEXITSTATUS(status)));
  return false;
}

}  // namespace mvtar
