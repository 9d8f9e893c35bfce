#include "tar/place/RunLimits.h"

#include <string>

#include "runtime/log/LogBase.h"
#include "runtime/progress/ProgressEvent.h"
#include "tar/format/TarBlock.h"
#include "tar/settings/TarOptions.h"

namespace morvane {

long long depthOf(std::string_view path) {
  long long parts = 0;
  bool inPart = false;
  for (const char c : path) {
    parts += c != '/' && !inPart;
    inPart = c != '/';
  }
  return parts;
}

bool failAtLimit(const char* word, long long value, ProgressEvent* event, LogBase& log) {
  log.LogError("Limit reached.");
  log.LogData("limit", word);
  log.LogDataInt64("value", value);
  if (event) event->onInfo("limit", (std::string(word) + "=" + std::to_string(value)).c_str());
  return false;
}

namespace {

bool isNoDeeper(std::string_view path, long long depth, ProgressEvent* event, LogBase& log) {
  // Every part but the last takes two bytes at least, so nearly every path is done with by its length.
  if (static_cast<long long>(path.size()) / 2 < depth || depthOf(path) <= depth) return true;
  return failAtLimit("MaxPathDepth", depth, event, log);
}

}  // namespace

bool RunLimits::takeMember(std::string_view entryPath, const TarOptions& options, ProgressEvent* event,
                           LogBase& log) {
  ++m_members;
  if (options.maxMembers > 0 && m_members > options.maxMembers) {
    return failAtLimit("MaxMembers", options.maxMembers, event, log);
  }
  return options.maxPathDepth <= 0 || isNoDeeper(entryPath, options.maxPathDepth, event, log);
}

bool RunLimits::mayMake(std::string_view entryPath, const TarOptions& options, ProgressEvent* event,
                        LogBase& log) {
  return options.maxPathDepth >= 0 || isNoDeeper(entryPath, TarOptions::kDefaultPathDepth, event, log);
}

bool RunLimits::mayTakeData(long long size, const TarOptions& options, ProgressEvent* event,
                            LogBase& log) const {
  const long long most = options.maxTotalBytes;
  return most == 0 || saturatedSum(m_totalBytes, size) <= most ||
         failAtLimit("MaxTotalBytes", most, event, log);
}

void RunLimits::tookData(long long size) { m_totalBytes = saturatedSum(m_totalBytes, size); }

}  // namespace morvane
