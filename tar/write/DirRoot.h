// A directory tree to archive.
#pragma once

#include "runtime/text/StringBuffer.h"

namespace morvane {

// A source that AddDirRoot or AddDirRoot2 put into the component, which owns it until the sources are
// cleared. Both texts are plain data: the directory was looked at when it was added, and is looked at anew
// whenever an archive is written, relative to the directory in which the process then stands. One thread at a
// time, under the component's lock.
class DirRoot : public MorvaneObject {
 public:
  // Bytes of UTF-8, without slashes added or taken off.
  StringBuffer m_pathPrefix;  // in front of the names of the tree's members; may be empty
  StringBuffer m_dirPath;     // as the application gave it
};

}  // namespace morvane
