// The words of UncommonOptions, one row each: how it is written, what it sets, and a sentence for whoever
// looks for one. A new word is a row here and a member of TarOptions. Known to the parser in TarOptions.cpp
// alone.
//
// Words and values are compared without regard to case, and listed as they stand here. A row without a
// sentence is understood and not listed: it says what holds anyway.
#pragma once

#include <limits>

#include "tar/settings/TarOptions.h"

namespace morvane {

// A word that is on or off: "Word", "Word=on", "Word=off".
struct SwitchWord {
  const char* word;
  const char* meaning;
  bool& (*setting)(TarOptions& options);
};

// A word that needs a number, "Word=1000", in a range of its own. "Word=off" gives the default back.
struct NumberWord {
  const char* word;
  const char* meaning;
  long long& (*setting)(TarOptions& options);
  long long least, most;
};

// One of a word's values. Words with values of their own, one row for each value.
struct ChoiceWord {
  const char *word, *value;
  const char* meaning;
  // Sets what the value stands for.
  void (*choose)(TarOptions& options);
};

// A word whose value is a set: parts joined by "+". `restores` tells whether the word is about restoring,
// which alone knows "fullmode".
struct PartsWord {
  const char* word;
  const char* meaning;
  KeptParts& (*parts)(TarOptions& options);
  bool restores;
};

struct Part {
  const char* name;
  void (*add)(KeptParts& parts);
};

// Stands for other words. A row's words are parsed like given ones; nobody is told of one that is not known.
struct Profile {
  const char* value;
  const char* meaning;
  const char* words;
};

inline constexpr long long kAnyNumber = std::numeric_limits<long long>::max();

// A function for each member: there is no pointer to a member of a member.
#define MORVANE_SETTING(type, member) [](TarOptions& options) -> type& { return options.member; }
inline constexpr SwitchWord kSwitchWords[] = {
    {"SkipOutputFile", "leave the archive out of itself", MORVANE_SETTING(bool, skipOutputFile)},
    {"SkipUnreadable", "leave out what cannot be read and go on", MORVANE_SETTING(bool, skipUnreadable)},
    {"WriteExactSizes", "never more or fewer data than the header says",
     MORVANE_SETTING(bool, writeExactSizes)},
    {"CountSkipsExcluded", "count past entries that are left out", MORVANE_SETTING(bool, countSkipsExcluded)},
    {"NoTotal", "no pass that counts bytes", MORVANE_SETTING(bool, noTotal)},
    {"UstarPlainPrefix", "no slash at the end of a ustar prefix", MORVANE_SETTING(bool, ustarPlainPrefix)},
    {"PaxExact", "exact lengths of pax records", MORVANE_SETTING(bool, paxExact)},
    {"OpenBeforeEvent", "open a file before the event about it", MORVANE_SETTING(bool, openBeforeEvent)},
    {"FollowLinks", "archive what symbolic links point at", MORVANE_SETTING(bool, followLinks)},
    {"FullRead", "every extension record as other tars mean it", MORVANE_SETTING(bool, fullRead)},
    {"VerifyGzip", "check the gzip checksum", MORVANE_SETTING(bool, codec.verifyGzip)},
    {"GzipAllMembers", "read every gzip member", MORVANE_SETTING(bool, codec.gzipAllMembers)},
    {"Bz2Framed", "a bzip2 archive is a run of its own", MORVANE_SETTING(bool, bz2Framed)},
    {"RequireEndOfArchive", "fail without an end mark", MORVANE_SETTING(bool, requireEndOfArchive)},
    {"SkipUncreatable", "go on behind a member that cannot be created",
     MORVANE_SETTING(bool, skipUncreatable)},
    {"EntryEvents", "onTarEntry for compressed archives too", MORVANE_SETTING(bool, entryEvents)},
    {"MemberEvents", "onTarMember for each member", MORVANE_SETTING(bool, memberEvents)},
};
// With the least and the largest value that makes sense. Threads=0 is as many as the process has processors.
// Level goes to the highest of any compression, and each one stops at its own. FastDeflate has no 0, because
// "off" says that. Of a limit 0 means none.
inline constexpr NumberWord kNumberWords[] = {
    {"Threads", "how many threads; 0: one for each processor", MORVANE_SETTING(long long, codec.threads), 0,
     64},
    {"Level", "how much effort a compression takes", MORVANE_SETTING(long long, codec.level), 1, 22},
    {"FastDeflate", "faster gzip, 1 to 3", MORVANE_SETTING(long long, codec.fastDeflate), 1, 3},
    {"Reproducible", "the same bytes for the same tree, no time later than this",
     MORVANE_SETTING(long long, reproducible), 0, kAnyNumber},
    {"MaxWindowBytes", "the window that zstd and xz may claim",
     MORVANE_SETTING(long long, codec.maxWindowBytes), 1, kAnyNumber},
    {"MaxExtensionBytes", "most bytes of one extension record", MORVANE_SETTING(long long, maxExtensionBytes),
     1, kAnyNumber},
    {"MaxPathDepth", "most parts of a path", MORVANE_SETTING(long long, maxPathDepth), 0, kAnyNumber},
    {"MaxMembers", "most members", MORVANE_SETTING(long long, maxMembers), 0, kAnyNumber},
    {"MaxTotalBytes", "most bytes of extracted data", MORVANE_SETTING(long long, maxTotalBytes), 0,
     kAnyNumber},
    {"MaxRatio", "most bytes out of a decompressor for each that went in",
     MORVANE_SETTING(long long, maxRatio), 0, kAnyNumber},
};
inline constexpr PartsWord kPartsWords[] = {
    {"Store", "what members take from their sources, parts joined by +",
     [](TarOptions& options) -> KeptParts& { return options.store; }, false},
    {"Restore", "what extracted members get back, parts joined by +",
     [](TarOptions& options) -> KeptParts& { return options.restore; }, true},
};
#undef MORVANE_SETTING
// "off" gives each word's default back, so that a word of somebody else's can be undone by one behind it.
inline constexpr ChoiceWord kChoiceWords[] = {
    {"Confine", "off", nullptr, [](TarOptions& options) { options.confine = Confine::Off; }},
    {"Confine", "beneath", "refuse what leaves the target",
     [](TarOptions& options) { options.confine = Confine::Beneath; }},
    {"Confine", "nolinks", "refuse what passes any link",
     [](TarOptions& options) { options.confine = Confine::NoLinks; }},
    {"UstarOverflow", "off", nullptr, [](TarOptions& options) { options.ustarOverflowFails = false; }},
    {"UstarOverflow", "fail", "refuse a ustar prefix over 155 bytes",
     [](TarOptions& options) { options.ustarOverflowFails = true; }},
    {"OwnerBy", "off", nullptr, [](TarOptions& options) { options.ownerById = false; }},
    {"OwnerBy", "name", "owners by their names, else by number",
     [](TarOptions& options) { options.ownerById = false; }},
    {"OwnerBy", "id", "owners by number alone", [](TarOptions& options) { options.ownerById = true; }},
    {"LinkTargets", "off", nullptr, [](TarOptions& options) { options.linksInside = false; }},
    {"LinkTargets", "any", "symbolic links lead anywhere",
     [](TarOptions& options) { options.linksInside = false; }},
    {"LinkTargets", "inside", "refuse symbolic links that lead out of the target",
     [](TarOptions& options) { options.linksInside = true; }},
    {"ExistingFiles", "off", nullptr, [](TarOptions& options) { options.existing = ExistingFiles::Replace; }},
    {"ExistingFiles", "replace", "new files for old ones",
     [](TarOptions& options) { options.existing = ExistingFiles::Replace; }},
    {"ExistingFiles", "keep", "leave files that are there and name them",
     [](TarOptions& options) { options.existing = ExistingFiles::Keep; }},
    {"ExistingFiles", "skip", "leave files that are there",
     [](TarOptions& options) { options.existing = ExistingFiles::Skip; }},
    {"ExistingFiles", "newer", "leave files that are not older",
     [](TarOptions& options) { options.existing = ExistingFiles::Newer; }},
    {"ExistingDirectories", "off", nullptr,
     [](TarOptions& options) { options.settlesExistingDirectories = false; }},
    {"ExistingDirectories", "keep", "leave modes and owners of directories that are there",
     [](TarOptions& options) { options.settlesExistingDirectories = false; }},
    {"ExistingDirectories", "settle", "with fullmode: as those that the run made",
     [](TarOptions& options) { options.settlesExistingDirectories = true; }},
};
// fullmode sets both, because it asks for a mode and says which of its bits.
inline constexpr Part kParts[] = {
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
inline constexpr char kProfileWord[] = "Profile";
#define MORVANE_USUAL                                                                                     \
  "SkipOutputFile,SkipUnreadable,WriteExactSizes,CountSkipsExcluded,UstarOverflow=fail,UstarPlainPrefix," \
  "PaxExact,"                                                                                             \
  "FullRead,Confine=beneath,VerifyGzip,GzipAllMembers,Bz2Framed,RequireEndOfArchive,EntryEvents,"         \
  "SkipUncreatable,Store=usual,Restore=usual"
// The last row repeats words of the one before: the last one counts, as for words that are given.
inline constexpr Profile kProfiles[] = {
    // The same as no profile at all, for whoever puts words behind those of somebody else.
    {"off", nullptr, ""},
    {"usual", "the words that new programs do well with", MORVANE_USUAL},
    {"untrusted", "the same for archives of strangers, with limits",
     MORVANE_USUAL ",Confine=nolinks,LinkTargets=inside,Restore=mode+time+link+sparse,MaxMembers=1000000,"
                   "MaxTotalBytes=68719476736,MaxRatio=1000,MaxPathDepth=256"},
};
#undef MORVANE_USUAL

}  // namespace morvane
