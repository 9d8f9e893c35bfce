// A directory tree to archive.
#pragma once

#include "runtime/text/StringBuffer.h"

namespace morvane {

class DirRoot : public MorvaneObject {
 public:
  StringBuffer m_pathPrefix;  // in front of the names of the tree's members; may be empty
  StringBuffer m_dirPath;     // as the application gave it
};

}  // namespace morvane
