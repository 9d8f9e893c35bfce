// The order of a member's steps: filter, examine, events, description, event, checks, header, data. A
// callback may set properties at any of them and what it sets holds from the next on. Once a header is out
// its size is a promise, which with WriteExactSizes is kept whatever happens to the source then.
#include "tar/write/ArchiveWriter.h"

#include "runtime/base/ScopeExit.h"
#include "runtime/fs/FileSys.h"
#include "runtime/fs/_mvFilePath.h"
#include "runtime/io/OutputFile.h"
#include "runtime/log/LogContextExitor.h"
#include "tar/format/ShownMember.h"
#include "tar/write/SourceEntry.h"
#include "tar/write/SourceWalk.h"

namespace morvane {

namespace {

// A place that is a path alone, on the disk.
SourcePlace placeOf(const XString& fullPath, bool followsLinks = false) {
  return {fullPath, -1, nullptr, false, nullptr, followsLinks};
}

}  // namespace

// Only a regular file can be met again as a source; a pipe's numbers tell nothing.
void ArchiveWriter::leaveOut(const mvFileInfo& archive) {
  m_hasArchive = archive.m_isRegularFile;
  m_archive = archive;
}

// Lists are owned by the component and do not change during the write, since methods that would change them
// are refused in callbacks. The number of members without their attributes is told only if it says more than
// the first line did.
bool ArchiveWriter::writeTarToOutput(const ExtPtrArraySb& files, const ExtPtrArray& dirRoots,
                                     XString& curDirRootPath) {
  LogContextExitor context(m_log, "writeTarToOutput");
  for (int i = 0; i < files.getSize(); ++i) {
    const StringBuffer* const entry = files.sbAt(i);
    if (entry && !writeSingleFile(parseSourceEntry(*entry))) return false;
  }
  for (int i = 0; i < dirRoots.getSize(); ++i) {
    const auto* const root = static_cast<const DirRoot*>(dirRoots.elementAt(i));
    if (root && !writeTree(*root, curDirRootPath)) return false;
  }
  if (m_withoutAttributes > 1) {
    m_run.io.inform("allAttributesNotStored", std::to_string(m_withoutAttributes).c_str());
  }
  return writeEndOfArchive();
}

// POSIX's two blocks of zeros, and no filling up to a tape's record; the last block takes the encoder's end
// with it.
bool ArchiveWriter::writeEndOfArchive() {
  static constexpr unsigned char kZeroBlock[kBlockSize] = {};
  if (!m_run.put(kZeroBlock, kBlockSize)) return false;
  // The next piece is the last that the encoder gets.
  m_run.archive.m_compressLast = true;
  return m_run.put(kZeroBlock, kBlockSize);
}

// What is wrong with a stored pair shows only here, because adding a file does not look at it.
bool ArchiveWriter::writeSingleFile(const SourceEntry& entry) {
  if (!entry.isClosed) return m_run.io.fail("Did not find closing ESC char.");
  XString pathInTar;
  if (entry.isPair) {
    if (entry.pathInTar.empty()) return m_run.io.fail("pathInTar is empty.");
    pathInTar = entry.pathInTar;  // DirPrefix is not put in front of a path the application chose
  } else {
    _mvFilePath::GetFinalFilenamePart(XString(entry.localPath), pathInTar);
    const XString& prefix = m_run.settings.dirPrefix;
    if (!prefix.isEmpty()) prependPart(prefix.str(), pathInTar);
  }
  const XString fullPath(entry.localPath);
  SourcePlace place = placeOf(fullPath, m_run.settings.options.followLinks);
  // Then nothing is asked of the path.
  place.memory = entry.file;
  if (!writeMember(place, pathInTar, nullptr)) return memberFailed(fullPath, pathInTar);
  if (isAborted()) return false;
  m_live.refresh();
  return true;
}

// A walk that breaks off is the end of this tree; with SkipUnreadable the trees behind it are still written.
// The walk and the workers beside it are local, so that every way out of the tree joins the workers before
// the directories are closed.
bool ArchiveWriter::writeTree(const DirRoot& root, XString& curDirRootPath) {
  LogContextExitor context(m_log, "NextDirRoot", m_log.verbose());
  curDirRootPath.setFromSbUtf8(root.m_dirPath);
  if (m_log.verbose()) {
    m_log.LogDataX("dirRoot", curDirRootPath);
    XString currentDir;
    FileSys::getCurrentDir(currentDir);
    m_log.LogDataX("currentWorkingDir", currentDir);
  }
  SourceWalk walk;
  if (!walk.begin(root, m_run.settings.options.followLinks, m_log))
    return goesOnWithout(placeOf(curDirRootPath));
  XString pathInTar;
  // Behind the walk, whose open directories it uses.
  const std::unique_ptr<ReadAhead> ahead = makeReadAhead();
  const ScopeExit forget([this] { m_found = nullptr; });
  while (!walk.isDone()) {
    if (ahead) {
      m_found = ahead->enter(walk.tree());
      ahead->lookAhead(walk.tree());
    }
    const SourcePlace place = walk.place();
    walk.nameMember(m_run.settings.dirPrefix, pathInTar);
    if (m_log.verbose()) m_log.LogDataX("fullPath", place.fullPath);
    if (!writeMember(place, pathInTar, &walk.tree())) return memberFailed(place.fullPath, pathInTar);
    if (isAborted()) return false;
    m_live.refresh();
    passByIfUnreadable(place, walk.tree());
    if (!walk.advance(m_log)) {
      return goesOnWithout(placeOf(XString(walk.tree().failedPath())));
    }
  }
  return true;
}

// False, for the caller to return. The reason stands above these lines, where it arose.
bool ArchiveWriter::memberFailed(const XString& fullPath, const XString& pathInTar) {
  m_log.LogError("Failed to write file to output.");
  m_log.LogDataX("fullFilePath", fullPath);
  m_log.LogDataX("relFilePath", pathInTar);
  return false;
}

// Asked behind each member. A monitor that has said yes is not asked again, and says so at once.
bool ArchiveWriter::isAborted() {
  if (!m_run.io.monitor || !m_run.io.monitor->abortCheck(m_log)) return false;
  m_log.LogError("Write TAR to output aborted by application.");
  return true;
}

// The step of the public interface, for a file or a directory by itself.
bool ArchiveWriter::writeFileToOutput(const XString& fullPath, XString& pathInTar) {
  return writeMember(placeOf(fullPath, m_run.settings.options.followLinks), pathInTar, nullptr);
}

// `tree` is the walk that stands on the member, null for a single file. True also for a member that was left
// out on purpose. What is found unreadable with SkipUnreadable is left out before its header is written;
// behind that it is too late.
bool ArchiveWriter::writeMember(const SourcePlace& place, XString& pathInTar, ClsDirTree* tree) {
  LogContextExitor context(m_log, "writeFileToOutput");
  if (m_run.settings.filter.excludes(place.fullPath.str())) {
    if (m_log.verbose()) m_log.LogDataX("excludedByMatch", place.fullPath);
    return true;
  }
  mvFileInfo info;
  if (!examine(place, info)) {
    if (m_log.verbose()) m_log.LogDataX("loadFileInfoFailed", place.fullPath);
    // A directory that cannot be examined cannot be entered either.
    if (tree) tree->passBy();
    return goesOnWithout(place);
  }
  if (isArchiveItself(place, info) || isSocketLeftOut(place, info)) return true;
  if (isSkippedByEvent(place, info, pathInTar)) return true;
  if (m_run.io.monitor && m_run.settings.abortCheckMs != 0 && m_run.io.monitor->abortCheck(m_log)) {
    return m_run.io.fail("TAR aborted by application. (2)");
  }
  m_live.refresh();
  if (!m_describer.describe(place, info, m_run.settings, m_source, pathInTar, m_member, m_run.io)) {
    return goesOnWithout(place);
  }
  if (isSkippedBeingChanged(place, info, pathInTar, tree)) return true;
  if (m_run.settings.options.skipUnreadable && !canBeRead(place, info, tree)) return goesOnWithout(place);
  // Behind the last event that may change the member: it refers to m_member, which stays as it is from here
  // on.
  const MemberEncoding encoding = m_writer.encode(m_member);
  if (isLeftOutByFormat(place, encoding)) return true;
  noteLostAttributes(place);
  if (!m_writer.writeHeader(m_member, encoding)) return m_run.io.fail("Failed to write TAR header.");
  if (m_log.verbose()) {
    m_log.LogDataInt64("fileSize", info.m_size);
    m_log.LogDataInt64("isSymbolicLink", info.m_isSymbolicLink);
    m_log.LogDataInt64("isDirectory", info.m_isDirectory);
  }
  // A special file that is stored as itself has size 0 and no data to copy.
  const bool hasData = !info.m_isDirectory && !info.m_isSymbolicLink && !m_member.isHardLink();
  m_dataAreWhole = true;
  if (hasData && !writeData(place, info)) return false;
  // Only now: a member that failed is no target for links. Its other name may still be read whole.
  if (m_dataAreWhole) m_describer.noteWritten(info, m_run.settings, m_member);
  return true;
}

// Bytes from memory have no file: what they are is filled in, the rest stays at its defaults.
bool ArchiveWriter::examine(const SourcePlace& place, mvFileInfo& info) {
  if (place.memory) {
    info.m_isRegularFile = true;
    info.m_size = place.memory->m_bytes.getSize();
    info.m_lastModified = place.memory->m_added;
    return true;
  }
  // What a worker found was found before the event and is of no use where that must come first.
  const bool mayOpen = mayOpenEarly();
  // Of the archive itself the look was ahead of what has been written since.
  if (mayOpen && m_found && !isArchive(m_found->info)) {
    m_source.take(*m_found, info);
    return true;
  }
  if (!m_source.examine(place, mayOpen, info, m_log)) return false;
  const bool isGrowing = isArchive(info) && !m_run.settings.options.skipOutputFile;
  OutputFile* const plain = isGrowing ? m_run.archive.plainFile() : nullptr;
  if (!plain) return true;
  // What a worker still writes must not come behind the size that is told. A failure of that has a line now,
  // and makes the next write fail.
  (void)plain->endBehind(m_log);
  return m_source.examine(place, mayOpen, info, m_log);
}

// By device and inode, since the archive may be met under any name.
bool ArchiveWriter::isArchive(const mvFileInfo& info) const {
  return m_hasArchive && info.isSameFile(m_archive);
}

// What a callback does to the file's name still counts, unless it was said to do nothing.
bool ArchiveWriter::mayOpenEarly() const { return !m_run.io.event || m_run.settings.options.openBeforeEvent; }

// Patterns are tested in the turn of a member; until then what they leave out would be opened for nothing. A
// walk that follows links is left alone, as it has rules of its own about what it may enter twice.
std::unique_ptr<ReadAhead> ArchiveWriter::makeReadAhead() const {
  const TarOptions& options = m_run.settings.options;
  const unsigned workers = workerCount(options.codec.threads);
  const bool mayLook =
      workers > 0 && mayOpenEarly() && !options.followLinks && !m_run.settings.filter.isSet();
  return mayLook ? std::make_unique<ReadAhead>(workers) : nullptr;
}

// Without the word it archives itself as far as it has come, as it always did.
bool ArchiveWriter::isArchiveItself(const SourcePlace& place, const mvFileInfo& info) {
  if (!m_run.settings.options.skipOutputFile || !isArchive(info)) return false;
  m_log.LogInfo("The archive is not put into itself.");
  m_log.LogDataX("fullPath", place.fullPath);
  return true;
}

// Of a socket there is nothing that could be kept. Without Store=special it is archived as an empty file,
// like everything that is none.
bool ArchiveWriter::isSocketLeftOut(const SourcePlace& place, const mvFileInfo& info) {
  if (!m_run.settings.options.store.special || !info.m_isSocket) return false;
  m_log.LogInfo("A socket is not archived.");
  m_log.LogDataX("fullPath", place.fullPath);
  m_run.io.inform("socket", place.fullPath.getUtf8());
  return true;
}

// What the format would store wrongly is not stored. Where the run goes on without what cannot be read it
// does so without this, too. Only ustar has bounds that records cannot lift, and an event may leave what no
// format holds. A path that is too long stays a
// failure of the write: leaving the member out has never been asked for it.
bool ArchiveWriter::isLeftOutByFormat(const SourcePlace& place, const MemberEncoding& encoding) {
  const char* const refusal = encoding.refusal;
  if (!refusal || encoding.pathIsRefused || !m_run.settings.options.skipUnreadable) return false;
  m_anythingLost = true;
  m_log.LogNotice(refusal);
  m_log.LogDataX("fullPath", place.fullPath);
  // For the time of the event alone: a callback may ask why.
  m_log.noteCause(refusal, "", "");
  m_run.io.inform("unstorable", place.fullPath.getUtf8());
  m_log.forgetCause();
  return true;
}

// Said once, with the first member; how many there were is told at the end.
void ArchiveWriter::noteLostAttributes(const SourcePlace& place) {
  const bool hasSome =
      !m_member.attributes.empty() || !m_member.accessList.empty() || !m_member.defaultAccessList.empty();
  if (!hasSome || m_run.settings.format == WriteFormat::Pax) return;
  m_anythingLost = true;
  if (++m_withoutAttributes > 1) return;
  m_log.LogNotice("Only the pax format can hold attributes.");
  m_log.LogDataX("fullPath", place.fullPath);
  m_run.io.inform("attributesNotStored", place.fullPath.getUtf8());
}

// The event comes before the file is opened, unless OpenBeforeEvent lets it come behind: an application may
// still create or change the file in it. The path in the archive goes by an event of its own, behind the one
// that may skip the member.
bool ArchiveWriter::isSkippedByEvent(const SourcePlace& place, const mvFileInfo& info,
                                     const XString& pathInTar) {
  ProgressEvent* const event = m_run.io.event;
  if (!event) return false;
  bool skip = false;
  event->onTarEntry(place.fullPath.getUtf8(), info.m_size, info.m_isDirectory, skip);
  m_live.refresh();
  if (skip) {
    if (m_log.verbose()) m_log.LogDataX("skippingFile", place.fullPath);
    return true;
  }
  m_run.io.inform("pathInTar", pathInTar.getUtf8());
  m_live.refresh();
  return false;
}

// Sends onTarMember, and takes what it left for what is written. The caller's path follows, because the lines
// of a failure name it.
bool ArchiveWriter::isSkippedBeingChanged(const SourcePlace& place, const mvFileInfo& info,
                                          XString& pathInTar, ClsDirTree* tree) {
  if (!m_run.io.event || !m_run.settings.options.memberEvents) return false;
  m_shown.writing = true;
  m_shown.localPath = place.memory ? std::string() : place.fullPath.str();
  m_shown.source = place.memory ? nullptr : &info;
  showMember(m_member, m_member.path, m_shown);
  m_run.io.event->onTarMember(m_shown);
  m_live.refresh();
  // Also when the directory itself is archived.
  if (m_shown.skipBelow && tree && tree->get_IsDirectory()) tree->passBy();
  if (m_shown.skip || m_shown.path.empty()) {
    if (m_log.verbose()) m_log.LogDataX("skippingFile", place.fullPath);
    return true;
  }
  takeShown(m_shown, m_member);
  pathInTar = m_shown.path;
  pathInTar.replaceAllOccurancesUtf8("\\", "/", false);
  // Only a directory's name ends in a slash; readers would take a file's for one.
  pathInTar.buffer().erase(pathInTar.str().find_last_not_of('/') + 1);
  if (pathInTar.isEmpty()) return true;
  normalisePath(pathInTar, m_member.isDirectory);
  m_member.path = pathInTar.str();
  return false;
}

// Whether the member's data, or a directory's names, can be read at all; the reason why not is in the log.
// Opening a file tells most of it; reading the first bytes finds what a network or a broken disk tells only
// then. They are not read twice: the source keeps them.
bool ArchiveWriter::canBeRead(const SourcePlace& place, const mvFileInfo& info, ClsDirTree* tree) {
  if (info.m_isSymbolicLink || place.memory || m_member.isHardLink()) return true;
  // The walk goes by what it found; it enters nothing that has become a directory since, nor what the event
  // wants nothing of.
  if (info.m_isDirectory && tree) {
    return !tree->get_IsDirectory() || tree->isPrepared() || tree->prepareToEnter(m_log);
  }
  if (!info.m_isRegularFile && !info.m_isDirectory) return true;
  return m_source.open(place, info, m_log) && (info.m_size == 0 || m_source.readFirst(m_log));
}

// With SkipUnreadable: a directory that was left out by the filter or the event may still hold members. One
// that was to be archived has been looked at before its header was written. Otherwise the walk itself would
// end at it.
void ArchiveWriter::passByIfUnreadable(const SourcePlace& place, ClsDirTree& tree) {
  if (!m_run.settings.options.skipUnreadable || !tree.get_IsDirectory() || tree.isPrepared()) return;
  if (!tree.prepareToEnter(m_log)) reportUnreadable(place);
}

// Only with SkipUnreadable; otherwise the reason in the log ends the run.
bool ArchiveWriter::goesOnWithout(const SourcePlace& place) {
  if (!m_run.settings.options.skipUnreadable) return false;
  reportUnreadable(place);
  return true;
}

// That something is missing is in anythingLost().
void ArchiveWriter::reportUnreadable(const SourcePlace& place) {
  m_anythingLost = true;
  m_log.LogInfo("It cannot be read and is left out.");
  m_log.LogDataX("fullPath", place.fullPath);
  m_run.io.inform("unreadable", place.fullPath.getUtf8());
  m_log.forgetCause();  // until here it says why; the job goes on
}

}  // namespace morvane
