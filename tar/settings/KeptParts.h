// What of a file's nature is kept, beside its name and contents: the value of the words Store and Restore.
#pragma once

namespace morvane {

struct KeptParts {
  bool mode = false;      // permission bits; restored less the umask, without set-id and sticky
  bool fullMode = false;  // restoring only: all twelve bits, exactly
  bool owner = false;
  bool time = false;     // with parts of seconds, of links and directories too
  bool link = false;     // symbolic and hard links
  bool special = false;  // FIFOs and devices
  bool sparse = false;   // holes
  bool xattr = false;    // user attributes and POSIX access lists
  bool all = false;      // restoring: attributes of the other name spaces too

  bool any() const { return mode || fullMode || owner || time || link || special || sparse || xattr || all; }
};

}  // namespace morvane
