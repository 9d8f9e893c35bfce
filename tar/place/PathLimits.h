// What an archive may ask of one path before a run gives up on it.
#pragma once

#include <string_view>

namespace morvane {

class LogBase;
class ProgressEvent;
struct TarOptions;

// How many parts a path has; empty ones do not count.
long long depthOf(std::string_view path);

// Whether a member's path has more parts than MaxPathDepth allows, which ends the run; the reason is in the
// log, and the event (may be null) hears the word with its value. Unless the word was given, the limit holds
// only for what is made on the disk: a tree that is too deep for other programs to remove does no harm while
// it is merely listed.
bool isTooDeep(std::string_view entryPath, bool isExtracted, const TarOptions& options, ProgressEvent* event,
               LogBase& log);

}  // namespace morvane
