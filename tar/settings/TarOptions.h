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

// Plain values, copied into each run. Every default is what the component does without any word. Most flags
// are called like their words.
struct TarOptions {
  // FastDeflate, VerifyGzip, GzipAllMembers, Level, MaxWindowBytes, Threads.
  CodecOptions codec;
  // What writes an archive has of it: with Reproducible one thread, since several make other bytes than one
  // and no machine promises several.
  CodecOptions encoderOptions() const {
    CodecOptions options = codec;
    if (reproducible >= 0) options.threads = 1;
    return options;
  }
  // Both directions
  bool memberEvents = false;
  bool ownerById = false;  // owners are numbers alone

  // Writing

  // The archive that is being written is not put into itself.
  bool skipOutputFile = false;
  // A source that cannot be read is left out, and the method fails at its end.
  bool skipUnreadable = false;
  // As many bytes of a file as its header says, whatever the file has become since.
  bool writeExactSizes = false;
  bool countSkipsExcluded = false;
  // There is no pass over the sources that counts their bytes for a percentage.
  bool noTotal = false;
  // This and the two behind it are FormatRules of tar/format.
  bool ustarOverflowFails = false;
  bool ustarPlainPrefix = false;
  bool paxExact = false;
  // A file of a walk is opened before the event about it, which saves a look at its path.
  bool openBeforeEvent = false;
  bool followLinks = false;
  // What a written member takes from its source instead of from the properties.
  KeptParts store;
  long long reproducible = -1;  // no time is later than this (Unix seconds); -1: not reproducible

  // Reading

  // Records are read as POSIX and the other tars mean them.
  bool fullRead = false;
  // Bytes of one extension record (a pax header, a long name) that are read at all.
  long long maxExtensionBytes = 64LL * 1024 * 1024;
  // Given, or implied by restore.
  Confine confine = Confine::Off;
  // A member that cannot be made is left out, and the method fails at its end.
  bool skipUncreatable = false;
  // UntarBz2 begins each run anew.
  bool bz2Framed = false;
  // A compressed archive that ends without its end mark is a failure; for plain ones it always is.
  bool requireEndOfArchive = false;
  // onTarEntry is sent for compressed archives, too.
  bool entryEvents = false;
  KeptParts restore;  // any of it: fullRead, and a confine unless that was switched off in so many words
  bool linksInside = false;  // symbolic links that lead out of the target are refused
  // Of directories that are in the way the confined target has rules of its own.
  ExistingFiles existing = ExistingFiles::Replace;
  bool settlesExistingDirectories = false;  // with restore.fullMode: as those that the run made

  // Limits; 0: none

  // A path of many parts costs an archive little, and whoever makes its directories much.
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

// "PaxExact", "Level=", "Confine=beneath": as it is given, but for a value that is for the caller to choose.
struct ListedWord {
  std::string word;
  const char* meaning;  // a sentence of a few words, without a full stop
};

// Every word and every value with a name, for help texts and completions. Throws std::bad_alloc only.
MORVANE_API std::vector<ListedWord> listOptionWords();

}  // namespace morvane
