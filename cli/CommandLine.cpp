// Arguments to a CommandLine, over getopt_long and the table of options.
#include "cli/CommandLine.h"

#include <getopt.h>

#include "cli/ArchiveName.h"
#include "cli/OptionTable.h"
#include "cli/OptionValues.h"

namespace mvtar {

namespace {

// No letter is as large.
constexpr int kFirstLongOnly = 256;  // what getopt_long gives for a row without a letter, plus the row

// The table's own words for it, because the table is also read by the help, which knows nothing of
// getopt_long.
int argumentOf(const Option& row) {
  return row.takes == Option::Takes::Nothing ? no_argument
         : row.takes == Option::Takes::Value ? required_argument
                                             : optional_argument;
}

// "-" in front: operands come in their place among the options. ":" tells a missing value apart. Operands
// have to come in their place because each -C holds for those behind it.
// The table has no letter whose value may be left out, so getopt's "::" is never needed.
std::string letters() {
  std::string all = "-:";
  for (size_t i = 0; i < kOptionCount; ++i) {
    if (kOptions[i].letter == '\0') continue;
    all += kOptions[i].letter;
    if (kOptions[i].takes == Option::Takes::Value) all += ':';
  }
  return all;
}

// The row of zeros ends the list. getopt_long takes unambiguous beginnings of long names; names of one
// meaning give one value, so that they do not make a beginning ambiguous.
std::vector<option> longOptions() {
  std::vector<option> all;
  int value = 0;
  for (size_t i = 0; i < kOptionCount; ++i) {
    const Option& row = kOptions[i];
    const bool isSynonym = !row.help && i > 0;
    if (!isSynonym) value = row.letter != '\0' ? row.letter : kFirstLongOnly + static_cast<int>(i);
    // A null name would end the list.
    if (row.name) all.push_back({row.name, argumentOf(row), nullptr, value});
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
  return row && row->takes == Option::Takes::Value;
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
  Parser(CommandLine& line, std::string& error) : m_values(line, error) {}

  // getopt_long wants pointers to char and keeps its state in globals: one parse at a time, with its own
  // messages off. The words outlive it, so that they can be shown. Operands behind "--" are what is left.
  bool parse(std::vector<std::string> words) {
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(&word[0]);
    arguments.push_back(nullptr);
    const int count = static_cast<int>(words.size());
    const std::string shortOnes = letters();
    const std::vector<option> longOnes = longOptions();
    // Its messages are not in the command's words, and show what was typed without escapes.
    opterr = 0;
    optind = 1;
    // `before` is the word that getopt_long is about to look at. Of a wrong long option it tells nothing
    // else, so that the message takes the word from there.
    while (true) {
      const int before = optind;
      const int found = getopt_long(count, arguments.data(), shortOnes.c_str(), longOnes.data(), nullptr);
      if (found == -1) break;
      if (!take(found, words, before)) return false;
    }
    for (int i = optind; i < count; ++i) m_values.addOperand(arguments[static_cast<size_t>(i)]);
    // Help is given beside half a command line, which check would refuse.
    const Mode mode = m_values.line().mode;
    return mode == Mode::Help || mode == Mode::Version || m_values.check();
  }

 private:
  // The word, or the letter of a bundle, that getopt stumbled over.
  static std::string culprit(const std::vector<std::string>& words, int at) {
    // A letter; long options are given by the word that getopt_long stood at.
    if (optopt > 0 && optopt < kFirstLongOnly) return std::string("-") + static_cast<char>(optopt);
    // Without what stands behind its "=", which may be long and is not what is wrong.
    const size_t index = static_cast<size_t>(at);
    return index < words.size() ? words[index].substr(0, words[index].find('=')) : "";
  }

  // 1 is an operand, ":" a missing value, "?" anything else that is wrong. For the last two `optopt` has what
  // it was, or 0 for an unknown long option, and for the beginning of several.
  bool take(int found, const std::vector<std::string>& words, int at) {
    if (found == 1) {
      m_values.addOperand(optarg);
      return true;
    }
    if (found == ':') return m_values.wrong("option '" + culprit(words, at) + "' needs a value");
    // For a known option that was given a value it does not take, getopt_long tells which it is.
    const Option* const known = rowOf(found == '?' ? optopt : found);
    if (!known) return m_values.wrong(unknown(culprit(words, at)));
    // An option that needs a value and has none came as ":" before; so "?" with a known row is a value too
    // many, and only a long option can be given one ("--verbose=x").
    return found == '?' ? m_values.wrong(std::string("option '--") + known->name + "' takes no value")
                        : known->apply(m_values, optarg);
  }

  // An ambiguous beginning and an unknown name come from getopt_long as the same "?". Which of them it was is
  // found by looking whether any option begins so; those are then listed.
  static std::string unknown(const std::string& word) {
    std::string candidates;
    const bool isLong = word.size() > 2 && word.compare(0, 2, "--") == 0;
    for (size_t i = 0; isLong && i < kOptionCount; ++i) {
      const std::string name = std::string("--") + (kOptions[i].name ? kOptions[i].name : "");
      if (name.compare(0, word.size(), word) == 0) candidates += (candidates.empty() ? "" : ", ") + name;
    }
    return candidates.empty() ? "unknown option '" + word + "'"
                              : "option '" + word + "' is ambiguous: " + candidates;
  }

  OptionValues m_values;
};

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
