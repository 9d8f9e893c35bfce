// Lists are read whole before the work begins, because a list that cannot be read must not leave half an
// archive behind.
#include "cli/NameFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "cli/Interrupt.h"

namespace mvtar {

namespace {

// The whole file. False when it cannot be read, which is named unless an interrupt ended the wait: the exit
// status tells that. Lists have no bound, also where they come from a pipe.
bool readWhole(const std::string& file, std::string& text, Report& report) {
  const bool isStandardInput = file == "-";
  const int fd = isStandardInput ? STDIN_FILENO : open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  ssize_t got = fd < 0 ? -1 : 1;
  while (got > 0) {
    char piece[64 * 1024];
    got = read(fd, piece, sizeof piece);
    if (got > 0) text.append(piece, static_cast<size_t>(got));
    if (got < 0 && errno == EINTR && !isInterrupted()) got = 1;
  }
  if (got < 0 && !isInterrupted())
    report.problem(isStandardInput ? "standard input" : file, std::strerror(errno));
  // Standard input is not this function's to close; -1 is nothing to close.
  if (fd > STDIN_FILENO) close(fd);
  return got == 0;
}

// Calls `take` with each name that is not empty. The last one needs no end.
template <class Take>
bool eachName(const std::string& file, char end, Report& report, Take take) {
  std::string text;
  if (!readWhole(file, text, report)) return false;
  for (size_t start = 0; start < text.size();) {
    const size_t stop = std::min(text.find(end, start), text.size());
    if (stop > start) take(text.substr(start, stop - start));
    start = stop + 1;
  }
  return true;
}

// White space at a line's end is no part of a pattern, as GNU tar has it; so a list may have been written on
// a system whose lines end in a carriage return. A NUL would end the pattern where nobody sees it.
bool readPatterns(const std::string& file, std::vector<std::string>& patterns, Report& report) {
  bool ok = true;
  const auto add = [&](std::string pattern) {
    // Looked for in all lines before it is told, once for the file.
    ok = ok && pattern.find('\0') == std::string::npos;
    pattern.erase(pattern.find_last_not_of(" \t\r\f\v") + 1);
    if (!pattern.empty()) patterns.push_back(std::move(pattern));
  };
  if (!eachName(file, '\n', report, add)) return false;
  if (!ok) report.problem(file, "a pattern with a NUL byte");
  return ok;
}

}  // namespace

bool readNameFiles(CommandLine& line, Report& report) {
  // Names take the place of their -T among the operands, each with the directory that a -C in front of that
  // -T named.
  std::vector<Operand> all;
  size_t taken = 0;
  for (const NameFile& each : line.nameFiles) {
    for (; taken < each.before; ++taken) all.push_back(line.operands[taken]);
    const auto add = [&](std::string name) { all.push_back({each.dir, std::move(name)}); };
    if (!eachName(each.file, each.endsAtNul ? '\0' : '\n', report, add)) return false;
  }
  all.insert(all.end(), line.operands.begin() + static_cast<std::ptrdiff_t>(taken), line.operands.end());
  line.operands = std::move(all);
  // Patterns have no place, since any one of them is enough.
  for (const std::string& file : line.excludeFiles) {
    if (!readPatterns(file, line.excludes, report)) return false;
  }
  return true;
}

}  // namespace mvtar
