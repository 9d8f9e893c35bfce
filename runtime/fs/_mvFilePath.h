// Paths as text. The separator is "/".
#pragma once

#include "runtime/base/Export.h"

namespace morvane {

class XString;

struct MORVANE_API _mvFilePath {
  // The directory, one "/" and the relative path. An absolute second path is returned as it is. `out` may be
  // neither of the two.
  static void CombineDirAndFilepath(const XString& dir, const XString& relative, XString& out);
  // The part after the last "/". Empty for a path that ends in one.
  static void GetFinalFilenamePart(const XString& path, XString& out);
  // The form of a path that the system accepts for long paths. Here that is the path itself: the file
  // services take paths of any length.
  static void buildLongPath(const XString& path, XString& out);
};

}  // namespace morvane
