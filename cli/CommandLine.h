// The command line of mvtar, parsed.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "cli/MemberChanges.h"
#include "cli/ProgressBar.h"
#include "runtime/codec/Compression.h"

namespace mvtar {

// What is to be done; None until the words have said it.
enum class Mode { None, Create, Extract, List, Verify, Compare, Append, Update, Deb, Help, Version };

// A PATH or MEMBER of the command line.
struct Operand {
  std::string dir;   // from -C; empty: where the command was started
  std::string path;  // as given

  // The path as the system is asked for it: joined to the directory.
  std::string localPath() const;
};

// A -T: names that stand in its place among the operands.
struct NameFile {
  std::string file, dir;
  bool endsAtNul = false;
  size_t before = 0;  // how many operands came before it
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

// What extraction does where something is already. Skip and Newer are silent.
enum class Existing { Replace, Keep, Skip, Newer };

// What the words say, checked as far as words alone can be: the modes read it and change nothing. Texts are
// bytes as the shell gave them.
struct CommandLine {
  Mode mode = Mode::None;
  std::string archive = "-";
  bool archiveIsGiven = false;
  std::string targetDir;  // the last -C
  std::vector<Operand> operands;
  std::vector<NameFile> nameFiles;
  std::optional<morvane::Compression> compression;  // asked for; reading goes by the content
  std::string filterProgram;                        // -I
  std::string format;                               // empty: not given
  // Which members
  std::vector<std::string> matches, excludes, excludeFiles;
  bool excludesCaches = false;
  bool staysOnFileSystem = false;
  bool recurses = true;
  std::optional<timespec> newerThan;
  bool newerByData = false;  // --newer-mtime: a change of the inode alone does not count
  int maxCount = 0;          // 0: no limit
  // What they are called, and become
  std::string prefix;
  MemberChanges changes;
  Keeping keeping;
  bool keepNames = false;  // -P
  bool stripPaths = false;
  std::string charset = "utf-8";
  Existing existing = Existing::Replace;
  bool removesFiles = false;
  // What is shown
  bool verbose = false;
  bool toStdout = false;  // -O
  bool xml = false, json = false;
  bool totals = false;
  bool printLog = false;
  ProgressBar::When progress = ProgressBar::When::Never;
  std::string helpTopic;  // of --help
  // The component
  bool untrusted = false;
  std::string options;

  // Whether it is about some members only: by options, or by their names too.
  bool filters() const {
    return !nameFiles.empty() || !matches.empty() || !excludes.empty() || !excludeFiles.empty() ||
           newerThan || maxCount > 0;
  }
  bool selects() const { return !operands.empty() || filters(); }
  // Whether sources go into an archive.
  bool writes() const { return mode == Mode::Create || mode == Mode::Append || mode == Mode::Update; }
  // The words of the component that the options stand for, --options behind all others.
  std::string readingWords() const;
  std::string writingWords() const;
  // "gnu", unless another one was asked for or is needed.
  std::string formatToWrite() const;
  // What a new archive is compressed with: by an option, else by what its name promises. Of no meaning where
  // a program compresses.
  morvane::Compression compressionToWrite() const;
  // Output when writing, input when reading.
  bool usesStandardStream() const { return archive == "-"; }
};

// False for wrong usage; `error` then says what is wrong. The message goes behind "mvtar: "; it may hold what
// was typed, and so is to be shown escaped.
bool parseCommandLine(int argc, char** argv, CommandLine& line, std::string& error);

}  // namespace mvtar
