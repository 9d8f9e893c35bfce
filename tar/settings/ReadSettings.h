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
  bool captureXmlListing = false;
  // Of the names in the archive, as iconv calls it.
  std::string charset = "utf-8";
  std::string mustMatch, mustNotMatch;  // as texts, for the log
  NameFilter filter;
  // Where extraction goes; "." is the current directory.
  XString untarFromDir = ".";
  // Members that are extracted before the run ends; 0: no limit.
  int untarMaxCount = 0;
  bool untarDiscardPaths = false;
  bool noAbsolutePaths = true;
  bool untarDebugLog = false;
  // Milliseconds between two questions whether to abort; 0 or less: none inside a member's data.
  int abortCheckMs = 100;
  TarOptions options;
};

}  // namespace morvane
