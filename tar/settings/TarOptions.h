// The words of UncommonOptions, parsed. docs/options.md says what each is for.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "runtime/base/Export.h"
#include "runtime/codec/Codec.h"

namespace morvane {

enum class Confine { Off, Beneath, NoLinks };

struct TarOptions {
  CodecOptions codec;
  // Both directions
  bool memberEvents = false;
  // Writing
  bool skipOutputFile = false;
  bool skipUnreadable = false;
  bool writeExactSizes = false;
  bool countSkipsExcluded = false;
  bool noTotal = false;
  bool ustarOverflowFails = false;
  bool ustarPlainPrefix = false;
  bool paxExact = false;
  bool openBeforeEvent = false;
  // Reading
  bool fullRead = false;
  long long maxExtensionBytes = 64LL * 1024 * 1024;
  Confine confine = Confine::Off;
  bool skipUncreatable = false;
  bool bz2Framed = false;
  bool requireEndOfArchive = false;
  bool entryEvents = false;
  // Limits; 0: none
  static constexpr long long kDefaultPathDepth = 4096;
  long long maxPathDepth = -1;  // parts of a member's path; -1: the default, and only for what is extracted
  long long maxMembers = 0;
  long long maxTotalBytes = 0;
  long long maxRatio = 0;
};

// Words separated by commas, "Word" or "Word=value", case and blanks around them ignored; the last of a word
// wins, and any wins over a profile. Words that are not known, or have a value that makes no sense, are left
// out and added to `complaints` as given; a component with any refuses to work.
MORVANE_API TarOptions parseTarOptions(std::string_view words, std::vector<std::string>& complaints);

}  // namespace morvane
