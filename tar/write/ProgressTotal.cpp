#include "tar/write/ProgressTotal.h"

#include <memory>

#include "runtime/fs/ClsDirTree.h"
#include "runtime/fs/FileSys.h"
#include "runtime/fs/mvFileInfo.h"
#include "runtime/log/LogContextExitor.h"
#include "runtime/log/LogNull.h"
#include "runtime/progress/ProgressMonitor.h"
#include "runtime/text/XString.h"
#include "tar/format/TarBlock.h"
#include "tar/write/DirRoot.h"
#include "tar/write/SourceEntry.h"

namespace morvane {

namespace {

constexpr long long kAborted = -1;

class Counter {
 public:
  Counter(LiveSettings<WriteSettings> live, LogBase& log, ProgressMonitor* pm)
      : m_live(std::move(live)), m_log(log), m_pm(pm) {
    m_live.refresh();
  }

  long long total() const { return m_total; }
  bool gaveUp() const { return m_gaveUp; }

  void addFile(const StringBuffer& entry) {
    const SourceEntry source = parseSourceEntry(entry.str());
    if (!source.isClosed || excludes(source.localPath)) return;
    bool ok = true;
    const long long size = FileSys::fileSizeUtf8_64(source.localPath.c_str(), &m_quiet, ok);
    if (ok) m_total = saturatedSum(m_total, size);
  }

  // False when the application aborted.
  bool addTree(const DirRoot& root) {
    const std::unique_ptr<ClsDirTree> tree(ClsDirTree::createNewCls());
    m_gaveUp = !tree;
    if (m_gaveUp) return true;
    tree->put_BaseDir(XString(root.m_dirPath.str()));
    tree->put_Recurse(true);
    bool walking = tree->beginIterate(m_quiet);
    while (walking && !tree->get_DoneIterating()) {
      XString fullPath;
      tree->get_FullUncPath(fullPath);
      if (excludes(fullPath.str())) {
        if (m_pm && m_pm->abortCheck(m_log)) return false;
        m_live.refresh();
        if (m_live.now().options.countSkipsExcluded) walking = tree->advancePosition(m_quiet);
        continue;
      }
      if (!tree->get_IsDirectory()) {
        mvFileInfo info;
        const char* const path = fullPath.getUtf8();
        if (info.loadFileInfoAt(tree->currentDirectory(), tree->currentName(), path, m_quiet)) {
          m_total = saturatedSum(m_total, info.m_size);
        }
      }
      if (m_pm && m_pm->abortCheck(m_log)) return false;
      m_live.refresh();
      walking = tree->advancePosition(m_quiet);
    }
    return true;
  }

 private:
  bool excludes(const std::string& path) const { return m_live.now().filter.excludes(path); }

  LiveSettings<WriteSettings> m_live;
  LogBase& m_log;
  ProgressMonitor* const m_pm;
  LogNull m_quiet;  // what cannot be read is said when it is written
  long long m_total = 0;
  bool m_gaveUp = false;
};

}  // namespace

long long calcTotalProgressForWrite(const ExtPtrArraySb& files, const ExtPtrArray& dirRoots,
                                    LiveSettings<WriteSettings> live, LogBase& log, ProgressMonitor* pm) {
  LogContextExitor context(log, "calcTotalProgressForWrite");
  Counter counter(std::move(live), log, pm);
  for (int i = 0; i < dirRoots.getSize(); ++i) {
    const auto* const root = static_cast<const DirRoot*>(dirRoots.elementAt(i));
    if (root && !counter.addTree(*root)) return kAborted;
    if (counter.gaveUp()) return counter.total();
  }
  for (int i = 0; i < files.getSize(); ++i) {
    if (const StringBuffer* const entry = files.sbAt(i)) counter.addFile(*entry);
  }
  return counter.total();
}

}  // namespace morvane
