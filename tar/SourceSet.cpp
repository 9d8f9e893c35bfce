// ClsTar's sources: what is added, counted, read back and cleared.
#include <memory>
#include <new>

#include "tar/ClsTarMethod.h"
#include "tar/SourceEntry.h"

namespace morvane {

bool ClsTar::AddDirRoot(const XString& dirPath) {
  return method("AddDirRoot", MethodForm::Judged, false,
                [&](MethodFrame&) { return addDirRoot(nullptr, dirPath); });
}

bool ClsTar::AddDirRoot2(const XString& pathPrefix, const XString& dirPath) {
  return method("AddDirRoot2", MethodForm::Judged, false,
                [&](MethodFrame&) { return addDirRoot(&pathPrefix, dirPath); });
}

bool ClsTar::addDirRoot(const XString* pathPrefix, const XString& dirPath) {
  if (pathPrefix) m_log.LogDataX("pathPrefix", *pathPrefix);
  m_log.LogDataX("dirPath", dirPath);
  mvFileInfo info;
  if (!info.loadTargetInfoUtf8(dirPath.getUtf8(), m_log)) return false;
  if (!info.m_isDirectory) {
    m_log.LogError("Not a directory.");
    return false;
  }
  auto root = std::make_unique<_dirRoot>();
  root->m_dirPath = dirPath.str();
  if (pathPrefix) root->m_pathPrefix = pathPrefix->str();
  m_dirRoots.appendPtr(root.release());
  return true;
}

bool ClsTar::AddFile(const XString& path) {
  return method("AddFile", MethodForm::WithVersion, false,
                [&](MethodFrame&) { return addEntry(path.str()); });
}

bool ClsTar::AddFile2(const XString& path, const XString& pathInTar) {
  return method("AddFile2", MethodForm::WithVersion, false,
                [&](MethodFrame&) { return addEntry(makePairEntry(path.str(), pathInTar.str())); });
}

bool ClsTar::addEntry(const std::string& entry) {
  std::unique_ptr<StringBuffer> owned(StringBuffer::createNewSB());
  if (!owned || !owned->appendN(entry.data(), static_cast<unsigned>(entry.size()))) return false;
  return m_files.appendSb(owned.release());
}

bool ClsTar::GetDirRoot(int index, XString& outDirPath) {
  return method("GetDirRoot", MethodForm::Judged, false, [&](MethodFrame&) {
    outDirPath.clear();
    const auto* const root = static_cast<const _dirRoot*>(m_dirRoots.elementAt(index));
    if (!root) {
      m_log.LogError("Index out of range");
      m_log.LogDataLong("index", index);
      return false;
    }
    outDirPath.setFromSbUtf8(root->m_dirPath);
    return true;
  });
}

int ClsTar::get_NumDirRoots() {
  CritSecExitor lock(*this);
  return m_dirRoots.getSize();
}

bool ClsTar::ClearDirRootsAndFiles() {
  return method("ClearDirRootsAndFiles", MethodForm::Unjudged, false, [&](MethodFrame&) {
    m_dirRoots.removeAllObjects();
    m_files.removeAllSbs();
    return true;
  });
}

}  // namespace morvane
