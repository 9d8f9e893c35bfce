// Arguments to a CommandLine, over getopt_long. A table has a row for each option, so that letters, long
// names and what they take stand in one place; what needs more than setting a value is a method of Parser.
// Whatever is wrong is found before an archive is touched, and told in one line.
#include "cli/CommandLine.h"

#include <getopt.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <cstring>

#include "cli/ArchiveName.h"
#include "runtime/text/XString.h"
#include "tar/settings/TarOptions.h"

namespace mvtar {

namespace {

class Parser;

// What an option is called, what it takes, what it does, and what --help says of it.
struct Option {
  char letter;       // '\0': none
  const char* name;  // the long one; null: none
  int argument;      // no_argument and so on
  bool (*take)(Parser& parser, const char* value);
};

// Below, behind the functions that its rows name.
extern const Option kOptions[];
extern const size_t kOptionCount;

// No letter is as large.
constexpr int kFirstLongOnly = 256;  // what getopt_long gives for a row without a letter, plus the row

// "-" in front: operands come in their place among the options. ":" tells a missing value apart. Operands
// have to come in their place because each -C holds for those behind it.
std::string letters() {
  std::string all = "-:";
  for (size_t i = 0; i < kOptionCount; ++i) {
    if (kOptions[i].letter == '\0') continue;
    all += kOptions[i].letter;
    if (kOptions[i].argument == required_argument) all += ':';
  }
  return all;
}

// The row of zeros ends the list.
std::vector<option> longOptions() {
  std::vector<option> all;
  for (size_t i = 0; i < kOptionCount; ++i) {
    const Option& row = kOptions[i];
    const int value = row.letter != '\0' ? row.letter : kFirstLongOnly + static_cast<int>(i);
    if (row.name) all.push_back({row.name, row.argument, nullptr, value});
  }
  all.push_back({nullptr, 0, nullptr, 0});
  return all;
}

// Null for what getopt_long gives for operands and errors.
const Option* rowOf(int found) {
  for (size_t i = 0; i < kOptionCount; ++i) {
    const Option& row = kOptions[i];
    if (row.letter != '\0' ? row.letter == found : kFirstLongOnly + static_cast<int>(i) == found) return &row;
  }
  return nullptr;
}

// An optional value never takes a word of its own: it has to stand behind a "=".
bool takesArgument(char letter) {
  const Option* const row = rowOf(static_cast<unsigned char>(letter));
  return row && row->argument == required_argument;
}

// "xfC a.tar dir ..." as "-x -f a.tar -C dir ...": without its dash, a first word's letters take the words
// behind it in their order. That is how people have typed tar's options since before there were dashes. A
// letter whose word is missing is left for getopt_long to complain of.
std::vector<std::string> withDashes(int argc, char** argv) {
  std::vector<std::string> words(argv, argv + argc);
  if (argc < 2 || words[1].empty() || words[1][0] == '-') return words;
  std::vector<std::string> expanded{words[0]};
  size_t next = 2;
  for (const char letter : words[1]) {
    expanded.push_back(std::string("-") + letter);
    if (takesArgument(letter) && next < words.size()) expanded.push_back(words[next++]);
  }
  expanded.insert(expanded.end(), words.begin() + static_cast<std::ptrdiff_t>(next), words.end());
  return expanded;
}

class Parser {
 public:
  Parser(CommandLine& line, std::string& error) : m_line(line), m_error(error) {}

  // getopt_long wants pointers to char and keeps its state in globals: one parse at a time, with its own
  // messages off. The words outlive it, so that they can be shown. Operands behind "--" are what is left.
  bool parse(std::vector<std::string> words) {
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(&word[0]);
    arguments.push_back(nullptr);
    const int count = static_cast<int>(words.size());
    const std::string shortOnes = letters();
    const std::vector<option> longOnes = longOptions();
    opterr = 0;
    optind = 1;
    while (true) {
      const int before = optind;
      const int found = getopt_long(count, arguments.data(), shortOnes.c_str(), longOnes.data(), nullptr);
      if (found == -1) break;
      if (!take(found, words, before)) return false;
    }
    for (int i = optind; i < count; ++i) addOperand(arguments[static_cast<size_t>(i)]);
    return m_line.mode == Mode::Help || m_line.mode == Mode::Version || check();
  }

  // ---- What options do

  CommandLine& line() { return m_line; }
  // False, for the caller to return. The first error counts.
  bool wrong(const std::string& what) {
    m_error = what;
    return false;
  }

  // What is read tells its compression itself, so that -Z is remembered only to refuse it with -c.
  void askForCompress() { m_compress = true; }
  bool setCompression(morvane::Compression compression) {
    m_twoCompressions |= m_line.compression && *m_line.compression != compression;
    m_line.compression = compression;
    return true;
  }
  bool setLevel(const std::string& level) { return addOptions("Level=" + level); }
  // The word, or the letter of a bundle, that getopt stumbled over.
  static std::string culprit(const std::vector<std::string>& words, int at) {
    // A letter; long options are given by the word that getopt_long stood at.
    if (optopt > 0 && optopt < 256) return std::string("-") + static_cast<char>(optopt);
    const size_t index = static_cast<size_t>(at);
    return index < words.size() ? words[index].substr(0, words[index].find('=')) : "";
  }

  // The same mode twice is no contradiction. Help goes before everything, so that "--help" beside half a
  // command line helps.
  bool setMode(Mode mode) {
    if (m_line.mode == Mode::Help || m_line.mode == Mode::Version) return true;
    if (m_line.mode != Mode::None && m_line.mode != mode)
      return wrong("only one of -c, -x, -t, --verify, --deb");
    m_line.mode = mode;
    return true;
  }

  // Each -C counts from the one before.
  bool enterDirectory(const std::string& dir) {
    if (dir.empty()) return wrong("option '-C' needs a directory");
    const bool absolute = dir[0] == '/' || m_line.targetDir.empty();
    m_line.targetDir = absolute ? dir : m_line.targetDir + "/" + dir;
    return true;
  }

  // "posix" is what GNU tar calls pax. Case counts here, unlike in the component: a typo should not become
  // gnu.
  bool setFormat(const std::string& format) {
    const bool isPosix = format == "posix";
    if (format != "gnu" && format != "ustar" && format != "pax" && !isPosix)
      return wrong("unknown format '" + format + "'");
    m_line.format = isPosix ? "pax" : format;
    return true;
  }

  // Asked of the converter itself, with no text to convert, because iconv alone knows its names.
  bool setCharset(const std::string& name) {
    if (name.empty() || !morvane::XString().appendFromEncoding("", name.c_str()))
      return wrong("unknown character set '" + name + "'");
    m_line.charset = name;
    return true;
  }

  // All of the text must be digits; 0 is no limit.
  bool setMaxCount(const std::string& text) {
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, m_line.maxCount);
    if (result.ec == std::errc() && result.ptr == end && m_line.maxCount >= 0) return true;
    return wrong("'" + text + "' is no number of members");
  }

  // "auto" waits a second, so that short runs show no bar.
  bool setProgress(const std::string& when) {
    if (when == "always")
      m_progress = ProgressBar::When::Always;
    else if (when == "never")
      m_progress = ProgressBar::When::Never;
    else if (when == "auto")
      m_progress = onTerminal();
    else
      return wrong("unknown value '" + when + "' for --progress");
    return true;
  }

  // The bar goes to standard error, whatever standard output is.
  static ProgressBar::When onTerminal() {
    return isatty(STDERR_FILENO) ? ProgressBar::When::AfterOneSecond : ProgressBar::When::Never;
  }

  // Collected; whether they make sense is checked with the words of the command, all at once.
  bool addOptions(const std::string& words) {
    // A comma in front, so that they can be put behind the command's own words as they are.
    m_line.options += "," + words;
    return true;
  }

  // SOURCE_DATE_EPOCH is what builders set for this (reproducible-builds.org); the epoch without it.
  bool setReproducible(const char* seconds) {
    const char* const environment = std::getenv("SOURCE_DATE_EPOCH");
    const std::string text = seconds ? seconds : environment ? environment : "0";
    long long value = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    if (result.ec != std::errc() || result.ptr != end || value < 0)
      return wrong("'" + text + "' is no number of seconds");
    m_line.keeping.reproducible = value;
    return true;
  }

 private:
  // With the directory of the -C in front of it.
  void addOperand(const char* path) { m_line.operands.push_back({m_line.targetDir, path}); }

  // 1 is an operand, ":" a missing value, "?" anything else that is wrong. For the last two `optopt` has what
  // it was, or 0 for an unknown long option.
  bool take(int found, const std::vector<std::string>& words, int at) {
    if (found == 1) {
      addOperand(optarg);
      return true;
    }
    if (found == ':') return wrong("option '" + culprit(words, at) + "' needs a value");
    // For a known option that was given a value it does not take, getopt_long tells which it is.
    const Option* const known = rowOf(found == '?' ? optopt : found);
    if (!known) return wrong("unknown option '" + culprit(words, at) + "'");
    return found == '?' ? wrong(std::string("option '--") + known->name + "' takes no value")
                        : known->take(*this, optarg);
  }

  // What options mean together, once all are known, since they may come in any order. The first contradiction
  // is told.
  bool check() {
    const Mode mode = m_line.mode;
    m_line.progress = m_progress;
    if (mode == Mode::None) return wrong("one of -c, -x, -t, --verify, --deb is needed");
    if (m_line.archive.empty()) return wrong("no archive: option '-f' is needed");
    if (m_twoCompressions) return wrong("only one of -z, -j, -J, --zstd");
    if (mode == Mode::Create && m_compress) return wrong("compress format can be read but not written");
    if (mode == Mode::Create && m_line.operands.empty()) return wrong("nothing to put into the archive");
    if (mode == Mode::Deb && m_line.operands.size() != 2)
      return wrong("--deb takes a control and a data tarball");
    // Checking a part of it would pass for checking it all.
    if (mode == Mode::Verify && m_line.selects()) return wrong("--verify checks the whole archive");
    if (!m_line.prefix.empty() && mode != Mode::Create) return wrong("--prefix goes with -c");
    if (m_line.stripPaths && mode == Mode::Create) return wrong("--strip-paths goes with -x");
    if (m_line.toStdout && mode != Mode::Extract) return wrong("-O goes with -x");
    // Whether words make sense may depend on those they stand beside.
    std::vector<std::string> complaints;
    const bool writes = mode == Mode::Create;
    morvane::parseTarOptions(writes ? m_line.writingWords() + m_line.options : m_line.readingWords(),
                             complaints);
    if (!complaints.empty()) return wrong("unknown word '" + complaints.front() + "' in --options");
    if (m_line.xml && mode != Mode::List) return wrong("--xml goes with -t");
    return true;
  }

  CommandLine& m_line;
  std::string& m_error;
  bool m_compress = false;
  bool m_twoCompressions = false;
  ProgressBar::When m_progress = onTerminal();
};

// A row's action for each kind of plain option: its member is a template argument, so that a row needs no
// function of its own.
template <bool CommandLine::*kSwitch>
bool switchOn(Parser& parser, const char*) {
  parser.line().*kSwitch = true;
  return true;
}

// The same for what is kept of members; kValue is false for options that switch off.
template <bool Keeping::*kSwitch, bool kValue = true>
bool keep(Parser& parser, const char*) {
  parser.line().keeping.*kSwitch = kValue;
  return true;
}

// For pairs of "--x" and "--no-x", of which the last one counts; without either the user decides (root or
// not).
template <std::optional<bool> Keeping::*kSwitch, bool kValue>
bool decide(Parser& parser, const char*) {
  parser.line().keeping.*kSwitch = kValue;
  return true;
}

// One row for each mode; two different ones are refused.
template <Mode kMode>
bool enter(Parser& parser, const char*) {
  return parser.setMode(kMode);
}

// The last of an option that is repeated counts.
template <std::string CommandLine::*kText>
bool setText(Parser& parser, const char* value) {
  parser.line().*kText = value;
  return true;
}

// All of them count.
template <std::vector<std::string> CommandLine::*kList>
bool addTo(Parser& parser, const char* value) {
  (parser.line().*kList).emplace_back(value);
  return true;
}

template <morvane::Compression kCompression>
bool compress(Parser& parser, const char*) {
  return parser.setCompression(kCompression);
}

// For options that other tars need and this one does not.
bool nothing(Parser&, const char*) { return true; }

// getopt_long takes unambiguous beginnings of long names, so that a new name may make an old abbreviation
// ambiguous.
const Option kOptions[] = {
    {'c', "create", no_argument, enter<Mode::Create>},
    {'x', "extract", no_argument, enter<Mode::Extract>},
    {'\0', "get", no_argument, enter<Mode::Extract>},
    {'t', "list", no_argument, enter<Mode::List>},
    {'\0', "verify", no_argument, enter<Mode::Verify>},
    {'\0', "deb", no_argument, enter<Mode::Deb>},
    {'\0', "help", no_argument, enter<Mode::Help>},
    {'\0', "version", no_argument, enter<Mode::Version>},
    {'f', "file", required_argument, setText<&CommandLine::archive>},
    {'C', "directory", required_argument,
     [](Parser& parser, const char* value) { return parser.enterDirectory(value); }},
    {'\0', "format", required_argument,
     [](Parser& parser, const char* value) { return parser.setFormat(value); }},
    {'z', "gzip", no_argument, compress<morvane::Compression::Gzip>},
    {'j', "bzip2", no_argument, compress<morvane::Compression::Bzip2>},
    {'J', "xz", no_argument, compress<morvane::Compression::Xz>},
    {'\0', "zstd", no_argument, compress<morvane::Compression::Zstd>},
    {'a', "auto-compress", no_argument, nothing},  // names are gone by anyway
    {'\0', "level", required_argument,
     [](Parser& parser, const char* value) { return parser.setLevel(value); }},
    {'Z', "compress", no_argument,
     [](Parser& parser, const char*) {
       parser.askForCompress();
       return true;
     }},
    {'\0', "exclude", required_argument, addTo<&CommandLine::excludes>},
    {'\0', "match", required_argument, addTo<&CommandLine::matches>},
    {'\0', "max-count", required_argument,
     [](Parser& parser, const char* value) { return parser.setMaxCount(value); }},
    {'\0', "prefix", required_argument, setText<&CommandLine::prefix>},
    {'\0', "strip-paths", no_argument, switchOn<&CommandLine::stripPaths>},
    {'P', "absolute-names", no_argument, switchOn<&CommandLine::keepNames>},
    {'\0', "charset", required_argument,
     [](Parser& parser, const char* value) { return parser.setCharset(value); }},
    {'p', "preserve-permissions", no_argument, keep<&Keeping::exactModes>},
    {'\0', "same-permissions", no_argument, keep<&Keeping::exactModes>},
    {'\0', "no-same-permissions", no_argument, decide<&Keeping::fullModes, false>},
    {'\0', "same-owner", no_argument, decide<&Keeping::owners, true>},
    {'\0', "no-same-owner", no_argument, decide<&Keeping::owners, false>},
    {'\0', "numeric-owner", no_argument, keep<&Keeping::numericOwners>},
    {'\0', "xattrs", no_argument, keep<&Keeping::attributes>},
    {'\0', "acls", no_argument, keep<&Keeping::attributes>},
    {'m', "touch", no_argument, keep<&Keeping::times, false>},
    {'S', "sparse", no_argument, nothing},  // holes are kept anyway
    {'\0', "reproducible", optional_argument,
     [](Parser& parser, const char* value) { return parser.setReproducible(value); }},
    {'h', "dereference", no_argument, keep<&Keeping::followsLinks>},
    {'v', "verbose", no_argument, switchOn<&CommandLine::verbose>},
    {'O', "to-stdout", no_argument, switchOn<&CommandLine::toStdout>},
    {'\0', "xml", no_argument, switchOn<&CommandLine::xml>},
    {'\0', "progress", optional_argument,
     [](Parser& parser, const char* value) { return parser.setProgress(value ? value : "always"); }},
    {'\0', "totals", no_argument, switchOn<&CommandLine::totals>},
    {'\0', "log", no_argument, switchOn<&CommandLine::printLog>},
    {'\0', "options", required_argument,
     [](Parser& parser, const char* value) { return parser.addOptions(value); }},
    {'\0', "untrusted", no_argument, switchOn<&CommandLine::untrusted>},
};
const size_t kOptionCount = sizeof kOptions / sizeof *kOptions;

}  // namespace

// "." below a -C is that directory itself: it keeps messages short.
std::string Operand::localPath() const {
  const bool absolute = !path.empty() && path[0] == '/';
  const bool isDirItself = path == "." && !dir.empty();
  return isDirItself ? dir : absolute ? path : joinNames(dir, path);
}

// The first word is the program's own name.
bool parseCommandLine(int argc, char** argv, CommandLine& line, std::string& error) {
  return Parser(line, error).parse(withDashes(argc, argv));
}

}  // namespace mvtar
