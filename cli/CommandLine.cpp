#include "cli/CommandLine.h"

#include <getopt.h>
#include <unistd.h>

#include <charconv>
#include <cstring>

#include "cli/ArchiveName.h"
#include "runtime/text/XString.h"
#include "tar/settings/TarOptions.h"

namespace mvtar {

namespace {

// Long options without a letter of their own.
enum LongOption {
  kVerify = 256,
  kDeb,
  kFormat,
  kExclude,
  kMatch,
  kPrefix,
  kStripPaths,
  kMaxCount,
  kCharset,
  kProgress,
  kTotals,
  kLog,
  kOptions,
  kXml,
  kHelp,
  kVersion
};

constexpr char kLetters[] = "-:cxtf:C:zjZvOP";  // "-": operands come in their place among the options

const option kLongOptions[] = {
    {"create", no_argument, nullptr, 'c'},
    {"extract", no_argument, nullptr, 'x'},
    {"list", no_argument, nullptr, 't'},
    {"file", required_argument, nullptr, 'f'},
    {"directory", required_argument, nullptr, 'C'},
    {"gzip", no_argument, nullptr, 'z'},
    {"bzip2", no_argument, nullptr, 'j'},
    {"verbose", no_argument, nullptr, 'v'},
    {"to-stdout", no_argument, nullptr, 'O'},
    {"verify", no_argument, nullptr, kVerify},
    {"deb", no_argument, nullptr, kDeb},
    {"format", required_argument, nullptr, kFormat},
    {"exclude", required_argument, nullptr, kExclude},
    {"match", required_argument, nullptr, kMatch},
    {"prefix", required_argument, nullptr, kPrefix},
    {"strip-paths", no_argument, nullptr, kStripPaths},
    {"max-count", required_argument, nullptr, kMaxCount},
    {"charset", required_argument, nullptr, kCharset},
    {"progress", optional_argument, nullptr, kProgress},
    {"totals", no_argument, nullptr, kTotals},
    {"log", no_argument, nullptr, kLog},
    {"options", required_argument, nullptr, kOptions},
    {"xml", no_argument, nullptr, kXml},
    {"help", no_argument, nullptr, kHelp},
    {"version", no_argument, nullptr, kVersion},
    {nullptr, 0, nullptr, 0},
};

bool takesArgument(char letter) {
  const char* const found = std::strchr(kLetters + 2, letter);
  return found && found[1] == ':';
}

// "xfC a.tar dir ..." as "-x -f a.tar -C dir ...": without its dash, a first word's letters take the words
// behind it in their order.
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

  bool parse(std::vector<std::string> words) {
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(&word[0]);
    arguments.push_back(nullptr);
    const int count = static_cast<int>(words.size());
    opterr = 0;
    optind = 1;
    while (true) {
      const int before = optind;
      const int found = getopt_long(count, arguments.data(), kLetters, kLongOptions, nullptr);
      if (found == -1) break;
      if (!take(found, words, before)) return false;
    }
    for (int i = optind; i < count; ++i) addOperand(arguments[static_cast<size_t>(i)]);
    return m_line.mode == Mode::Help || m_line.mode == Mode::Version || check();
  }

 private:
  bool wrong(const std::string& what) {
    m_error = what;
    return false;
  }

  void addOperand(const char* path) { m_line.operands.push_back({m_line.targetDir, path}); }

  bool take(int found, const std::vector<std::string>& words, int at) {
    switch (found) {
      case 1:
        addOperand(optarg);
        return true;
      case 'c':
        return setMode(Mode::Create);
      case 'x':
        return setMode(Mode::Extract);
      case 't':
        return setMode(Mode::List);
      case kVerify:
        return setMode(Mode::Verify);
      case kDeb:
        return setMode(Mode::Deb);
      case 'f':
        m_line.archive = optarg;
        return true;
      case 'C':
        return enterDirectory(optarg);
      case 'z':
        m_line.gzip = true;
        return true;
      case 'j':
        m_line.bzip2 = true;
        return true;
      case 'Z':
        m_compress = true;
        return true;
      case 'v':
        m_line.verbose = true;
        return true;
      case 'O':
        m_line.toStdout = true;
        return true;
      case 'P':
        m_line.keepNames = true;
        return true;
      case kFormat:
        return setFormat(optarg);
      case kExclude:
        m_line.excludes.emplace_back(optarg);
        return true;
      case kMatch:
        m_line.matches.emplace_back(optarg);
        return true;
      case kPrefix:
        m_line.prefix = optarg;
        return true;
      case kStripPaths:
        m_line.stripPaths = true;
        return true;
      case kMaxCount:
        return setMaxCount(optarg);
      case kCharset:
        return setCharset(optarg);
      case kProgress:
        return setProgress(optarg ? optarg : "always");
      case kTotals:
        m_line.totals = true;
        return true;
      case kLog:
        m_line.printLog = true;
        return true;
      case kOptions:
        return addOptions(optarg);
      case kXml:
        m_line.xml = true;
        return true;
      case kHelp:
        m_line.mode = Mode::Help;
        return true;
      case kVersion:
        m_line.mode = Mode::Version;
        return true;
      case ':':
        return wrong("option '" + culprit(words, at) + "' needs a value");
      default:
        return wrong("unknown option '" + culprit(words, at) + "'");
    }
  }

  // The word, or the letter of a bundle, that getopt stumbled over.
  static std::string culprit(const std::vector<std::string>& words, int at) {
    if (optopt > 0 && optopt < 256) return std::string("-") + static_cast<char>(optopt);
    const size_t index = static_cast<size_t>(at);
    return index < words.size() ? words[index].substr(0, words[index].find('=')) : "";
  }

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

  bool setFormat(const std::string& format) {
    if (format != "gnu" && format != "ustar" && format != "pax")
      return wrong("unknown format '" + format + "'");
    m_line.format = format;
    return true;
  }

  bool setCharset(const std::string& name) {
    if (name.empty() || !morvane::XString().appendFromEncoding("", name.c_str()))
      return wrong("unknown character set '" + name + "'");
    m_line.charset = name;
    return true;
  }

  bool setMaxCount(const std::string& text) {
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, m_line.maxCount);
    if (result.ec == std::errc() && result.ptr == end && m_line.maxCount >= 0) return true;
    return wrong("'" + text + "' is no number of members");
  }

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

  static ProgressBar::When onTerminal() {
    return isatty(STDERR_FILENO) ? ProgressBar::When::AfterOneSecond : ProgressBar::When::Never;
  }

  bool addOptions(const std::string& words) {
    std::vector<std::string> complaints;
    morvane::parseTarOptions(words, complaints);
    if (!complaints.empty()) return wrong("unknown word '" + complaints.front() + "' in --options");
    m_line.options += "," + words;
    return true;
  }

  bool check() {
    const Mode mode = m_line.mode;
    m_line.progress = m_progress;
    if (mode == Mode::None) return wrong("one of -c, -x, -t, --verify, --deb is needed");
    if (m_line.archive.empty()) return wrong("no archive: option '-f' is needed");
    if (m_line.gzip && m_line.bzip2) return wrong("only one of -z and -j");
    if (mode == Mode::Create && m_compress) return wrong("compress format can be read but not written");
    if (mode == Mode::Create && m_line.operands.empty()) return wrong("nothing to put into the archive");
    if (mode == Mode::Deb && m_line.operands.size() != 2)
      return wrong("--deb takes a control and a data tarball");
    if (mode == Mode::Verify && m_line.selects()) return wrong("--verify checks the whole archive");
    if (!m_line.prefix.empty() && mode != Mode::Create) return wrong("--prefix goes with -c");
    if (m_line.stripPaths && mode == Mode::Create) return wrong("--strip-paths goes with -x");
    if (m_line.toStdout && mode != Mode::Extract) return wrong("-O goes with -x");
    if (m_line.xml && mode != Mode::List) return wrong("--xml goes with -t");
    return true;
  }

  CommandLine& m_line;
  std::string& m_error;
  bool m_compress = false;
  ProgressBar::When m_progress = onTerminal();
};

}  // namespace

std::string Operand::localPath() const {
  const bool absolute = !path.empty() && path[0] == '/';
  const bool isDirItself = path == "." && !dir.empty();
  return isDirItself ? dir : absolute ? path : joinNames(dir, path);
}

bool parseCommandLine(int argc, char** argv, CommandLine& line, std::string& error) {
  return Parser(line, error).parse(withDashes(argc, argv));
}

const char* helpText() {
  return R"(Usage:
  mvtar -c -f ARCHIVE [-z|-j] [options] PATH...    create an archive
  mvtar -x -f ARCHIVE [options] [MEMBER...]        extract
  mvtar -t -f ARCHIVE [options] [MEMBER...]        list
  mvtar --verify -f ARCHIVE                        check the whole archive
  mvtar --deb -f PACKAGE.deb CONTROL.tar.gz DATA.tar.gz
                                                   assemble a Debian package

ARCHIVE is a file, or - for standard output or input. Compression is told by the
content when reading; when creating, by -z, -j or the archive's name (.tar.gz,
.tgz, .tar.bz2, .tbz, .tbz2). MEMBER is a path, a directory's path (with all
below it) or a pattern with *.

Options:
  -C DIR              create: find the following PATHs in DIR (may be repeated);
                      extract: the target, made if it is missing
  -z, -j              create with gzip, bzip2
  --format=FORMAT     gnu (default), ustar or pax
  --match=PATTERN     only what matches (may be repeated)
  --exclude=PATTERN   not what matches (may be repeated)
  --prefix=PATH       create: put PATH in front of every name
  --strip-paths       extract every file straight into the target
  --max-count=N       stop after N members
  -O                  extract the first matching file to standard output
  -P                  keep absolute names, allow names that leave the target
  --xml               list as XML
  --charset=NAME      the character set of names in the archive (utf-8)
  -v                  show names as they are done; with -t, more of each member
  --totals            say how many members and bytes there were
  --progress[=WHEN]   a progress bar: auto (default), always, never
  --log               print the component's log to standard error
  --options=WORDS     more UncommonOptions of the component
  --help, --version

Letters may be bundled (-xzf), the first word may drop its dash (xzf), and --
ends the options. Exit status: 0 all was done, 2 something was not, 64 wrong
usage, 130 or 143 interrupted.
)";
}

}  // namespace mvtar
