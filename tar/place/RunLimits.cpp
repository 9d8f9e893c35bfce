// Limits are compared before anything is done, and sums saturate: sizes come from the archive and may be any
// number, so that adding them must not wrap round to a small one.
#include "tar/place/RunLimits.h"

#include <algorithm>
#include <string>

#include "runtime/io/Io.h"
#include "tar/format/TarBlock.h"
#include "tar/settings/TarOptions.h"

namespace morvane {

// Doubled slashes are one, as they are to the system, and a "." leads nowhere.
long long depthOf(std::string_view path) {
  long long parts = 0;
  while (!path.empty()) {
    const size_t end = std::min(path.find('/'), path.size());
    const std::string_view part = path.substr(0, end);
    parts += !part.empty() && part != ".";
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  return parts;
}

// "Word=value" is what the user would have to raise, in the spelling of the options.
bool failAtLimit(const char* word, long long value, const Io& io) {
  io.log.LogError("Limit reached.");
  io.log.LogData("limit", word);
  io.log.LogDataInt64("value", value);
  io.inform("limit", (std::string(word) + "=" + std::to_string(value)).c_str());
  return false;
}

bool RunLimits::reach(const char* word, long long value) {
  m_word = word;
  m_value = value;
  return false;
}

// Every part but the last takes two bytes at least, so nearly every path is done with by its length.
bool RunLimits::isNoDeeper(std::string_view path, long long depth) {
  return static_cast<long long>(path.size()) / 2 < depth || depthOf(path) <= depth ||
         reach("MaxPathDepth", depth);
}

// Counted before the comparison, so that the limit itself is still allowed.
bool RunLimits::takeMember(std::string_view entryPath, const TarOptions& options) {
  ++m_members;
  if (options.maxMembers > 0 && m_members > options.maxMembers) {
    return reach("MaxMembers", options.maxMembers);
  }
  return options.maxPathDepth <= 0 || isNoDeeper(entryPath, options.maxPathDepth);
}

// -1 is no word at all, 0 a word that lifts the limit.
bool RunLimits::mayMake(std::string_view entryPath, const TarOptions& options) {
  const long long most = options.maxPathDepth < 0 ? TarOptions::kDefaultPathDepth : options.maxPathDepth;
  return most == 0 || isNoDeeper(entryPath, most);
}

// By what the header claims; a member that would pass the limit is not begun.
bool RunLimits::mayTakeData(long long size, const TarOptions& options) {
  const long long most = options.maxTotalBytes;
  return most == 0 || saturatedSum(m_totalBytes, size) <= most || reach("MaxTotalBytes", most);
}

void RunLimits::tookData(long long size) { m_totalBytes = saturatedSum(m_totalBytes, size); }

}  // namespace morvane
