// The words of UncommonOptions, parsed. docs/options.md says what each is for.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "runtime/base/Export.h"
#include "runtime/codec/Codec.h"
#include "tar/settings/KeptParts.h"

namespace morvane {

// Off: where extraction goes is the archive's affair. Beneath: never out of the target, links included.
// NoLinks: and no link is followed at all.
enum class Confine { Off, Beneath, NoLinks };

// What becomes of a file that is where a member is to be made. Keep leaves the member out, which is told and
// is a failure of the run; Skip does so in silence, and Newer where the file is not older.
enum class ExistingFiles { Replace, Keep, Skip, Newer };

// Plain values, copied into each run. Every default is what the component does without any word.
struct TarOptions {
  // FastDeflate, VerifyGzip, GzipAllMembers, Level, MaxWindowBytes, Threads.
  CodecOptions codec;
  // Both directions
  bool memberEvents = false;
  bool ownerById = false;  // owners are numbers alone
  // Writing
  bool skipOutputFile = false;
  bool skipUnreadable = false;
  bool writeExactSizes = false;
  bool countSkipsExcluded = false;
  bool noTotal = false;
  bool ustarOverflowFails = false;
  // The three of these are FormatRules of tar/format.
  bool ustarPlainPrefix = false;
  bool paxExact = false;
  bool openBeforeEvent = false;
  bool followLinks = false;
  KeptParts store;
  long long reproducible = -1;  // no time is later than this (Unix seconds); -1: not reproducible
  // Reading
  bool fullRead = false;
  // Bytes of one extension record (a pax header, a long name) that are read at all.
  long long maxExtensionBytes = 64LL * 1024 * 1024;
  Confine confine = Confine::Off;
  bool skipUncreatable = false;
  // UntarBz2 begins each run anew.
  bool bz2Framed = false;
  bool requireEndOfArchive = false;
  bool entryEvents = false;
  KeptParts restore;  // any of it: fullRead, and a confine unless that was switched off in so many words
  bool linksInside = false;  // symbolic links that lead out of the target are refused
  ExistingFiles existing = ExistingFiles::Replace;
  bool settlesExistingDirectories = false;  // with restore.fullMode: as those that the run made
  // Limits; 0: none
  static constexpr long long kDefaultPathDepth = 4096;
  // A limit ends the run; it is not passed over.
  long long maxPathDepth = -1;  // parts of a member's path; -1: the default, and only for what is extracted
  // Members of one run; bytes of data that it writes in all; bytes out for each byte of the compressed
  // archive.
  long long maxMembers = 0;
  long long maxTotalBytes = 0;
  long long maxRatio = 0;
};

// Words separated by commas, "Word" or "Word=value", case and blanks around them ignored; the last of a word
// wins, and any wins over a profile. Words that are not known, or have a value that makes no sense, are left
// out and added to `complaints` as given; a component with any refuses to work. Throws std::bad_alloc only.
MORVANE_API TarOptions parseTarOptions(std::string_view words, std::vector<std::string>& complaints);

}  // namespace morvane
