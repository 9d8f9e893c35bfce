// What of a file's nature is kept, beside its name and contents: the value of the words Store and Restore.
#pragma once

namespace morvane {

// A value of plain flags. All are off by default: the component then does with each part what it does without
// any word. Whoever writes takes them as what to read of a source, whoever extracts as what to give to a
// file. What a format cannot hold FormatLimits.h says, and what could not be given back is told for each kind
// (NotKept).
struct KeptParts {
  bool mode = false;      // permission bits; restored less the umask, without set-id and sticky
  bool fullMode = false;  // restoring only: all twelve bits, exactly
  // By name where the system knows it, or by number alone (OwnerBy).
  bool owner = false;
  bool time = false;  // with parts of seconds, of links and directories too
  // Without it a symbolic link is stored as an empty file.
  bool link = false;  // symbolic and hard links
  // Making devices takes a privilege.
  bool special = false;  // FIFOs and devices
  bool sparse = false;   // holes
  bool xattr = false;    // user attributes and POSIX access lists
  bool all = false;      // restoring: attributes of the other name spaces too

  // Whether a word asked for anything.
  bool any() const { return mode || fullMode || owner || time || link || special || sparse || xattr || all; }
};

}  // namespace morvane
