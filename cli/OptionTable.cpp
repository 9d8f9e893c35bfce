// The options of mvtar. A new one is a row here and, where it needs more than setting a value, a method of
// OptionValues. Rows without a sentence are other names of the row before; the manual page describes all.
#include "cli/OptionTable.h"

#include "cli/OptionValues.h"

namespace mvtar {

namespace {

using Values = OptionValues;
using Group = OptionGroup;
using morvane::Compression;

constexpr auto kNothing = Option::Takes::Nothing;
constexpr auto kValue = Option::Takes::Value;
constexpr auto kMayTakeValue = Option::Takes::MayTakeValue;
// So that a row shows at a glance that its option has only a long name.
constexpr char kNoLetter = '\0';

// A row's action for each kind of plain option: its member is a template argument, so that a row needs no
// function of its own, and the table stays a constant without objects to be made at start.
template <bool CommandLine::*kSwitch, bool kOn = true>
bool set(Values& values, const char*) {
  values.line().*kSwitch = kOn;
  return true;
}

// The same for what is kept of members.
template <bool Keeping::*kSwitch, bool kOn = true>
bool keep(Values& values, const char*) {
  values.line().keeping.*kSwitch = kOn;
  return true;
}

// For pairs of "--x" and "--no-x", of which the last one counts; without either the user decides (root or
// not).
template <std::optional<bool> Keeping::*kSwitch, bool kOn>
bool decide(Values& values, const char*) {
  values.line().keeping.*kSwitch = kOn;
  return true;
}

// One row for each mode; two different ones are refused.
template <Mode kMode>
bool enter(Values& values, const char*) {
  return values.setMode(kMode);
}

// The last of an option that is repeated counts.
template <std::string CommandLine::*kText>
bool text(Values& values, const char* value) {
  values.line().*kText = value;
  return true;
}

// All of them count.
template <std::vector<std::string> CommandLine::*kList>
bool add(Values& values, const char* value) {
  (values.line().*kList).emplace_back(value);
  return true;
}

// Several of them are told by OptionValues::check, which knows of -I as well.
template <Compression kCompression>
bool compress(Values& values, const char*) {
  return values.setCompression(kCompression);
}

// Two different ones contradict each other.
template <Existing kExisting>
bool whereSomethingIs(Values& values, const char*) {
  Existing& existing = values.line().existing;
  if (existing != Existing::Replace && existing != kExisting)
    return values.wrong("only one of -k, --skip-old-files, --keep-newer-files");
  existing = kExisting;
  return true;
}

// A value that is checked or converted by a method of its own.
template <bool (Values::*kMethod)(const std::string&)>
bool with(Values& values, const char* value) {
  return (values.*kMethod)(value);
}

// For options that other tars need and this one does not.
bool nothing(Values&, const char*) { return true; }

// OptionValues' own methods return nothing where nothing can go wrong.
bool askForCompress(Values& values, const char*) { return values.askForCompress(), true; }
bool addNameFile(Values& values, const char* file) { return values.addNameFile(file), true; }
bool addVersionControl(Values& values, const char*) { return values.addVersionControl(), true; }
// The assignment is also the result, which is true.
bool clampTime(Values& values, const char*) { return values.line().changes.clampsTime = true; }

// Known, and refused by its reason, because other tars have it and "unknown option" would tell nobody why.
bool refuseOverwrite(Values& values, const char*) {
  return values.wrong(
      "--overwrite is not safe: it would write through links and into files that others have open");
}

// "--progress" alone asks for the bar, also where standard error is no terminal.
bool showProgress(Values& values, const char* when) { return values.setProgress(when ? when : "always"); }

}  // namespace

// Rows of one group stand together only for the reader. What their order means: the help lists them in it,
// and a row without a sentence belongs to the one in front of it.
const Option kOptions[] = {
    // What to do; --help and --version stand with the last group, where people look for them at the end.
    {'c', "create", kNothing, nullptr, Group::Mode, "create an archive of the PATHs", enter<Mode::Create>},
    {'x', "extract", kNothing, nullptr, Group::Mode, "extract all members, or the MEMBERs",
     enter<Mode::Extract>},
    {kNoLetter, "get", kNothing, nullptr, Group::Mode, nullptr, enter<Mode::Extract>},
    {'t', "list", kNothing, nullptr, Group::Mode, "list them", enter<Mode::List>},
    {'d', "diff", kNothing, nullptr, Group::Mode, "compare them with the file system", enter<Mode::Compare>},
    {kNoLetter, "compare", kNothing, nullptr, Group::Mode, nullptr, enter<Mode::Compare>},
    {'r', "append", kNothing, nullptr, Group::Mode, "append the PATHs to a plain archive",
     enter<Mode::Append>},
    {'u', "update", kNothing, nullptr, Group::Mode, "append what is newer than in there",
     enter<Mode::Update>},
    {kNoLetter, "verify", kNothing, nullptr, Group::Mode, "check the whole archive", enter<Mode::Verify>},
    {kNoLetter, "deb", kNothing, nullptr, Group::Mode, "assemble a Debian package", enter<Mode::Deb>},

    // Where the archive is and what form it has. -f has no other default than the standard streams: neither
    // an environment variable nor a tape is looked for.
    {'f', "file", kValue, "ARCHIVE", Group::Archive, "the archive; - or none: standard output or input",
     with<&Values::setArchive>},
    {'C', "directory", kValue, "DIR", Group::Archive, "where the PATHs behind it are; where to extract",
     with<&Values::enterDirectory>},
    {kNoLetter, "format", kValue, "gnu|ustar|pax|posix", Group::Archive, "the form of a new archive (gnu)",
     with<&Values::setFormat>},

    // --gunzip and --ungzip do not differ from --gzip, because reading goes by the content. -a is accepted,
    // since what it asks for is done without it.
    {'z', "gzip", kNothing, nullptr, Group::Compression, "write gzip", compress<Compression::Gzip>},
    {kNoLetter, "gunzip", kNothing, nullptr, Group::Compression, nullptr, compress<Compression::Gzip>},
    {kNoLetter, "ungzip", kNothing, nullptr, Group::Compression, nullptr, compress<Compression::Gzip>},
    {'j', "bzip2", kNothing, nullptr, Group::Compression, "write bzip2", compress<Compression::Bzip2>},
    {'J', "xz", kNothing, nullptr, Group::Compression, "write xz", compress<Compression::Xz>},
    {kNoLetter, "zstd", kNothing, nullptr, Group::Compression, "write zstd", compress<Compression::Zstd>},
    {'Z', "compress", kNothing, nullptr, Group::Compression, "read compress (told by the content)",
     askForCompress},
    {kNoLetter, "uncompress", kNothing, nullptr, Group::Compression, nullptr, askForCompress},
    {'a', "auto-compress", kNothing, nullptr, Group::Compression, "as the name promises (done anyway)",
     nothing},
    {'I', "use-compress-program", kValue, "PROGRAM", Group::Compression,
     "write through PROGRAM, read through PROGRAM -d", with<&Values::setFilter>},
    // Both become words of the component.
    {kNoLetter, "level", kValue, "N", Group::Compression, "more or less effort", with<&Values::setLevel>},
    {kNoLetter, "threads", kValue, "N", Group::Compression,
     "at most N threads (0: as many as there are cores)", with<&Values::setThreads>},

    // Selection. Two of these are accepted for the sake of scripts that were written for other tars.
    {kNoLetter, "match", kValue, "PATTERN", Group::Which, "only what matches (may be repeated)",
     add<&CommandLine::matches>},
    {kNoLetter, "exclude", kValue, "PATTERN", Group::Which, "not what matches (may be repeated)",
     add<&CommandLine::excludes>},
    {'X', "exclude-from", kValue, "FILE", Group::Which, "not what matches a line of FILE",
     add<&CommandLine::excludeFiles>},
    {kNoLetter, "wildcards", kNothing, nullptr, Group::Which, "MEMBERs are patterns (they are anyway)",
     nothing},
    {kNoLetter, "exclude-vcs", kNothing, nullptr, Group::Which, "not what version control keeps",
     addVersionControl},
    {kNoLetter, "exclude-caches", kNothing, nullptr, Group::Which,
     "of a directory with a CACHEDIR.TAG only that", set<&CommandLine::excludesCaches>},
    {'T', "files-from", kValue, "FILE", Group::Which, "take names from the lines of FILE (- standard input)",
     addNameFile},
    {kNoLetter, "null", kNothing, nullptr, Group::Which, "names of -T behind it end at a NUL",
     [](Values& values, const char*) { return values.setNulNames(true); }},
    {kNoLetter, "no-null", kNothing, nullptr, Group::Which, "names of -T behind it end at a line's end",
     [](Values& values, const char*) { return values.setNulNames(false); }},
    {kNoLetter, "verbatim-files-from", kNothing, nullptr, Group::Which,
     "lines of -T are names alone (they are anyway)", nothing},
    {'N', "newer", kValue, "DATE|FILE", Group::Which, "only what is as new as a date or file",
     [](Values& values, const char* when) { return values.setNewer(when, false); }},
    {kNoLetter, "after-date", kValue, "DATE|FILE", Group::Which, nullptr,
     [](Values& values, const char* when) { return values.setNewer(when, false); }},
    // The same method as above: the second argument tells whether a change of the inode counts.
    {kNoLetter, "newer-mtime", kValue, "DATE|FILE", Group::Which, "the same, by the time of its data alone",
     [](Values& values, const char* when) { return values.setNewer(when, true); }},
    {kNoLetter, "one-file-system", kNothing, nullptr, Group::Which, "enter no other file system",
     set<&CommandLine::staysOnFileSystem>},
    // The last of the two counts.
    {kNoLetter, "no-recursion", kNothing, nullptr, Group::Which, "directories without what is in them",
     set<&CommandLine::recurses, false>},
    {kNoLetter, "recursion", kNothing, nullptr, Group::Which, "with it (the default)",
     set<&CommandLine::recurses>},
    {kNoLetter, "max-count", kValue, "N", Group::Which, "stop after N members (0: never)",
     with<&Values::setMaxCount>},

    // Names on their way into the archive or out of it.
    {kNoLetter, "prefix", kValue, "PATH", Group::Names, "put PATH in front of every name",
     text<&CommandLine::prefix>},
    {kNoLetter, "strip-components", kValue, "N", Group::Names, "extract without the first N parts of names",
     with<&Values::setStripComponents>},
    {kNoLetter, "strip", kValue, "N", Group::Names, nullptr, with<&Values::setStripComponents>},
    // Not to be confused with --strip, which is --strip-components for short.
    {kNoLetter, "strip-paths", kNothing, nullptr, Group::Names, "extract every file straight into the target",
     set<&CommandLine::stripPaths>},
    {kNoLetter, "transform", kValue, "s/RE/TO/", Group::Names, "change names (flags g i x N R S H)",
     with<&Values::addTransform>},
    {kNoLetter, "xform", kValue, "s/RE/TO/", Group::Names, nullptr, with<&Values::addTransform>},
    {'P', "absolute-names", kNothing, nullptr, Group::Names, "keep absolute names and ..",
     set<&CommandLine::keepNames>},
    {kNoLetter, "charset", kValue, "NAME", Group::Names, "the character set of names in the archive (utf-8)",
     with<&Values::setCharset>},

    // What is kept of members' owners, modes and times, or said in place of it.
    {'p', "preserve-permissions", kNothing, nullptr, Group::Kept,
     "modes exactly, of directories that are there, too", decide<&Keeping::exactModes, true>},
    {kNoLetter, "same-permissions", kNothing, nullptr, Group::Kept, nullptr,
     decide<&Keeping::exactModes, true>},
    {kNoLetter, "no-same-permissions", kNothing, nullptr, Group::Kept,
     "modes less the umask (default but for root)", decide<&Keeping::exactModes, false>},
    {kNoLetter, "same-owner", kNothing, nullptr, Group::Kept, "owners (default for root)",
     decide<&Keeping::owners, true>},
    {kNoLetter, "no-same-owner", kNothing, nullptr, Group::Kept, "no owners (default but for root)",
     decide<&Keeping::owners, false>},
    {'o', nullptr, kNothing, nullptr, Group::Kept, "the same, whatever else is said of owners",
     keep<&Keeping::usersOwn>},
    {kNoLetter, "numeric-owner", kNothing, nullptr, Group::Kept, "owners by number alone",
     keep<&Keeping::numericOwners>},
    {'h', "dereference", kNothing, nullptr, Group::Kept, "archive what links point at",
     keep<&Keeping::followsLinks>},
    {kNoLetter, "xattrs", kNothing, nullptr, Group::Kept, "attributes and access lists (creates pax)",
     decide<&Keeping::xattrs, true>},
    {kNoLetter, "acls", kNothing, nullptr, Group::Kept, "the same", decide<&Keeping::acls, true>},
    {kNoLetter, "no-xattrs", kNothing, nullptr, Group::Kept, "without them (the default)",
     decide<&Keeping::xattrs, false>},
    {kNoLetter, "no-acls", kNothing, nullptr, Group::Kept, "the same", decide<&Keeping::acls, false>},
    // Accepted: holes are stored wherever the file system tells of them.
    {'S', "sparse", kNothing, nullptr, Group::Kept, "holes (kept anyway)", nothing},
    {'m', "touch", kNothing, nullptr, Group::Kept, "extract without times", keep<&Keeping::times, false>},
    // When creating only; reading goes by --same-owner and its like.
    {kNoLetter, "owner", kValue, "NAME[:ID]", Group::Kept, "everything is NAME's", with<&Values::setOwner>},
    {kNoLetter, "group", kValue, "NAME[:ID]", Group::Kept, "and of that group", with<&Values::setGroup>},
    {kNoLetter, "mode", kValue, "CHANGES", Group::Kept, "modes changed as chmod does",
     with<&Values::setModeChange>},
    {kNoLetter, "mtime", kValue, "DATE|FILE", Group::Kept, "everything is of that time",
     with<&Values::setTime>},
    {kNoLetter, "clamp-mtime", kNothing, nullptr, Group::Kept, "with --mtime: only what is newer", clampTime},
    {kNoLetter, "sort", kValue, "name|none", Group::Kept, "the order of directories (name, always)",
     with<&Values::setSort>},
    {kNoLetter, "reproducible", kMayTakeValue, "SECONDS", Group::Kept, "the same bytes for the same tree",
     [](Values& values, const char* seconds) { return values.setReproducible(seconds); }},

    // What is done with files that are in the way, or that are not needed any more.
    {'k', "keep-old-files", kNothing, nullptr, Group::Existing, "keep what is there, and name it",
     whereSomethingIs<Existing::Keep>},
    {kNoLetter, "skip-old-files", kNothing, nullptr, Group::Existing, "keep what is there in silence",
     whereSomethingIs<Existing::Skip>},
    {kNoLetter, "keep-newer-files", kNothing, nullptr, Group::Existing, "keep what is there and not older",
     whereSomethingIs<Existing::Newer>},
    // Accepted, because it is done anyway; the next one is refused, because it is never done.
    {'U', "unlink-first", kNothing, nullptr, Group::Existing,
     "remove a file before its new one is made (done anyway)", nothing},
    {kNoLetter, "overwrite", kNothing, nullptr, Group::Existing, "refused, as it is not safe",
     refuseOverwrite},
    {kNoLetter, "remove-files", kNothing, nullptr, Group::Existing, "remove sources once they are archived",
     set<&CommandLine::removesFiles>},

    // What the command prints.
    {'v', "verbose", kNothing, nullptr, Group::Shown, "names as they are done; with -t, more of each",
     set<&CommandLine::verbose>},
    {'O', "to-stdout", kNothing, nullptr, Group::Shown, "extract to standard output",
     set<&CommandLine::toStdout>},
    {kNoLetter, "xml", kNothing, nullptr, Group::Shown, "list as XML", set<&CommandLine::xml>},
    {kNoLetter, "json", kNothing, nullptr, Group::Shown, "list as one JSON object a line",
     set<&CommandLine::json>},
    // Without it the bar is there for those who wait at a terminal.
    {kNoLetter, "progress", kMayTakeValue, "auto|always|never", Group::Shown, "a progress bar (auto)",
     showProgress},
    {kNoLetter, "totals", kNothing, nullptr, Group::Shown, "how many members and bytes there were",
     set<&CommandLine::totals>},
    {kNoLetter, "log", kNothing, nullptr, Group::Shown, "print the log of the component",
     set<&CommandLine::printLog>},

    // What is handed to the component as it is, and what the command says of itself.
    {kNoLetter, "untrusted", kNothing, nullptr, Group::Component, "an archive of strangers, with limits",
     set<&CommandLine::untrusted>},
    {kNoLetter, "options", kValue, "WORDS", Group::Component, "more words for the component",
     with<&Values::addOptions>},
    {kNoLetter, "help", kMayTakeValue, "all|words", Group::Component,
     "this text; all: every option; words: those of --options",
     [](Values& values, const char* topic) { return values.setHelp(topic); }},
    {kNoLetter, "version", kNothing, nullptr, Group::Component, "the version", enter<Mode::Version>},
};
const size_t kOptionCount = sizeof kOptions / sizeof *kOptions;

}  // namespace mvtar
