// The parser of UncommonOptions: tables of what there is, and a few functions that go through them. A new
// word is a row here and a member of TarOptions; nothing else in this file changes.
//
// All words are optional behaviour: text without any gives the defaults. What is not understood is never
// guessed at, because a misspelt Confine that was passed over would let an archive out of its directory.
#include "tar/settings/TarOptions.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "runtime/base/Ascii.h"
#include "runtime/fs/Psdk.h"

namespace morvane {

namespace {

// ---- The words, one row each, lower case

// A word that is on or off: "Word", "Word=on", "Word=off".
struct Switch {
  const char* word;
  bool& (*setting)(TarOptions& options);
};

// A word that needs a number, "Word=1000", in a range of its own. "Word=off" gives the default back.
struct Number {
  const char* word;
  long long& (*setting)(TarOptions& options);
  long long least, most;
};

// One of a word's values. Words with values of their own, one row for each value.
struct Choice {
  const char *word, *value;
  // Sets what the value stands for.
  void (*choose)(TarOptions& options);
};

struct PartsWord {
  const char* word;
  KeptParts& (*parts)(TarOptions& options);
  bool restores;
};

struct Part {
  const char* name;
  void (*add)(KeptParts& parts);
};

// Stands for other words. A row's words are parsed like given ones; nobody is told of one that is not known.
struct Profile {
  const char *value, *words;
};

constexpr long long kAnyNumber = std::numeric_limits<long long>::max();

// A function for each member: there is no pointer to a member of a member.
#define MORVANE_SETTING(type, member) [](TarOptions& options) -> type& { return options.member; }
constexpr Switch kSwitches[] = {
    {"memberevents", MORVANE_SETTING(bool, memberEvents)},
    {"skipoutputfile", MORVANE_SETTING(bool, skipOutputFile)},
    {"skipunreadable", MORVANE_SETTING(bool, skipUnreadable)},
    {"writeexactsizes", MORVANE_SETTING(bool, writeExactSizes)},
    {"countskipsexcluded", MORVANE_SETTING(bool, countSkipsExcluded)},
    {"nototal", MORVANE_SETTING(bool, noTotal)},
    {"ustarplainprefix", MORVANE_SETTING(bool, ustarPlainPrefix)},
    {"paxexact", MORVANE_SETTING(bool, paxExact)},
    {"openbeforeevent", MORVANE_SETTING(bool, openBeforeEvent)},
    {"followlinks", MORVANE_SETTING(bool, followLinks)},
    {"fullread", MORVANE_SETTING(bool, fullRead)},
    {"skipuncreatable", MORVANE_SETTING(bool, skipUncreatable)},
    {"verifygzip", MORVANE_SETTING(bool, codec.verifyGzip)},
    {"gzipallmembers", MORVANE_SETTING(bool, codec.gzipAllMembers)},
    {"bz2framed", MORVANE_SETTING(bool, bz2Framed)},
    {"requireendofarchive", MORVANE_SETTING(bool, requireEndOfArchive)},
    {"entryevents", MORVANE_SETTING(bool, entryEvents)},
};
// With the least and the largest value that makes sense. Threads=0 is as many as the process has processors.
// Level goes to the highest of any compression, and each one stops at its own. FastDeflate has no 0, because
// "off" says that. Of a limit 0 means none.
constexpr Number kNumbers[] = {
    {"maxextensionbytes", MORVANE_SETTING(long long, maxExtensionBytes), 1, kAnyNumber},
    {"threads", MORVANE_SETTING(long long, codec.threads), 0, 64},
    {"level", MORVANE_SETTING(long long, codec.level), 1, 22},
    {"maxwindowbytes", MORVANE_SETTING(long long, codec.maxWindowBytes), 1, kAnyNumber},
    {"fastdeflate", MORVANE_SETTING(long long, codec.fastDeflate), 1, 3},
    {"maxpathdepth", MORVANE_SETTING(long long, maxPathDepth), 0, kAnyNumber},
    {"maxmembers", MORVANE_SETTING(long long, maxMembers), 0, kAnyNumber},
    {"maxtotalbytes", MORVANE_SETTING(long long, maxTotalBytes), 0, kAnyNumber},
    {"maxratio", MORVANE_SETTING(long long, maxRatio), 0, kAnyNumber},
    {"reproducible", MORVANE_SETTING(long long, reproducible), 0, kAnyNumber},
};
#undef MORVANE_SETTING
// "off" gives each word's default back, so that a word of somebody else's can be undone by one behind it.
constexpr Choice kChoices[] = {
    {"confine", "off", [](TarOptions& options) { options.confine = Confine::Off; }},
    {"confine", "beneath", [](TarOptions& options) { options.confine = Confine::Beneath; }},
    {"confine", "nolinks", [](TarOptions& options) { options.confine = Confine::NoLinks; }},
    {"ustaroverflow", "off", [](TarOptions& options) { options.ustarOverflowFails = false; }},
    {"ustaroverflow", "fail", [](TarOptions& options) { options.ustarOverflowFails = true; }},
    {"ownerby", "off", [](TarOptions& options) { options.ownerById = false; }},
    {"ownerby", "name", [](TarOptions& options) { options.ownerById = false; }},
    {"ownerby", "id", [](TarOptions& options) { options.ownerById = true; }},
    {"linktargets", "off", [](TarOptions& options) { options.linksInside = false; }},
    {"linktargets", "any", [](TarOptions& options) { options.linksInside = false; }},
    {"linktargets", "inside", [](TarOptions& options) { options.linksInside = true; }},
    {"existingfiles", "off", [](TarOptions& options) { options.existing = ExistingFiles::Replace; }},
    {"existingfiles", "replace", [](TarOptions& options) { options.existing = ExistingFiles::Replace; }},
    {"existingfiles", "keep", [](TarOptions& options) { options.existing = ExistingFiles::Keep; }},
    {"existingfiles", "skip", [](TarOptions& options) { options.existing = ExistingFiles::Skip; }},
    {"existingfiles", "newer", [](TarOptions& options) { options.existing = ExistingFiles::Newer; }},
    {"existingdirectories", "off", [](TarOptions& options) { options.settlesExistingDirectories = false; }},
    {"existingdirectories", "keep", [](TarOptions& options) { options.settlesExistingDirectories = false; }},
    {"existingdirectories", "settle", [](TarOptions& options) { options.settlesExistingDirectories = true; }},
};
// Words whose value is a set: parts joined by "+". The last column tells whether the word is about restoring,
// which alone knows "fullmode".
constexpr PartsWord kPartsWords[] = {
    {"store", [](TarOptions& options) -> KeptParts& { return options.store; }, false},
    {"restore", [](TarOptions& options) -> KeptParts& { return options.restore; }, true},
};
// fullmode sets both, because it asks for a mode and says which of its bits.
constexpr Part kParts[] = {
    {"mode", [](KeptParts& parts) { parts.mode = true; }},
    {"owner", [](KeptParts& parts) { parts.owner = true; }},
    {"time", [](KeptParts& parts) { parts.time = true; }},
    {"link", [](KeptParts& parts) { parts.link = true; }},
    {"special", [](KeptParts& parts) { parts.special = true; }},
    {"sparse", [](KeptParts& parts) { parts.sparse = true; }},
    {"xattr", [](KeptParts& parts) { parts.xattr = true; }},
    {"fullmode", [](KeptParts& parts) { parts.mode = parts.fullMode = true; }},
};

// A profile may not name another one: rows are expanded once.
constexpr char kProfileWord[] = "profile";
#define MORVANE_USUAL                                                                                     \
  "SkipOutputFile,SkipUnreadable,WriteExactSizes,CountSkipsExcluded,UstarOverflow=fail,UstarPlainPrefix," \
  "PaxExact,"                                                                                             \
  "FullRead,Confine=beneath,VerifyGzip,GzipAllMembers,Bz2Framed,RequireEndOfArchive,EntryEvents,"         \
  "SkipUncreatable,Store=usual,Restore=usual"
// The third row repeats words of the second: the last one counts, as for words that are given.
constexpr Profile kProfiles[] = {
    // The same as no profile at all, for whoever puts words behind those of somebody else.
    {"off", ""},
    {"usual", MORVANE_USUAL},
    {"untrusted",
     MORVANE_USUAL ",Confine=nolinks,LinkTargets=inside,Restore=mode+time+link+sparse,MaxMembers=1000000,"
                   "MaxTotalBytes=68719476736,MaxRatio=1000,MaxPathDepth=256"},
};
#undef MORVANE_USUAL

// ---- What they do

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

// Null where the table has no such word. The tables are short, and are looked through once a method.
template <class Row, size_t kCount>
const Row* rowOf(const Row (&rows)[kCount], const GivenWord& given) {
  const Row* const end = rows + kCount;
  const Row* const found = std::find_if(rows, end, [&](const Row& row) { return given.word == row.word; });
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
bool applyNumber(const Number& row, TarOptions& options, const GivenWord& given) {
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
  for (const Choice& choice : kChoices) {
    if (given.word != choice.word || given.value != choice.value) continue;
    choice.choose(options);
    return true;
  }
  return false;
}

// False when the word is unknown or its value makes no sense; nothing is then changed.
bool applyWord(TarOptions& options, const GivenWord& given) {
  // No word stands in two tables.
  if (const Switch* const row = rowOf(kSwitches, given)) return applySwitch(row->setting(options), given);
  if (const Number* const row = rowOf(kNumbers, given)) return applyNumber(*row, options, given);
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
    if (each.word != kProfileWord) continue;
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
    if (each.word != kProfileWord && !applyWord(options, each)) complain(each);
  }
  // Whatever a faster compressor makes, it makes on some machines only.
  if (options.reproducible >= 0) options.codec.fastDeflate = TarOptions().codec.fastDeflate;
  if (options.restore.any()) implyForRestoring(options, given, complain);
  return options;
}

}  // namespace morvane
