#include "tar/place/PathLimits.h"

#include <string>

#include "runtime/log/LogBase.h"
#include "runtime/progress/ProgressEvent.h"
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

bool isTooDeep(std::string_view entryPath, bool isExtracted, const TarOptions& options, ProgressEvent* event,
               LogBase& log) {
  const long long most = options.maxPathDepth;
  if (most == 0 || (!isExtracted && !options.maxPathDepthIsGiven)) return false;
  // Every part but the last takes two bytes at least, so nearly every path is done with by its length.
  if (static_cast<long long>(entryPath.size()) < 2 * most || depthOf(entryPath) <= most) return false;
  constexpr char kWord[] = "MaxPathDepth";
  log.LogError("Limit reached.");
  log.LogData("limit", kWord);
  log.LogDataInt64("value", most);
  if (event) event->onInfo("limit", (std::string(kWord) + "=" + std::to_string(most)).c_str());
  return true;
}

}  // namespace morvane
