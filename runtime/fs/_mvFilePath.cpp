// Paths as text: nothing here asks the system whether they exist. Bytes stay as they are, and neither "." nor
// ".." is resolved, because with links on the way only the system knows where they lead.
#include "runtime/fs/_mvFilePath.h"

#include "runtime/text/XString.h"

namespace morvane {

// An empty directory is the current one, and adds nothing.
void _mvFilePath::CombineDirAndFilepath(const XString& dir, const XString& relative, XString& out) {
  const std::string& base = dir.str();
  if (base.empty() || relative.str().compare(0, 1, "/") == 0) {
    out.copyFromX(relative);
    return;
  }
  out.copyFromX(dir);
  if (base.back() != '/') out.appendUtf8N("/", 1);
  out.appendUtf8N(relative.getUtf8(), relative.getSizeUtf8());
}

// Where there is no slash, npos and 1 is 0: all of the path.
void _mvFilePath::GetFinalFilenamePart(const XString& path, XString& out) {
  out = path.str().substr(path.str().rfind('/') + 1);
}

void _mvFilePath::buildLongPath(const XString& path, XString& out) { out.copyFromX(path); }

}  // namespace morvane
