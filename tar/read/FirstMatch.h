// Copies the data of the first member whose path matches a pattern: a scan that is simpler than the untar
// engine. Nothing is merged, so records are candidates under their own names. The door calls it for a path, a
// source or memory alike.
#pragma once

#include "runtime/io/Io.h"
#include "tar/settings/ReadSettings.h"

namespace morvane {

class _mvDataSource;
class _mvOutput;

// The pattern is a whole path's, "*" standing for anything; the text lives as long as the call.
struct MatchWanted {
  // Without regard to case, letters beyond ASCII are alike too.
  const XString& pattern;
  // As MatchCaseSensitive says; the filters of the component have no part in it.
  bool caseSensitive = false;
  bool logsEntries = false;  // the log names each path that is looked at
};

// True also when the archive ended without a match, and nothing was written then. False, with the reason in
// the log, for a damaged header, data that are cut, or an output that refuses a write. The source is read
// from where it stands and left behind the match, so that the caller may go on. `settings` are taken as they
// are when it is called; no callback can change them during the scan.
bool copyFirstMatch(_mvDataSource& source, const MatchWanted& wanted, const ReadSettings& settings,
                    _mvOutput& out, const Io& io);

}  // namespace morvane
