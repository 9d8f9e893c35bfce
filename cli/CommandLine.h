// The command line of mvtar, parsed.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/ProgressBar.h"
#include "runtime/codec/Compression.h"

namespace mvtar {

// What is to be done; None until the words have said it.
enum class Mode { None, Create, Extract, List, Verify, Deb, Help, Version };

// A PATH or MEMBER of the command line.
struct Operand {
  std::string dir;   // from -C; empty: where the command was started
  std::string path;  // as given

  // The path as the system is asked for it: joined to the directory.
  std::string localPath() const;
};

// What of a member's nature is kept, as far as options say so.
struct Keeping {
  bool exactModes = false;                // -p
  std::optional<bool> owners, fullModes;  // not said: for the superuser
  bool numericOwners = false;
  bool followsLinks = false;
  bool attributes = false;
  bool times = true;
  std::optional<long long> reproducible;  // no time is later than this
};

// What the words say, checked as far as words alone can be: the modes read it and change nothing. Texts are
// bytes as the shell gave them.
struct CommandLine {
  Mode mode = Mode::None;
  std::string archive;
  std::string targetDir;  // the last -C
  std::vector<Operand> operands;
  std::optional<morvane::Compression> compression;  // asked for; reading goes by the content
  std::string format;                               // empty: not given
  std::vector<std::string> matches, excludes;
  std::string prefix;
  bool verbose = false;
  Keeping keeping;
  bool toStdout = false;   // -O
  bool keepNames = false;  // -P
  bool stripPaths = false;
  bool xml = false;
  bool untrusted = false;
  bool totals = false;
  bool printLog = false;
  int maxCount = 0;  // 0: no limit
  std::string charset = "utf-8";
  std::string options;
  ProgressBar::When progress = ProgressBar::When::Never;

  // Whether it is about some members only.
  bool selects() const { return !operands.empty() || !matches.empty() || !excludes.empty() || maxCount > 0; }
  // The words of the component that the options stand for, --options behind all others.
  std::string readingWords() const;
  std::string writingWords() const;
  // "gnu", unless another one was asked for or is needed.
  std::string formatToWrite() const;
  // Output when creating, input when reading.
  bool usesStandardStream() const { return archive == "-"; }
};

// False for wrong usage; `error` then says what is wrong. The message goes behind "mvtar: "; it may hold what
// was typed, and so is to be shown escaped.
bool parseCommandLine(int argc, char** argv, CommandLine& line, std::string& error);

// The text of --help. A literal, lines of 80 columns.
const char* helpText();

}  // namespace mvtar
