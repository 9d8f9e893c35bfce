// What a reading run needs to know of its component: the properties as they are when it looks.
#pragma once

#include <string>

#include "runtime/text/XString.h"
#include "tar/settings/NameFilter.h"
#include "tar/settings/TarOptions.h"

namespace morvane {

struct ReadSettings {
  bool suppressOutput = false;
  bool captureXmlListing = false;
  std::string charset = "utf-8";
  std::string mustMatch, mustNotMatch;  // as texts, for the log
  NameFilter filter;
  XString untarFromDir = ".";
  int untarMaxCount = 0;
  bool untarDiscardPaths = false;
  bool noAbsolutePaths = true;
  bool untarDebugLog = false;
  int abortCheckMs = 100;
  TarOptions options;
};

}  // namespace morvane
