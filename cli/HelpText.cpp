// The texts of mvtar --help. What there is of options comes from their table; the first screen is written by
// hand, since it is a choice.
#include <algorithm>
#include <iterator>

#include "cli/Help.h"
#include "cli/OptionTable.h"
#include "tar/settings/TarOptions.h"

namespace mvtar {

namespace {

// Whoever adds a line here takes another one away: all of it has to fit the screen that the header names.
constexpr char kFirstScreen[] = R"(Usage:
  mvtar -c -f ARCHIVE [options] PATH...      create         -xf ARCHIVE  extract
  mvtar -x|-t|-d -f ARCHIVE [options] [MEMBER...]  extract, list, compare
  mvtar -r|-u -f ARCHIVE [options] PATH...   append, append what is newer
  mvtar --verify -f ARCHIVE                  check the whole archive
  mvtar --deb -f PACKAGE CONTROL.tar.gz DATA.tar.gz
Options of every day:
  -C DIR              where PATHs are; where to extract (made if missing)
  -z -j -J --zstd     create with gzip, bzip2, xz, zstd; or by ARCHIVE's name
  -v                  show names; with -t, more of each member
  -T FILE, -X FILE    take names from, leave out the patterns in FILE
  --exclude=PATTERN   leave out (* ? [...]); --exclude-vcs: version control
  --strip-components=N, --transform=s/RE/TO/
                      change names on their way
  -k                  extract: keep what is there
  -p                  modes exactly as they are stored
  -O                  extract to standard output
  --untrusted         extract an archive of strangers, with limits
  --help=all          all options; the manual page mvtar(1) tells more
Compression is told by the content when reading. Letters may be bundled
(-xzf), the first word may drop its dash, long options may be cut short.
Exit status: 0 all was done, 1 -d found differences, 2 something was not done,
64 wrong usage, 130 or 143 interrupted.
)";

// A group without a heading here would not be listed at all. Within a group options stand in the order of the
// table.
constexpr struct {
  OptionGroup group;
  const char* title;
} kTitles[] = {{OptionGroup::Mode, "What to do"},
               {OptionGroup::Archive, "The archive"},
               {OptionGroup::Compression, "Compression"},
               {OptionGroup::Which, "Which members"},
               {OptionGroup::Names, "Their names"},
               {OptionGroup::Kept, "What a member keeps"},
               {OptionGroup::Existing, "What is there already"},
               {OptionGroup::Shown, "What is shown"},
               {OptionGroup::Component, "The component"}};
static_assert(std::size(kTitles) == static_cast<size_t>(OptionGroup::Count), "a group has no heading");

// "[=VALUE]" for one that may be left out, as getopt_long takes it: only with the "=" and in the same word.
std::string valueOf(const Option& row) {
  if (row.takes == Option::Takes::Nothing) return "";
  // A row that takes a value always has a name for it.
  const std::string value = std::string("=") + row.value;
  return row.takes == Option::Takes::MayTakeValue ? "[" + value + "]" : value;
}

std::string longNameOf(const Option& row) { return row.name ? std::string("--") + row.name : ""; }

// "  -f, --file=ARCHIVE     sentence", the sentence on a line of its own where names are long. Other names of
// the option are the rows that follow this one in the table, which is why `row` has to be an element of it.
std::string lineOf(const Option& row, size_t synonyms) {
  // Two blanks at least stand between the names and the sentence.
  constexpr size_t kSentenceAt = 30;
  // Long names stand in one column, also where there is no letter.
  std::string line = row.letter != '\0' ? std::string("  -") + row.letter + (row.name ? ", " : "") : "      ";
  line += longNameOf(row) + valueOf(row);
  for (size_t i = 1; i <= synonyms; ++i) line += ", " + longNameOf((&row)[i]);
  line += line.size() + 2 > kSentenceAt ? "\n" + std::string(kSentenceAt, ' ')
                                        : std::string(kSentenceAt - line.size(), ' ');
  return line + row.help + "\n";
}

// Synonyms have no sentence and so no line of their own; they are counted from the row that has one.
std::string allOptions() {
  std::string text;
  for (const auto& [group, title] : kTitles) {
    text += (text.empty() ? "" : "\n") + std::string(title) + ":\n";
    for (size_t i = 0; i < kOptionCount; ++i) {
      // A pass over the whole table for each group: it is short, and need not be sorted by groups then.
      if (kOptions[i].group != group || !kOptions[i].help) continue;
      // They follow their row without a gap, as the table promises.
      size_t synonyms = 0;
      while (i + synonyms + 1 < kOptionCount && !kOptions[i + synonyms + 1].help) ++synonyms;
      text += lineOf(kOptions[i], synonyms);
    }
  }
  return text;
}

// The completions of the shells read it each time they are asked, and tests compare the manual page with it.
// A synonym has a line of its own here, with the sentence of the row before it, because it is completed, too.
std::string tableOfOptions() {
  std::string text;
  const char* help = "";
  for (size_t i = 0; i < kOptionCount; ++i) {
    const Option& row = kOptions[i];
    // Kept from row to row, for the synonyms behind it.
    if (row.help) help = row.help;
    if (row.letter != '\0') text += std::string("-") + row.letter;
    // Every row has all five columns, however many of them are empty: readers count tabs.
    text += "\t" + longNameOf(row) + "\t";
    text += row.takes == Option::Takes::Nothing ? "" : row.takes == Option::Takes::Value ? "=" : "[=]";
    text += std::string("\t") + (row.value ? row.value : "") + "\t" + help + "\n";
  }
  return text;
}

std::string wordsOfTheComponent() {
  const std::vector<morvane::ListedWord> words = morvane::listOptionWords();
  size_t widest = 0;
  for (const morvane::ListedWord& each : words) widest = std::max(widest, each.word.size());
  std::string text;
  for (const morvane::ListedWord& each : words) {
    text += each.word + std::string(widest + 2 - each.word.size(), ' ') + each.meaning + "\n";
  }
  return text;
}

std::string firstScreen() { return kFirstScreen; }

struct Topic {
  const char* name;
  std::string (*text)();
};

constexpr Topic kTopics[] = {
    {"", firstScreen}, {"all", allOptions}, {"words", wordsOfTheComponent}, {"options", tableOfOptions}};

}  // namespace

std::optional<std::string> helpText(const std::string& topic) {
  for (const Topic& each : kTopics) {
    if (topic == each.name) return each.text();
  }
  return std::nullopt;
}

}  // namespace mvtar
