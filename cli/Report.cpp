#include "cli/Report.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli/Names.h"
#include "tar/ClsTar.h"

namespace mvtar {

void Report::notice(std::string_view path, std::string_view text) {
  constexpr size_t kInOnePiece = 4096;  // lines of several processes do not mix then
  m_bar.clear();
  const std::string behind = ": " + std::string(text) + "\n";
  if (path.size() <= kInOnePiece) {
    std::fputs(("mvtar: " + shown(path) + behind).c_str(), stderr);
    return;
  }
  std::fputs("mvtar: ", stderr);
  printShown(path, stderr);
  std::fputs(behind.c_str(), stderr);
}

void Report::problem(std::string_view path, std::string_view reason) {
  notice(path, reason);
  m_status = kNotAllDone;
}

void Report::failure(morvane::ClsTar& tar, const std::string& archive) {
  morvane::XString path, reason;
  tar.get_FailureCause(path, reason);
  if (reason.isEmpty() && m_status != kDone) return;  // only what was named already is missing
  problem(path.isEmpty() ? archive : path.str(), reason.isEmpty() ? "it failed" : reason.str());
}

void Report::name(std::string_view name, const std::string& before, const std::string& behind) {
  m_bar.clear();
  std::FILE* const stream = m_outputCarriesData ? stderr : stdout;
  std::fputs(before.c_str(), stream);
  printShown(name, stream);
  std::fprintf(stream, "%s\n", behind.c_str());
}

void Report::line(const std::string& text) { name("", text); }

void Report::text(std::string_view text) {
  m_bar.clear();
  std::fwrite(text.data(), 1, text.size(), stdout);
}

void Report::totals(long long members, long long bytes) {
  m_bar.clear();
  std::fprintf(stderr, "mvtar: %lld members, %lld bytes\n", members, bytes);
}

void Report::log(morvane::ClsTar& tar) {
  morvane::XString text;
  tar.get_LogText(text);
  m_bar.clear();
  std::fputs(text.getUtf8(), stderr);
}

int Report::finish() {
  m_bar.clear();
  errno = 0;
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    problem("standard output", errno != 0 ? std::strerror(errno) : "it could not be written");
  }
  if (m_status != kDone) std::fputs("mvtar: not everything could be done; see the messages above\n", stderr);
  return m_status;
}

}  // namespace mvtar
