// Names are put together here for both passes, so that what is counted is what is written.
#include "tar/write/SourceWalk.h"

namespace morvane {

// The options of the walk hold until it ends; what a callback sets counts for the next tree.
bool SourceWalk::begin(const DirRoot& root, bool followsLinks, LogBase& log) {
  m_prefix = root.m_pathPrefix.str();
  m_tree.put_BaseDir(XString(root.m_dirPath.str()));
  m_tree.put_Recurse(true);
  m_tree.put_FollowLinks(followsLinks);
  m_followsLinks = followsLinks;
  return m_tree.beginIterate(log);
}

// The whole path is for filters, events and the log; files are opened by directory and name.
SourcePlace SourceWalk::place() {
  m_tree.get_FullUncPath(m_fullPath);
  return {m_fullPath,    m_tree.currentDirectory(), m_tree.currentName(), m_tree.isRegularFile(), nullptr,
          m_followsLinks};
}

// DirPrefix stands in front of the root's own prefix.
void SourceWalk::nameMember(const XString& dirPrefix, XString& pathInTar) const {
  m_tree.get_RelativePath(pathInTar);
  if (!m_prefix.empty()) prependPart(m_prefix, pathInTar);
  if (!dirPrefix.isEmpty()) prependPart(dirPrefix.str(), pathInTar);
}

// Exactly one slash is put between, whatever the part ends in: names in archives depend on it.
void prependPart(const std::string& part, XString& path) { path.buffer().insert(0, part + "/"); }

}  // namespace morvane
