#include "tar/settings/TarOptions.h"

#include <algorithm>
#include <charconv>

#include "runtime/text/Ascii.h"

namespace morvane {

namespace {

struct Switch {
  const char* word;  // lower case
  bool TarOptions::*member;
};

constexpr Switch kSwitches[] = {
    {"skipoutputfile", &TarOptions::skipOutputFile},
    {"skipunreadable", &TarOptions::skipUnreadable},
    {"writeexactsizes", &TarOptions::writeExactSizes},
    {"countskipsexcluded", &TarOptions::countSkipsExcluded},
    {"nototal", &TarOptions::noTotal},
    {"ustarplainprefix", &TarOptions::ustarPlainPrefix},
    {"paxexact", &TarOptions::paxExact},
    {"openbeforeevent", &TarOptions::openBeforeEvent},
    {"fullread", &TarOptions::fullRead},
    {"skipuncreatable", &TarOptions::skipUncreatable},
    {"verifygzip", &TarOptions::verifyGzip},
    {"gzipallmembers", &TarOptions::gzipAllMembers},
    {"bz2framed", &TarOptions::bz2Framed},
    {"requireendofarchive", &TarOptions::requireEndOfArchive},
    {"entryevents", &TarOptions::entryEvents},
};

bool parseCount(const std::string& text, long long least, long long& value) {
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  return result.ec == std::errc() && result.ptr == end && value >= least;
}

bool applySwitch(bool& setting, const std::string& value) {
  setting = value != "off";
  return value.empty() || value == "on" || value == "off";
}

bool applyConfine(Confine& setting, const std::string& value) {
  if (value == "off")
    setting = Confine::Off;
  else if (value == "beneath")
    setting = Confine::Beneath;
  else if (value == "nolinks")
    setting = Confine::NoLinks;
  else
    return false;
  return true;
}

// False when the word is unknown or its value makes no sense; `options` may then be changed and is thrown
// away.
bool applyWord(const std::string& word, const std::string& value, TarOptions& options) {
  const TarOptions defaults;
  const auto* const found = std::find_if(std::begin(kSwitches), std::end(kSwitches),
                                         [&](const Switch& each) { return word == each.word; });
  if (found != std::end(kSwitches)) return applySwitch(options.*found->member, value);
  if (word == "confine") return applyConfine(options.confine, value);
  if (word == "ustaroverflow") {
    options.ustarOverflowFails = value == "fail";
    return value == "fail" || value == "off";
  }
  if (word == "maxextensionbytes") {
    options.maxExtensionBytes = defaults.maxExtensionBytes;
    return value == "off" || parseCount(value, 1, options.maxExtensionBytes);
  }
  if (word == "maxpathdepth") {
    options.maxPathDepth = defaults.maxPathDepth;
    options.maxPathDepthIsGiven = value != "off";
    if (value == "off") return true;
    return parseCount(value, 0, options.maxPathDepth);
  }
  if (word == "fastdeflate") {
    options.fastDeflate = defaults.fastDeflate;
    if (value == "off") return true;
    long long level = 0;
    if (!parseCount(value, 1, level) || level > 3) return false;
    options.fastDeflate = static_cast<int>(level);
    return true;
  }
  return false;
}

}  // namespace

TarOptions parseTarOptions(std::string_view words, std::vector<std::string>& complaints) {
  TarOptions options;
  while (!words.empty()) {
    const size_t comma = std::min(words.find(','), words.size());
    const std::string_view given = trimmed(words.substr(0, comma));
    words.remove_prefix(std::min(comma + 1, words.size()));
    if (given.empty()) continue;
    const size_t equals = std::min(given.find('='), given.size());
    const std::string word = asciiLowerCase(trimmed(given.substr(0, equals)));
    const bool hasValue = equals < given.size();
    const std::string value = hasValue ? asciiLowerCase(trimmed(given.substr(equals + 1))) : "";
    TarOptions changed = options;
    if (!(hasValue && value.empty()) && applyWord(word, value, changed)) {
      options = changed;
    } else if (std::find(complaints.begin(), complaints.end(), given) == complaints.end()) {
      complaints.emplace_back(given);
    }
  }
  return options;
}

}  // namespace morvane
