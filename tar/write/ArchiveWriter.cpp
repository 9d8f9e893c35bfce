#include "tar/write/ArchiveWriter.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <new>

#include "runtime/base/ByteArrayOwner.h"
#include "runtime/fs/ClsDirTree.h"
#include "runtime/fs/FileSys.h"
#include "runtime/fs/_mvFilePath.h"
#include "runtime/io/OutputFile.h"
#include "runtime/log/LogContextExitor.h"
#include "runtime/log/LogNull.h"
#include "tar/format/TarBlock.h"
#include "tar/write/DirRoot.h"
#include "tar/write/MemberHeader.h"
#include "tar/write/SourceEntry.h"

namespace morvane {

namespace {

constexpr unsigned kPieceSize = 20000;
constexpr unsigned kMostEmptyReads = 1000;  // in a row
constexpr long long kToTheEnd = std::numeric_limits<long long>::max();

void prependPart(const std::string& part, XString& path) { path.buffer().insert(0, part + "/"); }

}  // namespace

void ArchiveWriter::leaveOut(const mvFileInfo& archive) {
  m_hasArchive = archive.m_isRegularFile;
  m_archive = archive;
}

bool ArchiveWriter::writeTarToOutput(const ExtPtrArraySb& files, const ExtPtrArray& dirRoots,
                                     XString& curDirRootPath) {
  LogContextExitor context(m_log, "writeTarToOutput");
  for (int i = 0; i < files.getSize(); ++i) {
    const StringBuffer* const entry = files.sbAt(i);
    if (entry && !writeSingleFile(parseSourceEntry(entry->str()))) return false;
  }
  for (int i = 0; i < dirRoots.getSize(); ++i) {
    const auto* const root = static_cast<const DirRoot*>(dirRoots.elementAt(i));
    if (root && !writeTree(*root, curDirRootPath)) return false;
  }
  return writeEndOfArchive();
}

bool ArchiveWriter::writeEndOfArchive() {
  static constexpr unsigned char kZeroBlock[kBlockSize] = {};
  if (!m_run.put(kZeroBlock, kBlockSize)) return false;
  m_run.archive.m_compressLast = true;
  return m_run.put(kZeroBlock, kBlockSize);
}

bool ArchiveWriter::writeSingleFile(const SourceEntry& entry) {
  if (!entry.isClosed) {
    m_log.LogError("Did not find closing ESC char.");
    return false;
  }
  XString pathInTar;
  if (entry.isPair) {
    if (entry.pathInTar.empty()) {
      m_log.LogError("pathInTar is empty.");
      return false;
    }
    pathInTar = entry.pathInTar;  // DirPrefix is not put in front of a path the application chose
  } else {
    _mvFilePath::GetFinalFilenamePart(XString(entry.localPath), pathInTar);
    const XString& prefix = m_run.settings.dirPrefix;
    if (!prefix.isEmpty()) prependPart(prefix.str(), pathInTar);
  }
  const XString fullPath(entry.localPath);
  if (!writeFileToOutput(fullPath, pathInTar)) return memberFailed(fullPath, pathInTar);
  if (abortedAfterMember()) return false;
  m_live.refresh();
  return true;
}

bool ArchiveWriter::writeTree(const DirRoot& root, XString& curDirRootPath) {
  LogContextExitor context(m_log, "NextDirRoot", m_log.verbose());
  curDirRootPath.setFromSbUtf8(root.m_dirPath);
  const std::unique_ptr<ClsDirTree> tree(ClsDirTree::createNewCls());
  if (!tree) throw std::bad_alloc();
  if (m_log.verbose()) {
    m_log.LogDataX("dirRoot", curDirRootPath);
    XString currentDir;
    FileSys::getCurrentDir(currentDir);
    m_log.LogDataX("currentWorkingDir", currentDir);
  }
  tree->put_BaseDir(curDirRootPath);
  tree->put_Recurse(true);
  if (!tree->beginIterate(m_log)) {
    return m_run.settings.options.skipUnreadable &&
           leftOutUnreadable(SourcePlace{curDirRootPath, -1, nullptr, false});
  }
  XString fullPath, pathInTar;
  while (!tree->get_DoneIterating()) {
    tree->get_FullUncPath(fullPath);
    tree->get_RelativePath(pathInTar);
    if (m_log.verbose()) m_log.LogDataX("fullPath", fullPath);
    if (!root.m_pathPrefix.isEmpty()) prependPart(root.m_pathPrefix.str(), pathInTar);
    const XString& dirPrefix = m_run.settings.dirPrefix;
    if (!dirPrefix.isEmpty()) prependPart(dirPrefix.str(), pathInTar);
    const SourcePlace place{fullPath, tree->currentDirectory(), tree->currentName(), tree->isRegularFile()};
    if (!writeMember(place, pathInTar, tree.get())) return memberFailed(fullPath, pathInTar);
    if (abortedAfterMember()) return false;
    m_live.refresh();
    passByIfUnreadable(place, *tree);
    if (!tree->advancePosition(m_log)) {
      const XString lost(tree->failedPath());
      return m_run.settings.options.skipUnreadable &&
             leftOutUnreadable(SourcePlace{lost, -1, nullptr, false});
    }
  }
  return true;
}

bool ArchiveWriter::memberFailed(const XString& fullPath, const XString& pathInTar) {
  m_log.LogError("Failed to write file to output.");
  m_log.LogDataX("fullFilePath", fullPath);
  m_log.LogDataX("relFilePath", pathInTar);
  return false;
}

bool ArchiveWriter::abortedAfterMember() {
  if (!m_run.pm || !m_run.pm->abortCheck(m_log)) return false;
  m_log.LogError("Write TAR to output aborted by application.");
  return true;
}

bool ArchiveWriter::writeFileToOutput(const XString& fullPath, XString& pathInTar) {
  return writeMember(SourcePlace{fullPath, -1, nullptr, false}, pathInTar, nullptr);
}

// `tree` is the walk that stands on the member, null for a single file.
bool ArchiveWriter::writeMember(const SourcePlace& place, XString& pathInTar, ClsDirTree* tree) {
  LogContextExitor context(m_log, "writeFileToOutput");
  if (m_run.settings.filter.excludes(place.fullPath.str())) {
    if (m_log.verbose()) m_log.LogDataX("excludedByMatch", place.fullPath);
    return true;
  }
  mvFileInfo info;
  // What a callback does to the file's name still counts, unless it was said to do nothing.
  const bool mayOpen = !m_run.event || m_run.settings.options.openBeforeEvent;
  if (!m_source.examine(place, mayOpen, info, m_log)) {
    if (m_log.verbose()) m_log.LogDataX("loadFileInfoFailed", place.fullPath);
    if (tree) tree->passBy();
    return m_run.settings.options.skipUnreadable && leftOutUnreadable(place);
  }
  if (isArchiveItself(place, info)) return true;
  if (isSkippedByEvent(place, info, pathInTar)) return true;
  if (m_run.pm && m_run.settings.abortCheckMs != 0 && m_run.pm->abortCheck(m_log)) {
    m_log.LogError("TAR aborted by application. (2)");
    return false;
  }
  m_live.refresh();
  if (m_run.settings.options.skipUnreadable && !canBeRead(place, info, tree)) return leftOutUnreadable(place);
  if (!writeTarHeaderToOutput(m_run, pathInTar, info)) {
    m_log.LogError("Failed to write TAR header.");
    return false;
  }
  if (m_log.verbose()) {
    m_log.LogDataInt64("fileSize", info.m_size);
    m_log.LogDataInt64("isSymbolicLink", info.m_isSymbolicLink);
    m_log.LogDataInt64("isDirectory", info.m_isDirectory);
  }
  if (info.m_isDirectory || info.m_isSymbolicLink) return true;
  return m_run.settings.options.writeExactSizes ? writeExactData(place, info) : writeData(place, info);
}

bool ArchiveWriter::isArchiveItself(const SourcePlace& place, const mvFileInfo& info) {
  if (!m_run.settings.options.skipOutputFile || !m_hasArchive || !info.isSameFile(m_archive)) return false;
  m_log.LogInfo("The archive is not put into itself.");
  m_log.LogDataX("fullPath", place.fullPath);
  return true;
}

bool ArchiveWriter::isSkippedByEvent(const SourcePlace& place, const mvFileInfo& info,
                                     const XString& pathInTar) {
  if (!m_run.event) return false;
  bool skip = false;
  m_run.event->onTarEntry(place.fullPath.getUtf8(), info.m_size, info.m_isDirectory, skip);
  m_live.refresh();
  if (skip) {
    if (m_log.verbose()) m_log.LogDataX("skippingFile", place.fullPath);
    return true;
  }
  ProgressMonitor::pprogressInfo(*m_run.event, "pathInTar", pathInTar.getUtf8());
  m_live.refresh();
  return false;
}

// Whether the member's data, or a directory's names, can be read at all; the reason why not is in the log.
bool ArchiveWriter::canBeRead(const SourcePlace& place, const mvFileInfo& info, ClsDirTree* tree) {
  if (info.m_isSymbolicLink) return true;
  // The walk goes by what it found; it enters nothing that has become a directory since.
  if (info.m_isDirectory && tree) return !tree->get_IsDirectory() || tree->prepareToEnter(m_log);
  if (!info.m_isRegularFile && !info.m_isDirectory) return true;
  return m_source.open(place, info, m_log) && (info.m_size == 0 || m_source.readFirst(m_log));
}

// With SkipUnreadable: a directory that was left out by the filter or the event may still hold members. One
// that was to be archived has been looked at before its header was written.
bool ArchiveWriter::passByIfUnreadable(const SourcePlace& place, ClsDirTree& tree) {
  if (!m_run.settings.options.skipUnreadable || !tree.get_IsDirectory() || tree.isPrepared()) return true;
  return tree.prepareToEnter(m_log) || leftOutUnreadable(place);
}

bool ArchiveWriter::leftOutUnreadable(const SourcePlace& place) {
  m_anythingLost = true;
  m_log.LogInfo("It cannot be read and is left out.");
  m_log.LogDataX("fullPath", place.fullPath);
  if (m_run.event) ProgressMonitor::pprogressInfo(*m_run.event, "unreadable", place.fullPath.getUtf8());
  m_log.forgetCause();  // until here it says why; the job goes on
  return true;
}

bool ArchiveWriter::writeData(const SourcePlace& place, const mvFileInfo& info) {
  if (info.m_size == 0) return true;
  if (!m_source.open(place, info, m_log)) {
    m_log.LogError("Failed to open source file for TAR archive.");
    m_log.LogDataX("fullPath", place.fullPath);
    return false;
  }
  long long copied = 0;
  if (!copyFile(kToTheEnd, copied)) {
    m_log.LogError("Failed to copy file contents to TAR.");
    return false;
  }
  // By the size in the header, whatever was copied.
  const unsigned padding = paddingAfter(info.m_size);
  return padding == 0 || m_run.putZeros(padding);
}

// As many bytes as the header says, zeros where the file has fewer.
bool ArchiveWriter::writeExactData(const SourcePlace& place, const mvFileInfo& info) {
  m_readFailed = false;
  if (info.m_size == 0) {
    LogNull unwanted;  // one that cannot be opened has nothing that was to be archived
    const bool grown =
        info.m_isRegularFile && m_source.open(place, info, unwanted) && m_source.hasMoreThan(0);
    return !grown || reportSizeChanged(place, 0, std::max(m_source.sizeNow(), 1LL));
  }
  if (!m_source.open(place, info, m_log)) {
    m_log.LogError("Failed to open source file for TAR archive.");
    m_log.LogDataX("fullPath", place.fullPath);
    if (!m_run.settings.options.skipUnreadable) return false;
  }
  long long copied = 0;
  if (m_source.isOpen() && !copyFile(info.m_size, copied)) {
    m_log.LogError("Failed to copy file contents to TAR.");
    return false;
  }
  const bool readFailed = m_readFailed;
  if (readFailed) reportReadFailed(place);
  if (!m_run.putZeros(info.m_size - copied + paddingAfter(info.m_size))) return false;
  if (readFailed) return true;
  const bool shrunk = copied < info.m_size;
  const bool grown = !shrunk && m_source.hasMoreThan(info.m_size);
  return !(shrunk || grown) ||
         reportSizeChanged(place, info.m_size,
                           shrunk ? copied : std::max(m_source.sizeNow(), info.m_size + 1));
}

bool ArchiveWriter::reportSizeChanged(const SourcePlace& place, long long inHeader, long long now) {
  m_anythingLost = true;
  m_log.LogNotice("The file's size changed while it was archived.");
  m_log.LogDataX("fullPath", place.fullPath);
  m_log.LogDataInt64("sizeInHeader", inHeader);
  m_log.LogDataInt64("sizeRead", now);
  if (m_run.event) ProgressMonitor::pprogressInfo(*m_run.event, "sizeChanged", place.fullPath.getUtf8());
  return true;
}

// Until the event has been told, get_FailureCause says why.
void ArchiveWriter::reportReadFailed(const SourcePlace& place) {
  m_anythingLost = true;
  m_log.LogNotice("The file could not be read to its end.");
  m_log.LogDataX("fullPath", place.fullPath);
  if (m_run.event) ProgressMonitor::pprogressInfo(*m_run.event, "readFailed", place.fullPath.getUtf8());
  m_log.forgetCause();
}

bool ArchiveWriter::copySourceToOutput(_mvDataSource& source) {
  long long copied = 0;
  return copyPieces(source, kToTheEnd, copied);
}

// Copies up to `most` bytes of the open source file: read straight into the output's buffer, where it has
// one.
bool ArchiveWriter::copyFile(long long most, long long& copied) {
  m_readFailed = false;
  OutputFile* const file = m_run.archive.plainFile();
  while (file && copied < most && !m_source.data().endOfStream()) {
    unsigned room = 0, got = 0;
    char* const bytes = file->spareRoom(kPieceSize, room, m_run.pm, m_log);
    if (!bytes) break;
    const long long wanted = std::min<long long>(most - copied, room - room % kPieceSize);
    m_readFailed = !m_source.data().readOnce(bytes, static_cast<unsigned>(wanted), got, m_log);
    if (m_readFailed || got == 0) return true;
    copied += got;
    for (unsigned done = 0; done < got; done += kPieceSize) {
      if (!putDataPiece(bytes + done, std::min(got - done, kPieceSize))) return false;
    }
  }
  if (copied >= most || m_source.data().endOfStream()) return true;
  // A file that there is no memory to read is not one whose read failed.
  return m_source.data().makeWindow(m_log) && copyPieces(m_source.data(), most, copied);
}

// The same from any source. It is read without the monitor: an abort is for the output path to report, while
// a failed read merely ends the copy.
bool ArchiveWriter::copyPieces(_mvDataSource& source, long long most, long long& copied) {
  const bool lends = source.canLend();
  const ByteArrayOwner buffer(lends ? nullptr : mvNewChar(kPieceSize));
  if (!lends && !buffer.get()) return false;
  unsigned emptyReads = 0;
  while (copied < most && !source.endOfStream()) {
    const unsigned wanted = static_cast<unsigned>(std::min<long long>(most - copied, kPieceSize));
    const char* bytes = buffer.get();
    unsigned got = 0;
    const bool ok = lends ? source.lend(wanted, bytes, got, nullptr, m_log)
                          : source.read(buffer.get(), wanted, got, nullptr, m_log);
    m_readFailed = !ok;
    if (!ok) return true;
    // A read of nothing is no end, but a source that gives nothing else has none to wait for.
    emptyReads = got == 0 ? emptyReads + 1 : 0;
    if (emptyReads == kMostEmptyReads) {
      m_log.LogError("The source gives no more data and does not end.");
      return false;
    }
    if (got == 0) continue;
    copied += got;
    if (!putDataPiece(bytes, got)) return false;
  }
  return true;
}

bool ArchiveWriter::putDataPiece(const char* bytes, unsigned n) {
  if (m_run.pm) m_run.pm->consumeProgress(n, m_log);
  if (m_run.put(reinterpret_cast<const unsigned char*>(bytes), n)) return true;
  m_log.LogError("Failed to write file data to TAR output.");
  return false;
}

}  // namespace morvane
