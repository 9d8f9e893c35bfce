// Drives the built command: whole runs, runs that are stopped in their midst, and runs at a terminal.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "TestSupport.h"

namespace morvane::testing {

using Words = std::vector<std::string>;

inline Words split(const std::string& text, char at) {
  Words words;
  std::istringstream rest(text + at);
  for (std::string word; std::getline(rest, word, at);) words.push_back(word);
  return words;
}

// Runs it in the scratch directory. The words stand one blank apart; two blanks enclose an empty one.
inline CommandResult mvtar(const ScratchDir& dir, const std::string& line, const std::string& input = "") {
  return run(split("env TZ=UTC " MVTAR + (line.empty() ? "" : " " + line), ' '), input, dir.path());
}

// What mvtar says of the facts, one "PATH: reason" a line, when it ends with a status.
inline std::string said(const std::string& facts, int status) {
  std::string text;
  for (const std::string& fact : split(facts, '\n')) text += fact.empty() ? "" : "mvtar: " + fact + "\n";
  if (status == 2) text += "mvtar: not everything could be done; see the messages above\n";
  return text + (status == 64 ? "Try 'mvtar --help'.\n" : "");
}

inline void expect(const CommandResult& result, int status, const std::string& out,
                   const std::string& facts) {
  EXPECT_EQ(status, result.status);
  EXPECT_EQ(out, result.out);
  EXPECT_EQ(said(facts, status), result.err);
}

inline void expectMvtar(const ScratchDir& dir, const std::string& line, int status,
                        const std::string& out = "", const std::string& facts = "",
                        const std::string& input = "") {
  SCOPED_TRACE("mvtar " + line);
  expect(mvtar(dir, line, input), status, out, facts);
}

// The forms that an archive comes in, and what makes each of a plain one.
struct Form {
  std::string name, filter;
};
inline const Form kForms[] = {{"tar", "cat"}, {"gz", "gzip -nc"}, {"bz2", "bzip2 -c"}, {"Z", "compress -c"}};

// Makes a.gz, a.bz2 and a.Z of a.tar. (compress answers 2 when its output is no smaller.)
inline void makeForms(const ScratchDir& dir) {
  must(dir, "gzip -nc a.tar > a.gz; bzip2 -c a.tar > a.bz2; compress -c a.tar > a.Z; true");
}

// A script that goes on beside the test: it ends in "exec mvtar ...". What is not read from its output makes
// it wait. At a terminal it has that, and no pipes.
class Running {
 public:
  Running(const ScratchDir& dir, const std::string& script, bool atTerminal = false) {
    int pipes[3][2];
    for (auto& ends : pipes) EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
    int terminal = -1;
    m_pid = atTerminal ? forkpty(&terminal, nullptr, nullptr, nullptr) : fork();
    if (m_pid == 0) {
      // Whoever runs the tests in the background may have had some ignored.
      for (const int unignored : {SIGPIPE, SIGINT, SIGTERM}) signal(unignored, SIG_DFL);
      for (const int fd : {0, 1, 2}) {
        if (!atTerminal) dup2(pipes[fd][fd > 0], fd);
      }
      if (chdir(dir.path().c_str()) == 0) execlp("bash", "bash", "-c", withMvtar(script).c_str(), nullptr);
      _exit(127);
    }
    for (const int fd : {pipes[0][0], pipes[1][1], pipes[2][1]}) ::close(fd);
    m_in = pipes[0][1];
    m_out = pipes[1][0];
    m_err = pipes[2][0];
    if (atTerminal) ::close(std::exchange(m_err, terminal));
  }
  ~Running() {
    kill(SIGKILL);
    end();
    for (const int fd : {m_in, m_out, m_err}) ::close(fd);
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  // No more than a pipe holds.
  void feed(const std::string& bytes) {
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(m_in, bytes.data(), bytes.size()));
  }
  void closeInput() { ::close(std::exchange(m_in, -1)); }
  // Waits until it has taken what it was fed, and takes signals.
  bool waitsForInput() {
    return until([this] { return waiting(m_in) == 0 && (ended() || catchesSignals()); });
  }
  // Waits until it can go on only when its standard output is read.
  bool waitsForReader() {
    return until([this] { return waiting(m_out) > 0 && has(proc("stat"), ") S "); });
  }
  bool says(const std::string& text) {
    return until([&] { return (take(m_err, err), has(err, text)); });
  }
  void kill(int signal) {
    if (!m_ended) ::kill(m_pid, signal);
  }
  // Its status when it ends, with all that its streams give; -1 when it does not end, or not by itself.
  int end() {
    until([this] {
      const bool last = ended();
      take(m_out, out);
      take(m_err, err);
      return last;
    });
    return m_ended && WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1;
  }

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
  bool ended() { return m_ended = m_ended || waitpid(m_pid, &m_status, WNOHANG) == m_pid; }
  static int waiting(int pipe) {
    int n = -1;
    return ioctl(pipe, FIONREAD, &n) == 0 ? n : -1;
  }
  std::string proc(const char* what) const { return readFile("/proc/" + std::to_string(m_pid) + "/" + what); }
  bool catchesSignals() const {
    const std::string status = proc("status");
    const size_t mask = status.find("SigCgt:");
    return mask != std::string::npos &&
           std::stoull(status.substr(mask + 7), nullptr, 16) >> (SIGTERM - 1) & 1;
  }
  // What can be read without waiting.
  static void take(int fd, std::string& text) {
    char buffer[65536];
    ssize_t n = 1;
    for (pollfd ready{fd, POLLIN, 0};
         n > 0 && poll(&ready, 1, 0) > 0 && (n = read(fd, buffer, sizeof buffer)) > 0;) {
      text.append(buffer, static_cast<size_t>(n));
    }
  }

  pid_t m_pid = -1;
  int m_in = -1, m_out = -1, m_err = -1, m_status = 0;
  bool m_ended = false;
};

}  // namespace morvane::testing
