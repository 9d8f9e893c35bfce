// The same sources as the write will walk, by the same walk, so that percentages end at 100. Nothing is
// opened and no event is sent but the question whether to abort; what fails here is passed over in silence,
// because the write meets it again and says so.
#include "tar/write/ProgressTotal.h"

#include <algorithm>
#include <set>

#include "runtime/fs/mvFileInfo.h"
#include "runtime/log/LogContextExitor.h"
#include "runtime/log/LogNull.h"
#include "runtime/text/XString.h"
#include "tar/format/TarBlock.h"
#include "tar/write/SourceEntry.h"
#include "tar/write/SourceWalk.h"

namespace morvane {

namespace {

// No total is negative.
constexpr long long kAborted = -1;

// Filters and options are taken anew with each entry of a tree, as the write takes them.
class Counter {
 public:
  Counter(LiveSettings<WriteSettings> live, const Io& io) : m_live(std::move(live)), m_io(io) {
    m_live.refresh();
  }

  long long total() const { return m_total; }

  // A pair without its end fails in the write. The filter sees the local path, as it does there. Bytes in
  // memory have no holes and no other names. A file that is not there counts nothing: the write will say so.
  void addFile(const StringBuffer& entry) {
    const SourceEntry source = parseSourceEntry(entry);
    if (!source.isClosed || excludes(source.localPath)) return;
    if (source.file) {
      m_total = saturatedSum(m_total, source.file->m_bytes.getSize());
      return;
    }
    mvFileInfo info;
    const char* const path = source.localPath.c_str();
    const bool isThere = m_live.now().options.followLinks ? info.loadTargetInfoUtf8(path, m_quiet)
                                                          : info.loadFileInfoUtf8(path, m_quiet);
    if (isThere) m_total = saturatedSum(m_total, storedSize(info));
  }

  // False when the application aborted.
  bool addTree(const DirRoot& root) {
    SourceWalk walk;
    bool walking = walk.begin(root, m_live.now().options.followLinks, m_quiet);
    while (walking && !walk.isDone()) {
      const SourcePlace place = walk.place();
      const bool isExcluded = excludes(place.fullPath.str());
      mvFileInfo info;
      // Directories have no data; links are examined as what the write will store.
      if (!isExcluded && !walk.tree().get_IsDirectory() &&
          info.loadFileInfoAt(place.directory, place.name, place.fullPath.getUtf8(), m_quiet,
                              place.followsLinks)) {
        // Sums saturate: a sparse file may claim any size.
        m_total = saturatedSum(m_total, storedSize(info));
      }
      // With each entry: counting a large tree takes its time.
      if (m_io.monitor && m_io.monitor->abortCheck(m_io.log)) return false;
      m_live.refresh();
      // Without the word the same entry is looked at again until the application aborts (see the header); the
      // question above is what ends it.
      if (isExcluded && !m_live.now().options.countSkipsExcluded) continue;
      walking = walk.advance(m_quiet);
    }
    return true;
  }

 private:
  // What of a file goes into the archive: a file that is there under another name does not, nor do holes
  // where they can be told (MemberSource::takeHoles). A first name counts where it is met first, which need
  // not be where the write meets it: the sum is the same.
  long long storedSize(const mvFileInfo& info) {
    const WriteSettings& settings = m_live.now();
    const KeptParts& parts = settings.options.store;
    const bool leavesHoles =
        parts.sparse && settings.options.reproducible < 0 && settings.format != WriteFormat::Ustar;
    if (parts.link && info.m_linkCount > 1 && !m_counted.insert({info.m_device, info.m_inode}).second)
      return 0;
    return leavesHoles ? std::min(info.m_size, info.m_storedSize) : info.m_size;
  }

  bool excludes(const std::string& path) const { return m_live.now().filter.excludes(path); }

  LiveSettings<WriteSettings> m_live;
  const Io& m_io;
  LogNull m_quiet;  // what cannot be read is said when it is written
  std::set<std::pair<unsigned long long, unsigned long long>> m_counted;  // files of several names
  long long m_total = 0;
};

}  // namespace

// Trees before files, the other way round than the write: a sum has no order. An application that aborts in a
// tree ends the count; files take no time worth a question.
long long calcTotalProgressForWrite(const ExtPtrArraySb& files, const ExtPtrArray& dirRoots,
                                    LiveSettings<WriteSettings> live, const Io& io) {
  LogContextExitor context(io.log, "calcTotalProgressForWrite");
  Counter counter(std::move(live), io);
  for (int i = 0; i < dirRoots.getSize(); ++i) {
    const auto* const root = static_cast<const DirRoot*>(dirRoots.elementAt(i));
    if (root && !counter.addTree(*root)) return kAborted;
  }
  for (int i = 0; i < files.getSize(); ++i) {
    if (const StringBuffer* const entry = files.sbAt(i)) counter.addFile(*entry);
  }
  return counter.total();
}

}  // namespace morvane
