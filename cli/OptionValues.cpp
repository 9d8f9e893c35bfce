// Checks of values, and of options that contradict each other. Whatever is wrong is found before an archive
// is touched, and told in one line.
#include "cli/OptionValues.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>

#include "cli/Dates.h"
#include "cli/Help.h"
#include "runtime/text/XString.h"
#include "tar/settings/TarOptions.h"

namespace mvtar {

namespace {

constexpr char kModes[] = "-c, -x, -t, -d, -r, -u, --verify, --deb";

// All of the text must be digits, with a "-" in front for types that have a sign. Unlike strtol, from_chars
// takes no blanks and no "+", and goes by no locale.
template <class Number>
bool parseNumber(const std::string& text, Number& value) {
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  return result.ec == std::errc() && result.ptr == end;
}

// The bar goes to standard error, whatever standard output is.
ProgressBar::When onTerminal() {
  return isatty(STDERR_FILENO) ? ProgressBar::When::AfterOneSecond : ProgressBar::When::Never;
}

// A level that nothing would come of is refused.
// A program of -I has levels of its own, which stand among its words.
bool hasLevels(const CommandLine& line) {
  const morvane::Compression compression = line.compressionToWrite();
  return line.filterProgram.empty() &&
         (compression == morvane::Compression::Zstd || compression == morvane::Compression::Xz);
}

// "NAME", "NAME:ID", "ID", "+ID" or ":ID". A header has both, so what is not given is looked up: by `idOf`,
// and by `nameOf`, which may find none. A name goes before a number, because a user may be called "100";
// "+100" is the number in any case, as chown has it. The last colon counts.
template <class IdOf, class NameOf>
bool parseOwner(const std::string& text, IdOf idOf, NameOf nameOf, GivenOwner& owner) {
  const size_t colon = text.rfind(':');
  owner.name = text.substr(0, colon);
  if (colon == std::string::npos && !text.empty() && idOf(text.c_str(), owner.id)) return true;
  const bool isNumberAlone = colon == std::string::npos || colon == 0;
  const size_t number = colon != std::string::npos ? colon + 1 : text[0] == '+' ? 1 : 0;
  if (!parseNumber(text.substr(number), owner.id)) return false;
  if (isNumberAlone) owner.name = nameOf(owner.id);
  return true;
}

}  // namespace

// The bar is the one value whose default has to be looked up; --progress replaces it.
OptionValues::OptionValues(CommandLine& line, std::string& error) : m_line(line), m_error(error) {
  m_line.progress = onTerminal();
}

bool OptionValues::wrong(const std::string& what) {
  m_error = what;
  return false;
}

// --version comes here as well, and like --help it goes before every mode, wherever it stands.
bool OptionValues::setMode(Mode mode) {
  if (m_line.mode == Mode::Help || m_line.mode == Mode::Version) return true;
  if (m_line.mode != Mode::None && m_line.mode != mode && mode != Mode::Version)
    return wrong(std::string("only one of ") + kModes);
  m_line.mode = mode;
  return true;
}

// Whatever mode was set before gives way.
bool OptionValues::setHelp(const char* topic) {
  m_line.helpTopic = topic ? topic : "";
  if (!helpText(m_line.helpTopic)) return wrong("unknown value '" + m_line.helpTopic + "' for --help");
  m_line.mode = Mode::Help;
  return true;
}

bool OptionValues::setArchive(const std::string& path) {
  if (path.empty()) return wrong("option '-f' needs the name of an archive");
  // A second one is a file's name behind a letter too many more often than it is meant.
  if (m_line.archiveIsGiven) return wrong("only one option '-f'");
  m_line.archive = path;
  return m_line.archiveIsGiven = true;
}

// Each -C counts from the one before.
bool OptionValues::enterDirectory(const std::string& dir) {
  if (dir.empty()) return wrong("option '-C' needs a directory");
  const bool absolute = dir[0] == '/' || m_line.targetDir.empty();
  // The directory is not looked at: the system finds it when a path below it is used.
  m_line.targetDir = absolute ? dir : m_line.targetDir + "/" + dir;
  return true;
}

// With what holds at this place of the line: the directory, how names end, and how many operands came before.
void OptionValues::addNameFile(const std::string& file) {
  m_line.nameFiles.push_back({file, m_line.targetDir, m_endsAtNul, m_line.operands.size()});
}

bool OptionValues::setNulNames(bool nul) {
  m_endsAtNul = nul;
  return true;
}

// "posix" is what GNU tar calls pax. Case counts here, unlike in the component: a typo should not become
// gnu.
bool OptionValues::setFormat(const std::string& format) {
  const bool isPosix = format == "posix";
  if (format != "gnu" && format != "ustar" && format != "pax" && !isPosix)
    return wrong("unknown format '" + format + "'");
  m_line.format = isPosix ? "pax" : format;
  return true;
}

// Noted only, because which of several is meant cannot be said, and `check` tells it once for all of them.
// The same one twice is no contradiction.
bool OptionValues::setCompression(morvane::Compression compression) {
  m_twoCompressions |= !m_line.filterProgram.empty();
  m_twoCompressions |= m_line.compression && *m_line.compression != compression;
  m_line.compression = compression;
  return true;
}

bool OptionValues::setFilter(const std::string& program) {
  if (program.find_first_not_of(" \t") == std::string::npos) return wrong("option '-I' needs a program");
  m_twoCompressions |= m_line.compression.has_value();
  m_twoCompressions |= !m_line.filterProgram.empty() && m_line.filterProgram != program;
  m_line.filterProgram = program;
  return true;
}

// Handed to the component as one of its words. That the compression has levels, and so many, `check` asks:
// the compression may stand behind the level, or in the archive's name.
bool OptionValues::setLevel(const std::string& level) {
  constexpr int kMost = 22;  // zstd's
  if (!parseNumber(level, m_level) || m_level < 1 || m_level > kMost)
    return wrong("'" + level + "' is no level");
  m_hasLevel = true;
  return addOptions("Level=" + level);
}

// Checked here, although the component checks its words, too, because a person typed --threads and should not
// read of a word of --options.
bool OptionValues::setThreads(const std::string& count) {
  int number = 0;
  constexpr int kMost = 64;  // as the word has it
  if (!parseNumber(count, number) || number < 0 || number > kMost)
    return wrong("'" + count + "' is no number of threads; --threads takes 0 to " + std::to_string(kMost));
  return addOptions("Threads=" + count);
}

// Asked of the converter itself, with no text to convert, because iconv alone knows its names.
bool OptionValues::setCharset(const std::string& name) {
  if (name.empty() || !morvane::XString().appendFromEncoding("", name.c_str()))
    return wrong("unknown character set '" + name + "'");
  m_line.charset = name;
  return true;
}

// For counts that cannot be less than 0. A number that an int does not hold is refused by parseNumber.
bool OptionValues::number(const std::string& text, int& value, const char* ofWhat) {
  if (parseNumber(text, value) && value >= 0) return true;
  return wrong("'" + text + "' is no number of " + ofWhat);
}

// 0 is no limit.
bool OptionValues::setMaxCount(const std::string& text) { return number(text, m_line.maxCount, "members"); }

bool OptionValues::setStripComponents(const std::string& text) {
  int count = 0;
  if (!number(text, count, "components")) return false;
  m_line.changes.stripComponents = static_cast<unsigned>(count);
  return true;
}

// What is no date may be a file's name; both failed then.
bool OptionValues::setNewer(const std::string& when, bool byData) {
  m_line.newerThan = parseDateOrFile(when);
  m_line.newerByData = byData;
  return m_line.newerThan ? true : wrong("'" + when + "' is neither a date nor a file");
}

bool OptionValues::addTransform(const std::string& expressions) {
  std::string error;
  return m_line.changes.transform.add(expressions, error) || wrong("--transform: " + error);
}

// The whole user database is asked, directory services included, as by chown: it is one question for the
// whole command.
bool OptionValues::setOwner(const std::string& text) {
  const auto idOf = [](const char* name, unsigned& id) {
    const passwd* const user = getpwnam(name);
    if (user) id = user->pw_uid;
    return user != nullptr;
  };
  const auto nameOf = [](unsigned id) {
    const passwd* const user = getpwuid(id);
    return std::string(user ? user->pw_name : "");
  };
  // Filled in place; where the text makes no sense the line is of no use anyway.
  m_line.changes.owner.emplace();
  return parseOwner(text, idOf, nameOf, *m_line.changes.owner) || wrong("unknown owner '" + text + "'");
}

bool OptionValues::setGroup(const std::string& text) {
  const auto idOf = [](const char* name, unsigned& id) {
    const struct group* const found = getgrnam(name);
    if (found) id = found->gr_gid;
    return found != nullptr;
  };
  const auto nameOf = [](unsigned id) {
    const struct group* const found = getgrgid(id);
    return std::string(found ? found->gr_name : "");
  };
  m_line.changes.group.emplace();
  return parseOwner(text, idOf, nameOf, *m_line.changes.group) || wrong("unknown group '" + text + "'");
}

bool OptionValues::setModeChange(const std::string& text) {
  m_line.changes.mode = ModeChange::parse(text);
  return m_line.changes.mode ? true : wrong("'" + text + "' is no mode");
}

// Without --clamp-mtime every member gets it.
bool OptionValues::setTime(const std::string& when) {
  m_line.changes.mtime = parseDateOrFile(when);
  return m_line.changes.mtime ? true : wrong("'" + when + "' is neither a date nor a file");
}

// The component's walk is in the order of names, which is as good as any where none is asked for.
bool OptionValues::setSort(const std::string& order) {
  return order == "name" || order == "none" || wrong("unknown value '" + order + "' for --sort");
}

// SOURCE_DATE_EPOCH is what builders set for this (reproducible-builds.org); without it, or with nothing in
// it, the epoch.
bool OptionValues::setReproducible(const char* seconds) {
  const char* const environment = std::getenv("SOURCE_DATE_EPOCH");
  // The option's own value goes before the environment's.
  const std::string text = seconds ? seconds : environment && *environment ? environment : "0";
  long long value = 0;
  if (!parseNumber(text, value) || value < 0) return wrong("'" + text + "' is no number of seconds");
  m_line.keeping.reproducible = value;
  return true;
}

// "auto" waits a second, so that short runs show no bar.
bool OptionValues::setProgress(const std::string& when) {
  if (when == "always")
    m_line.progress = ProgressBar::When::Always;
  else if (when == "never")
    m_line.progress = ProgressBar::When::Never;
  else if (when == "auto")
    m_line.progress = onTerminal();
  else
    return wrong("unknown value '" + when + "' for --progress");
  return true;
}

// The names that GNU tar knows.
void OptionValues::addVersionControl() {
  for (const char* const name :
       {"CVS",        ".cvsignore",     "RCS",          "SCCS",    ".svn",       ".git",
        ".gitignore", ".gitattributes", ".gitmodules",  ".bzr",    ".bzrignore", ".bzrtags",
        ".hg",        ".hgignore",      ".hgtags",      ".hgrags", "_darcs",     ".arch-ids",
        "{arch}",     "=RELEASE-ID",    "=meta-update", "=update"}) {
    m_line.excludes.emplace_back(name);
  }
}

// They may come from --options, --level and --threads in any order; the last of a word wins.
bool OptionValues::addOptions(const std::string& words) {
  // A comma in front, so that they can be put behind the command's own words as they are.
  m_line.options += "," + words;
  return true;
}

bool OptionValues::check() {
  const Mode mode = m_line.mode;
  if (mode == Mode::None) return wrong(std::string("one of ") + kModes + " is needed");
  // --numeric-owner may stand behind --owner, and leaves off the name that was looked up for it.
  for (std::optional<GivenOwner>* const given : {&m_line.changes.owner, &m_line.changes.group}) {
    if (*given && m_line.keeping.numericOwners) (*given)->name.clear();
  }
  return checkArchive() && checkModes() && checkWords();
}

// Where the archive is, and what it is compressed with.
bool OptionValues::checkArchive() {
  const Mode mode = m_line.mode;
  const bool isOther = m_line.compression || !m_line.filterProgram.empty();
  if (m_compress && isOther) return wrong("only one of -z, -j, -J, -Z, --zstd, -I");
  if (m_twoCompressions) return wrong("only one of -z, -j, -J, --zstd, -I");
  // Reading goes by the content: there -Z is either right or does no harm.
  if (mode == Mode::Create && m_compress) return wrong("compress format can be read but not written");
  // The other modes compress nothing.
  if (m_hasLevel && mode == Mode::Create && !hasLevels(m_line)) return wrong("--level goes with zstd and xz");
  // By what the archive is going to be, because zstd takes more of them.
  constexpr int kMostOfXz = 9;
  if (m_level > kMostOfXz && mode == Mode::Create && m_line.compressionToWrite() == morvane::Compression::Xz)
    return wrong("levels of xz are 1 to 9");
  // A package on standard output has to be asked for by "-f -": nobody wants one on the screen by oversight.
  if (!m_line.archiveIsGiven && mode == Mode::Deb) return wrong("--deb needs option '-f'");
  // Appending puts members behind those that are there, inside the same file. Compressed data would have to
  // be written anew from the beginning, and a stream cannot be read back.
  const bool changes = mode == Mode::Append || mode == Mode::Update;
  // The end of what is there has to be found and written over, for which a stream would have to go back.
  if (changes && m_line.usesStandardStream()) return wrong("-r and -u need option '-f' and a file");
  if (changes && (m_line.compression || m_compress || !m_line.filterProgram.empty()))
    return wrong("a compressed archive cannot be appended to");
  // What an archive that is there is its content says, and not its name. A new plain archive under another's
  // name would fool its reader; in an empty file it is a new one.
  struct stat status;
  const bool isThere = changes && stat(m_line.archive.c_str(), &status) == 0 &&
                       !(S_ISREG(status.st_mode) && status.st_size == 0);
  if (m_line.writes() && !isThere && !m_line.compression && m_line.filterProgram.empty() &&
      morvane::promisesUnwritable(m_line.archive))
    return wrong("'" + m_line.archive + "' promises a compression that cannot be written");
  if (changes && !isThere && morvane::compressionBySuffix(m_line.archive))
    return wrong("'" + m_line.archive +
                 "' promises a compression; a compressed archive cannot be appended to");
  return true;
}

// Options that some modes have no use for. One that would be passed over in silence is refused.
bool OptionValues::checkModes() {
  const Mode mode = m_line.mode;
  const bool writes = m_line.writes();
  // Whether an option that was used fits; false, with its message, where it does not.
  const auto only = [&](bool used, bool fits, const char* message) {
    return !used || fits || wrong(message);
  };
  // An empty list of -T is no mistake; nothing at all is one, because it would leave an empty archive in the
  // place of a full one.
  if (writes && m_line.operands.empty() && m_line.nameFiles.empty())
    return wrong("nothing to put into the archive");
  if (mode == Mode::Deb && m_line.operands.size() != 2)
    return wrong("--deb takes a control and a data tarball");
  // Checking a part of it would pass for checking it all.
  // One row for each option, with what it goes with. The first that does not fit is told.
  return only(mode == Mode::Deb && m_line.filters(), false, "--deb takes the tarballs whole") &&
         only(mode == Mode::Verify && m_line.selects(), false, "--verify checks the whole archive") &&
         only(!m_line.prefix.empty(), writes, "--prefix goes with -c") &&
         only(m_line.stripPaths, mode == Mode::Extract, "--strip-paths goes with -x") &&
         only(m_line.toStdout, mode == Mode::Extract, "-O goes with -x") &&
         only(m_line.changes.clampsTime, m_line.changes.mtime.has_value(),
              "--clamp-mtime goes with --mtime") &&
         only(m_line.removesFiles, writes, "--remove-files goes with -c") &&
         only(m_line.keeping.usersOwn, !writes,
              "-o goes with -x; the old format that it means elsewhere with -c is not written") &&
         only(m_line.keeping.xattrs && m_line.keeping.acls, m_line.keeping.xattrs == m_line.keeping.acls,
              "attributes and access lists are kept together or not at all") &&
         only(m_line.existing != Existing::Replace, mode == Mode::Extract,
              "-k, --skip-old-files and --keep-newer-files go with -x") &&
         only(m_line.xml || m_line.json, mode == Mode::List,
              m_line.xml ? "--xml goes with -t" : "--json goes with -t") &&
         only(m_line.xml && m_line.json, false, "only one of --xml, --json");
}

// Whether words make sense may depend on those they stand beside.
bool OptionValues::checkWords() {
  // Each direction with its own words, as the command is going to set them: whether it is a word at all the
  // component's parser knows, and nobody else has to.
  std::vector<std::string> complaints;
  morvane::parseTarOptions(m_line.writes() ? m_line.writingWords() + m_line.options : m_line.readingWords(),
                           complaints);
  return complaints.empty() || wrong("unknown word '" + complaints.front() + "' in --options");
}

}  // namespace mvtar
