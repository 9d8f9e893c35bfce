// The parser of UncommonOptions: a few functions that go through the tables of what there is.
//
// All words are optional behaviour: text without any gives the defaults. What is not understood is never
// guessed at, because a misspelt Confine that was passed over would let an archive out of its directory.
#include "tar/settings/TarOptions.h"

#include <algorithm>
#include <charconv>

#include "runtime/base/Ascii.h"
#include "runtime/fs/Psdk.h"
#include "tar/settings/OptionWords.h"

namespace morvane {

namespace {

// A word as it was given, and its parts in lower case. No value and an empty one ("Word=") are different
// things.
struct GivenWord {
  std::string_view given;
  std::string word, value;
  bool hasValue = false;
};

// Empty words, as between two commas, are none. No word or value holds a comma, so that nothing has to be
// quoted.
std::vector<GivenWord> splitWords(std::string_view words) {
  std::vector<GivenWord> split;
  while (!words.empty()) {
    const size_t comma = std::min(words.find(','), words.size());
    GivenWord each;
    // As given, for the complaint; what it is compared with is made below.
    each.given = trimmed(words.substr(0, comma));
    words.remove_prefix(std::min(comma + 1, words.size()));
    if (each.given.empty()) continue;
    const size_t equals = std::min(each.given.find('='), each.given.size());
    each.word = asciiLowerCase(trimmed(each.given.substr(0, equals)));
    each.hasValue = equals < each.given.size();
    if (each.hasValue) each.value = asciiLowerCase(trimmed(each.given.substr(equals + 1)));
    split.push_back(each);
  }
  return split;
}

// `lower` is in lower case already.
bool isWord(const std::string& lower, std::string_view written) {
  return std::equal(lower.begin(), lower.end(), written.begin(), written.end(),
                    [](char a, char b) { return a == asciiLower(b); });
}

// Null where the table has no such word. The tables are short, and are looked through once a method.
template <class Row, size_t kCount>
const Row* rowOf(const Row (&rows)[kCount], const GivenWord& given) {
  const Row* const end = rows + kCount;
  const Row* const found =
      std::find_if(rows, end, [&](const Row& row) { return isWord(given.word, row.word); });
  return found == end ? nullptr : found;
}

// A switch that is given no value is on. "Word=" is no switch without a value: it looks like a value that was
// forgotten.
bool applySwitch(bool& setting, const GivenWord& given) {
  const bool makesSense = !given.hasValue || given.value == "on" || given.value == "off";
  if (makesSense) setting = given.value != "off";
  return makesSense;
}

// Decimal digits and nothing else; no number at all makes no sense either.
bool applyNumber(const NumberWord& row, TarOptions& options, const GivenWord& given) {
  // Not 0, which for a limit means none and for others may not be allowed.
  if (given.value == "off") {
    TarOptions defaults;
    row.setting(options) = row.setting(defaults);
    return true;
  }
  long long number = 0;
  const char* const end = given.value.data() + given.value.size();
  const auto result = std::from_chars(given.value.data(), end, number);
  const bool makesSense =
      result.ec == std::errc() && result.ptr == end && number >= row.least && number <= row.most;
  if (makesSense) row.setting(options) = number;
  return makesSense;
}

// What a set stands for that has a name. Owners, devices and exact modes are for the superuser alone to
// restore; asked for in so many words, they are tried by anybody.
bool addNamedSet(std::string_view name, bool restores, KeptParts& parts) {
  if (name != "usual" && name != "all") return false;
  const bool isAll = name == "all";
  // Storing takes no privilege for any of them.
  const bool mayDoAll = !restores || isAll || Psdk::isSuperuser();
  parts.mode = parts.time = parts.link = parts.sparse = true;
  parts.owner |= mayDoAll;
  parts.special |= mayDoAll;
  parts.fullMode |= restores && mayDoAll;
  parts.xattr |= isAll;
  parts.all |= isAll;
  return true;
}

// The set is put together apart and taken over whole, so that a word with one part that is not known changes
// nothing. A later word replaces it and adds nothing.
bool applyParts(const PartsWord& row, TarOptions& options, const GivenWord& given) {
  KeptParts parts;
  std::string_view rest = given.value;
  // An empty part, as between two "+", is not known either.
  for (bool goesOn = rest != "off"; goesOn;) {
    const size_t plus = rest.find('+');
    const std::string_view name = rest.substr(0, plus);
    goesOn = plus != std::string_view::npos;
    if (goesOn) rest.remove_prefix(plus + 1);
    const Part* const end = std::end(kParts);
    const Part* const part =
        std::find_if(std::begin(kParts), end, [&](const Part& each) { return name == each.name; });
    if (part != end && (row.restores || name != "fullmode")) {
      part->add(parts);
    } else if (!addNamedSet(name, row.restores, parts)) {
      return false;
    }
  }
  row.parts(options) = parts;
  return true;
}

// One row for each value that makes sense.
bool applyChoice(TarOptions& options, const GivenWord& given) {
  for (const ChoiceWord& choice : kChoiceWords) {
    if (!isWord(given.word, choice.word) || given.value != choice.value) continue;
    choice.choose(options);
    return true;
  }
  return false;
}

// False when the word is unknown or its value makes no sense; nothing is then changed.
bool applyWord(TarOptions& options, const GivenWord& given) {
  // No word stands in two tables.
  if (const SwitchWord* const row = rowOf(kSwitchWords, given))
    return applySwitch(row->setting(options), given);
  if (const NumberWord* const row = rowOf(kNumberWords, given)) return applyNumber(*row, options, given);
  if (const PartsWord* const row = rowOf(kPartsWords, given)) return applyParts(*row, options, given);
  return applyChoice(options, given);
}

// Null for a profile that is not known, or without a value.
const Profile* profileOf(const GivenWord& given) {
  const Profile* const end = std::end(kProfiles);
  const Profile* const found =
      std::find_if(std::begin(kProfiles), end, [&](const Profile& row) { return given.value == row.value; });
  return found == end ? nullptr : found;
}

// What is restored has to be read in full, and must not get out of the target unless the application says
// so in so many words.
template <class Complain>
void implyForRestoring(TarOptions& options, const std::vector<GivenWord>& given, Complain complain) {
  bool confineIsGiven = false;
  const GivenWord* lastFullRead = nullptr;
  for (const GivenWord& each : given) {
    if (each.word == "fullread") lastFullRead = &each;
    confineIsGiven |= each.word == "confine";
  }
  // It is refused and not overruled in silence, because the two contradict each other.
  if (lastFullRead && lastFullRead->value == "off") complain(*lastFullRead);
  // Only the full reader has exact times, attributes and maps of holes.
  options.fullRead = true;
  // A Confine=off that was given stays: it is what the application says in so many words.
  if (!confineIsGiven && options.confine == Confine::Off) options.confine = Confine::Beneath;
}

}  // namespace

// Never fails by itself: whoever asked decides what complaints lead to. A word is complained of once.
TarOptions parseTarOptions(std::string_view words, std::vector<std::string>& complaints) {
  const std::vector<GivenWord> given = splitWords(words);
  TarOptions options;
  // As given, for the person who reads the log.
  const auto complain = [&](const GivenWord& each) {
    if (std::find(complaints.begin(), complaints.end(), each.given) == complaints.end()) {
      complaints.emplace_back(each.given);
    }
  };
  // The profile first, wherever it stands, so that every other word wins over it.
  const Profile* profile = nullptr;
  // The last profile that is known counts.
  for (const GivenWord& each : given) {
    if (!isWord(each.word, kProfileWord)) continue;
    if (const Profile* const found = profileOf(each)) {
      profile = found;
    } else {
      complain(each);
    }
  }
  // The rows of a profile are applied like words that were given first.
  if (profile) {
    for (const GivenWord& each : splitWords(profile->words)) applyWord(options, each);
  }
  // In their order: the last of a word wins.
  for (const GivenWord& each : given) {
    if (!isWord(each.word, kProfileWord) && !applyWord(options, each)) complain(each);
  }
  // Whatever a faster compressor makes, it makes on some machines only.
  if (options.reproducible >= 0) options.codec.fastDeflate = TarOptions().codec.fastDeflate;
  if (options.restore.any()) implyForRestoring(options, given, complain);
  return options;
}

// Words with a value that is for the caller to choose end in "=".
std::vector<ListedWord> listOptionWords() {
  std::vector<ListedWord> words;
  for (const SwitchWord& row : kSwitchWords) words.push_back({row.word, row.meaning});
  for (const NumberWord& row : kNumberWords) words.push_back({std::string(row.word) + "=", row.meaning});
  for (const PartsWord& row : kPartsWords) words.push_back({std::string(row.word) + "=", row.meaning});
  const auto addValue = [&](const char* word, const char* value, const char* meaning) {
    if (meaning) words.push_back({std::string(word) + "=" + value, meaning});
  };
  for (const ChoiceWord& row : kChoiceWords) addValue(row.word, row.value, row.meaning);
  for (const Profile& row : kProfiles) addValue(kProfileWord, row.value, row.meaning);
  return words;
}

}  // namespace morvane
