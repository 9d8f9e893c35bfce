// Drives the built command: whole runs, runs that are stopped in their midst, and runs at a terminal.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "TestSupport.h"

namespace morvane::testing {

using Words = std::vector<std::string>;

inline const std::string kMvtar = MVTAR;
inline const std::string kClosing = "mvtar: not everything could be done; see the messages above\n";

// What mvtar says of the given facts, "PATH: reason" each, when its status is 2.
inline std::string said(const Words& facts) {
  std::string text;
  for (const std::string& fact : facts) text += "mvtar: " + fact + "\n";
  return text + kClosing;
}

// Runs it in the scratch directory.
inline CommandResult mvtar(const ScratchDir& dir, const Words& words, const std::string& input = "") {
  Words command{"env", "TZ=UTC", kMvtar};
  command.insert(command.end(), words.begin(), words.end());
  return run(command, input, dir.path());
}

// Runs a script in which mvtar is a command and a pipe fails when any part of it does.
inline CommandResult shell(const ScratchDir& dir, const std::string& script) {
  return run(
      {"env", "TZ=UTC", "bash", "-c", "set -o pipefail; mvtar() { '" + kMvtar + "' \"$@\"; }; " + script}, "",
      dir.path());
}

// A step that a test builds on.
inline void must(const ScratchDir& dir, const std::string& script) {
  const CommandResult result = shell(dir, script);
  ASSERT_EQ(0, result.status) << script << "\n" << result.err;
}

inline void expectRun(const CommandResult& result, int status, const std::string& out,
                      const std::string& err) {
  EXPECT_EQ(status, result.status);
  EXPECT_EQ(out, result.out);
  EXPECT_EQ(err, result.err);
}

inline bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

inline Words linesOf(const std::string& text) {
  Words lines;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

// The forms an archive comes in, and a filter that makes each from a plain one.
struct Form {
  const char* name;
  const char* filter;
};
constexpr Form kForms[] = {{"tar", "cat"}, {"gz", "gzip -nc"}, {"bz2", "bzip2 -c"}, {"Z", "compress -c"}};

// Makes a.tar, a.gz, a.bz2 and a.Z of the plain archive a.tar.
inline void makeForms(const ScratchDir& dir) {
  for (const Form& form : kForms) {
    // compress answers 2 when its output is no smaller.
    if (form.name != std::string("tar")) shell(dir, std::string(form.filter) + " < a.tar > a." + form.name);
  }
}

// A run that goes on beside the test. Whatever is not read from its output makes it wait.
class Running {
 public:
  enum class Streams { Pipes, Terminal, TerminalForErrors };

  Running(const ScratchDir& dir, Words words, Streams streams = Streams::Pipes, const Words& via = {}) {
    words.insert(words.begin(), kMvtar);
    words.insert(words.begin(), via.begin(), via.end());
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(&word[0]);
    arguments.push_back(nullptr);
    int inPipe[2], outPipe[2], errPipe[2];
    if (pipe2(inPipe, O_CLOEXEC) || pipe2(outPipe, O_CLOEXEC) || pipe2(errPipe, O_CLOEXEC)) return;
    const bool piped = streams == Streams::Pipes;
    m_pid = piped ? fork() : forkpty(&m_terminal, nullptr, nullptr, nullptr);
    if (m_pid == 0) {
      signal(SIGPIPE, SIG_DFL);
      if (piped) dup2(inPipe[0], 0);
      if (streams != Streams::Terminal) dup2(outPipe[1], 1);
      if (piped) dup2(errPipe[1], 2);
      if (chdir(dir.path().c_str()) == 0) execvp(arguments[0], arguments.data());
      _exit(127);
    }
    for (const int fd : {inPipe[0], outPipe[1], errPipe[1]}) ::close(fd);
    m_in = inPipe[1];
    m_out = outPipe[0];
    m_err = piped ? errPipe[0] : m_terminal;
    if (!piped) ::close(errPipe[0]);
  }
  ~Running() {
    if (!m_ended) {
      ::kill(m_pid, SIGKILL);
      waitpid(m_pid, nullptr, 0);
    }
    closeInput();
    ::close(m_out);
    ::close(m_err);
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  void feed(const std::string& bytes) {
    for (size_t at = 0; at < bytes.size();) {
      const ssize_t n = write(m_in, bytes.data() + at, bytes.size() - at);
      if (n <= 0) return;
      at += static_cast<size_t>(n);
    }
  }
  void closeInput() {
    if (m_in >= 0) ::close(std::exchange(m_in, -1));
  }
  // Waits until it takes signals and has taken all that it was fed.
  bool waitsForInput() {
    return until([this] { return catches(SIGTERM) && waiting(m_in) == 0; });
  }
  // Waits until nothing more fits into its standard output.
  bool waitsForReader() {
    return until([this] { return waiting(m_out) > 0 && isAsleep(); });
  }
  // Waits for a text on its standard error.
  bool says(const std::string& text) {
    return until([&] {
      take(m_err, err);
      return has(err, text);
    });
  }
  void kill(int signal) { ::kill(m_pid, signal); }

  // Drains its streams and gives its status: 128 + n for signal n, -1 when it does not end.
  int end() {
    bool outOpen = true, errOpen = true;
    until([&] {
      outOpen = outOpen && take(m_out, out);
      errOpen = errOpen && take(m_err, err);
      int status = 0;
      if (m_ended || waitpid(m_pid, &status, WNOHANG) != m_pid) return !outOpen && !errOpen && m_ended;
      m_ended = true;
      m_bySignal = WIFSIGNALED(status);
      m_status = m_bySignal ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
      return false;
    });
    return m_status;
  }
  bool endedBySignal() const { return m_bySignal; }

  std::string out, err;

 private:
  // Ten seconds are far more than anything here takes; who needs them hangs.
  template <class Condition>
  static bool until(Condition condition) {
    const time_t deadline = time(nullptr) + 10;
    while (!condition()) {
      if (time(nullptr) > deadline) return false;
      poll(nullptr, 0, 1);
    }
    return true;
  }
  static int waiting(int pipe) {
    int n = -1;
    return ioctl(pipe, FIONREAD, &n) == 0 ? n : -1;
  }
  bool catches(int signal) const {
    std::ifstream status("/proc/" + std::to_string(m_pid) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("SigCgt:", 0) == 0) return std::stoull(line.substr(7), nullptr, 16) >> (signal - 1) & 1;
    }
    return false;
  }
  bool isAsleep() const {
    std::string text = readFile("/proc/" + std::to_string(m_pid) + "/stat");
    return has(text, ") S ");
  }
  // What can be read without waiting; false at the end.
  static bool take(int fd, std::string& text) {
    pollfd ready{fd, POLLIN, 0};
    while (poll(&ready, 1, 0) > 0) {
      char buffer[65536];
      const ssize_t n = read(fd, buffer, sizeof buffer);
      if (n <= 0) return false;
      text.append(buffer, static_cast<size_t>(n));
    }
    return true;
  }

  pid_t m_pid = -1;
  int m_in = -1, m_out = -1, m_err = -1, m_terminal = -1;
  int m_status = -1;
  bool m_ended = false, m_bySignal = false;
};

}  // namespace morvane::testing
