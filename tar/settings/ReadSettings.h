// What a reading run needs to know of its component: the properties as they are when it looks.
#pragma once

#include <string>

#include "runtime/text/XString.h"
#include "tar/settings/NameFilter.h"
#include "tar/settings/TarOptions.h"

namespace morvane {

// A plain copy, so that a run need not hold the component's lock to look at them. The defaults are the
// component's own; what each property does is said in ClsTar.h.
struct ReadSettings {
  // Nothing is written: members are walked over.
  bool suppressOutput = false;
  // A listing is made beside whatever else is done.
  bool captureXmlListing = false;
  // Of the names in the archive, as iconv calls it.
  std::string charset = "utf-8";
  std::string mustMatch, mustNotMatch;  // as texts, for the log
  // Made from the patterns once, and not for each member.
  NameFilter filter;
  // Where extraction goes; "." is the current directory.
  XString untarFromDir = ".";
  // Members that are extracted before the run ends; 0: no limit.
  int untarMaxCount = 0;
  // Only the last part of each path is used.
  bool untarDiscardPaths = false;
  // Leading slashes of a path are removed.
  bool noAbsolutePaths = true;
  // More lines of the log, for whoever looks for a fault.
  bool untarDebugLog = false;
  // Milliseconds between two questions whether to abort; 0 or less: none inside a member's data.
  int abortCheckMs = 100;
  // The words; some of them imply others, and that has been seen to (parseTarOptions).
  TarOptions options;
};

}  // namespace morvane
