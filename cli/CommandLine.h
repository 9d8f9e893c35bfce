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

// What is to be done; None until the words have said it, and never behind parseCommandLine. Help and Version
// are modes, too, before which all others give way.
enum class Mode { None, Create, Extract, List, Verify, Compare, Append, Update, Deb, Help, Version };

// A PATH or MEMBER of the command line. Where it is a MEMBER, only `path` counts.
struct Operand {
  std::string dir;   // from -C; empty: where the command was started
  std::string path;  // as given

  // The path as the system is asked for it: joined to the directory.
  std::string localPath() const;
};

// A -T: names that stand in its place among the operands. Its own place, and what held there, are kept,
// because it is read only when the whole line is known to make sense.
struct NameFile {
  std::string file, dir;
  // --null stood in front of it: its names end at a NUL and may hold line ends.
  bool endsAtNul = false;
  size_t before = 0;  // how many operands came before it
};

// What of a member's nature is kept, as far as options say so. Writing and reading commands use the same
// structure; an option that means nothing in one direction is passed over there.
struct Keeping {
  // -p: all twelve bits as stored, of directories that are there already as well; --no-same-permissions: less
  // the umask. And --[no-]same-owner. Whether the user is the superuser is asked when the words for the
  // component are made.
  std::optional<bool> exactModes, owners;  // not said: for the superuser
  // -o: what is extracted is the user's own, whatever --same-owner says, as other tars have it.
  bool usersOwn = false;
  bool numericOwners = false;
  // -h: a symbolic link is archived as what it points at.
  bool followsLinks = false;
  // --[no-]xattrs and --[no-]acls. Both kinds are kept or neither is; only pax has room for them.
  std::optional<bool> xattrs, acls;
  bool attributes() const { return xattrs.value_or(false) || acls.value_or(false); }
  bool times = true;
  // Unix seconds, 0 or more.
  std::optional<long long> reproducible;  // no time is later than this
};

// What extraction does where something is already. Skip and Newer are silent; Keep names what it keeps, and
// the status is 2. The values stand in the order of a table in ComponentWords.cpp.
enum class Existing { Replace, Keep, Skip, Newer };

// What the words say, checked as far as words alone can be. Filled by parseCommandLine and then by
// readNameFiles; behind these the commands read it, and change nothing but what `changes` remembers. Texts
// are bytes as the shell gave them; nothing is decoded. It lives as long as the command.
struct CommandLine {
  Mode mode = Mode::None;
  // A path from where the command was started, whatever -C says; "-" is a standard stream.
  std::string archive = "-";
  bool archiveIsGiven = false;
  // Empty: where the command was started. Each -C counts from the one before, so that the last one is the
  // target of reading commands.
  std::string targetDir;  // the last -C
  // In the order of the line, with the names of the -T lists once those are read.
  std::vector<Operand> operands;
  std::vector<NameFile> nameFiles;
  // The last of the options that ask for one; several different ones were refused.
  std::optional<morvane::Compression> compression;  // asked for; reading goes by the content
  std::string filterProgram;                        // -I
  std::string format;                               // empty: not given
  // Which members
  // Patterns of the shell (Selection.h), and the files of -X, whose lines are put behind `excludes`.
  std::vector<std::string> matches, excludes, excludeFiles;
  bool excludesCaches = false;
  bool staysOnFileSystem = false;
  bool recurses = true;
  // What is as new as that, or newer, is taken.
  std::optional<timespec> newerThan;
  bool newerByData = false;  // --newer-mtime: a change of the inode alone does not count
  // Ends the command behind so many members that were taken.
  int maxCount = 0;  // 0: no limit
  // What they are called, and become
  // Of --prefix, as it was typed; Sources makes a name of it.
  std::string prefix;
  MemberChanges changes;
  Keeping keeping;
  bool keepNames = false;  // -P
  // Every file straight into the target, under the last part of its name.
  bool stripPaths = false;
  // By its iconv name, which was looked up; for reading commands.
  std::string charset = "utf-8";
  Existing existing = Existing::Replace;
  // --remove-files: sources that are archived whole are removed at the end.
  bool removesFiles = false;
  // What is shown
  // Names as members are done; with -t more of each.
  bool verbose = false;
  bool toStdout = false;  // -O
  bool xml = false, json = false;
  bool totals = false;
  bool printLog = false;
  ProgressBar::When progress = ProgressBar::When::Never;
  // "", "all" or "options".
  std::string helpTopic;  // of --help
  // The component
  // For archives of strangers: the component's own profile, without special files.
  bool untrusted = false;
  // All --options, --level and --threads as words of the component, each with a comma in front. Empty, or to
  // be put behind other words as it is.
  std::string options;

  // Whether it is about some members only: by options, or by their names too.
  bool filters() const {
    return !nameFiles.empty() || !matches.empty() || !excludes.empty() || !excludeFiles.empty() ||
           newerThan || maxCount > 0;
  }
  bool selects() const { return !operands.empty() || filters(); }
  // Whether sources go into an archive.
  bool writes() const { return mode == Mode::Create || mode == Mode::Append || mode == Mode::Update; }
  // The words of the component (docs/options.md) that the options stand for. Those of `options` are the last
  // of the words for reading, because the last of a word wins; to the words for writing the caller adds them
  // itself, behind NoTotal.
  std::string readingWords() const;
  std::string writingWords() const;
  // "gnu", unless another one was asked for or is needed, or is that of the archive that is appended to.
  std::string formatToWrite() const;
  // What a new archive is compressed with: by an option, else by what its name promises. Of no meaning where
  // a program compresses.
  morvane::Compression compressionToWrite() const;
  // Output when writing, input when reading.
  bool usesStandardStream() const { return archive == "-"; }
};

// False for wrong usage; `error` then says what is wrong, and the line is of no use. The message goes behind
// "mvtar: "; it may hold what was typed, and so is to be shown escaped. getopt_long keeps its state in
// globals: one call at a time. For Help and Version nothing else of the line is checked.
bool parseCommandLine(int argc, char** argv, CommandLine& line, std::string& error);

}  // namespace mvtar
