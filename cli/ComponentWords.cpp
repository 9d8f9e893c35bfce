// What the options ask of the component: its option words, and the format of what is written.
#include <unistd.h>

#include "cli/CommandLine.h"

namespace mvtar {

namespace {

// The values of the component's word, in the order of Existing.
constexpr const char* kExisting[] = {"replace", "keep", "skip", "newer"};

}  // namespace

// Attributes have a place in the pax format alone, so that asking for them chooses it.
std::string CommandLine::formatToWrite() const {
  return !format.empty() ? format : keeping.attributes() ? "pax" : "gnu";
}

// What a name promises that can only be read (.Z) is refused before.
morvane::Compression CommandLine::compressionToWrite() const {
  if (compression) return *compression;
  return morvane::compressionBySuffix(archive).value_or(morvane::Compression::None);
}

// OpenBeforeEvent, because the command's event touches no file; MemberEvents, because it selects in them.
std::string CommandLine::writingWords() const {
  std::string words = "Profile=usual,OpenBeforeEvent,MemberEvents,Threads=0";
  // Not by default: reading them costs calls for each file, and few archives want them.
  if (keeping.attributes()) words += ",Store=usual+xattr";
  if (keeping.numericOwners) words += ",OwnerBy=id";
  if (keeping.followsLinks) words += ",FollowLinks";
  if (keeping.reproducible) words += ",Reproducible=" + std::to_string(*keeping.reproducible);
  return words;
}

// As other tars do: the superuser restores owners, devices and exact modes, everybody else what is theirs. An
// archive of strangers gets none of root's rights, and no special files, whoever extracts it. Options stand
// last and win.
std::string CommandLine::readingWords() const {
  std::string words = std::string("Threads=0,Profile=") + (untrusted ? "untrusted" : "usual");
  if (changes.anyWhenReading()) words += ",MemberEvents";
  // By the effective user, whose rights the process has.
  const bool isRoot = geteuid() == 0 && !untrusted;
  std::string parts = "mode+link+sparse";
  if (keeping.times) parts += "+time";
  if (keeping.exactModes.value_or(isRoot)) parts += "+fullmode";
  if (!keeping.usersOwn && keeping.owners.value_or(isRoot)) parts += "+owner";
  if (!untrusted) parts += "+special";
  if (keeping.attributes()) parts += "+xattr";
  words += ",Restore=" + parts;
  // -p is meant for directories that are there already as well.
  if (keeping.exactModes.value_or(false)) words += ",ExistingDirectories=settle";
  if (keeping.numericOwners) words += ",OwnerBy=id";
  if (existing != Existing::Replace)
    words += std::string(",ExistingFiles=") + kExisting[static_cast<size_t>(existing)];
  return words + (keepNames ? ",Confine=off" : "") + options;
}

}  // namespace mvtar
