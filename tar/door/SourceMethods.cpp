// ClsTar's sources: what is added, counted, read back and cleared.
#include <memory>

#include "runtime/fs/OsFile.h"
#include "runtime/fs/Psdk.h"
#include "tar/door/ClsTarInner.h"
#include "tar/write/DirRoot.h"
#include "tar/write/MemberWriter.h"
#include "tar/write/SourceEntry.h"

namespace morvane {

bool ClsTar::AddDirRoot(const XString& dirPath) {
  return m_inner->method("AddDirRoot", MethodForm::Judged, false,
                         [&](MethodFrame&) { return m_inner->addDirRoot(nullptr, dirPath); });
}

bool ClsTar::AddDirRoot2(const XString& pathPrefix, const XString& dirPath) {
  return m_inner->method("AddDirRoot2", MethodForm::Judged, false,
                         [&](MethodFrame&) { return m_inner->addDirRoot(&pathPrefix, dirPath); });
}

// Looked at now, so that a mistyped path fails where it was given. A root that is a link to a directory is
// followed, as the walk will do. The list takes the root over; unlike a file's, its prefix is kept apart from
// its path.
bool ClsTar::Inner::addDirRoot(const XString* pathPrefix, const XString& dirPath) {
  const Io io(m_log);
  if (pathPrefix) m_log.LogDataX("pathPrefix", *pathPrefix);
  m_log.LogDataX("dirPath", dirPath);
  // The system would end the path there, and another tree would be archived than the one that was named.
  if (hasNul(dirPath.str()) || (pathPrefix && hasNul(pathPrefix->str()))) return io.fail(kNulInPath);
  mvFileInfo info;
  if (!info.loadTargetInfoUtf8(dirPath.getUtf8(), m_log)) return false;
  if (!info.m_isDirectory) return io.fail("Not a directory.");
  auto root = std::make_unique<_dirRoot>();
  root->m_dirPath = dirPath.str();
  if (pathPrefix) root->m_pathPrefix = pathPrefix->str();
  return m_dirRoots.appendPtr(root.release()) || io.fail("Out of memory for a directory root.");
}

// A file need not be there yet: only the write looks at it.
bool ClsTar::AddFile(const XString& path) {
  return m_inner->method("AddFile", MethodForm::WithVersion, false,
                         [&](MethodFrame&) { return m_inner->addEntry(path.str()); });
}

// An ESC in either path is not refused, though the path is cut there when it is read back.
bool ClsTar::AddFile2(const XString& path, const XString& pathInTar) {
  return m_inner->method("AddFile2", MethodForm::WithVersion, false, [&](MethodFrame&) {
    return m_inner->addEntry(makePairEntry(path.str(), pathInTar.str()));
  });
}

// The time of the call stands in for the one that a file would have. The bytes are copied, because the
// caller's may be gone when the archive is written.
bool ClsTar::AddBytes(const XString& pathInTar, const DataBuffer& data) {
  return m_inner->method("AddBytes", MethodForm::WithVersion, false, [&](MethodFrame&) {
    const Io io(m_log);
    if (hasNul(pathInTar.str())) return io.fail(kNulInPath);
    auto file = std::make_unique<MemoryFile>();
    // The text of the entry is the path; its bytes go beside it.
    file->setString(pathInTar.getUtf8());
    file->m_added = MorvaneFileTime::fromUnixTime64(Psdk::getCurrentUnixTime());
    const bool added = file->m_bytes.append(data) && m_inner->m_files.appendSb(file.release());
    return added || io.fail("Out of memory for a file.");
  });
}

// The list owns what it is given, also when it fails to take it.
bool ClsTar::Inner::addEntry(const std::string& entry) {
  const Io io(m_log);
  if (hasNul(entry)) return io.fail(kNulInPath);
  auto owned = std::make_unique<StringBuffer>(entry);
  return m_files.appendSb(owned.release()) || io.fail("Out of memory for a file.");
}

// An index out of range, negative ones included, gives null.
bool ClsTar::GetDirRoot(int index, XString& outDirPath) {
  return m_inner->method("GetDirRoot", MethodForm::Judged, false, [&](MethodFrame&) {
    // A caller who does not look at the result must not take an earlier path for this one's.
    outDirPath.clear();
    const auto* const root = static_cast<const _dirRoot*>(m_inner->m_dirRoots.elementAt(index));
    if (!root) {
      m_log.LogError("Index out of range");
      m_log.LogDataLong("index", index);
      return false;
    }
    outDirPath.setFromSbUtf8(root->m_dirPath);
    return true;
  });
}

// A property, and no method: no frame, no log. The lock is recursive, and so a callback may ask as well.
int ClsTar::get_NumDirRoots() {
  CritSecExitor lock(*this);
  return m_inner->m_dirRoots.getSize();
}

// No verdict: there is nothing that could fail.
bool ClsTar::ClearDirRootsAndFiles() {
  return m_inner->method("ClearDirRootsAndFiles", MethodForm::Unjudged, false, [&](MethodFrame&) {
    m_inner->m_dirRoots.removeAllObjects();
    m_inner->m_files.removeAllSbs();
    return true;
  });
}

}  // namespace morvane
