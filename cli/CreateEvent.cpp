// Selection goes by the path in the archive before it is changed, which is what the user sees in a listing,
// and by the path as it was given; the component's own filter would go by the local one.
#include "cli/CreateEvent.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "cli/ArchiveName.h"
#include "cli/Dates.h"
#include "cli/Interrupt.h"
#include "cli/MemberKind.h"
#include "cli/Names.h"
#include "cli/ReadArchive.h"
#include "runtime/progress/TarMember.h"

namespace mvtar {

namespace {

constexpr char kCacheTag[] = "CACHEDIR.TAG";

// Of a local path by its text alone: with a slash at its end a path would be its own parent.
std::string parentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::string_view lastPartOf(const std::string& path) {
  return std::string_view(path).substr(path.rfind('/') + 1);
}

// As the Cache Directory Tagging Specification (https://bford.info/cachedir/) has it: the file begins with
// these bytes; its name alone does not make a cache. The tag is read without waiting, because a FIFO may bear
// that name.
bool isTaggedAsCache(const std::string& dir) {
  constexpr std::string_view kSignature = "Signature: 8a477f597d28d172789f06886806bc55";
  const int fd = open((dir + "/" + kCacheTag).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return false;
  char start[kSignature.size()];
  const ssize_t got = read(fd, start, sizeof start);
  close(fd);
  return got == static_cast<ssize_t>(sizeof start) && std::string_view(start, sizeof start) == kSignature;
}

}  // namespace

CreateEvent::CreateEvent(Report& report, ProgressBar& bar, morvane::ClsTar& tar, CommandLine& line,
                         const Sources& sources, const NewestCopies& newest)
    : m_report(report),
      m_bar(bar),
      m_tar(tar),
      m_line(line),
      m_sources(sources),
      m_newest(newest),
      m_excluded({}, {}, line.excludes),
      m_selection({}, line.matches, line.excludes),
      m_removals(line.removesFiles, line.keeping.followsLinks) {}

// A signal only sets a flag; the component asks for it between pieces.
void CreateEvent::onAbortCheck(bool& abort) { abort = isInterrupted(); }

// The first word of the next member, also of one that is going to be skipped.
void CreateEvent::onTarEntry(const char*, long long, bool, bool&) {
  settle();
  m_isArchiveBegun = true;
}

// What is excluded takes all below it along; what merely does not match may have members below that do. A
// path that ustar cannot hold is told here, with the others of its kind, instead of ending the archive.
void CreateEvent::onTarMember(morvane::TarMember& member) {
  // Kept also for a member that is left out: the component may go on to tell that it cannot be read.
  m_localPath = member.localPath;
  member.skip = !isWanted(member);
  member.skipBelow = m_nothingBelow || isOnOtherFileSystem(member);
  if (member.skip) return;
  const bool isChanged = !m_line.changes.transform.isEmpty();
  // Behind the selection, which goes by the name before. Options that change nothing are spared the copies of
  // the names.
  if (m_line.changes.anyWhenWriting()) m_line.changes.applyWriting(member);
  if (isChanged) makeNameSafe(member);
  m_isDirectory = member.typeFlag == kDirectory;
  // The component adds the slash later, and it counts.
  const std::string stored = m_isDirectory ? member.path + "/" : member.path;
  m_hasBackSlash = stored.find('\\') != std::string::npos;
  // All three are told here, because the component would not: it takes an empty name for a wish to skip the
  // member in silence, and ends the whole archive at a path that ustar cannot hold. A name over kLongest was
  // not changed to its end.
  const char* const refusal =
      member.path.empty()                                       ? "its name becomes empty"
      : isChanged && stored.size() > NameTransform::kLongest    ? "its name becomes too long"
      : m_line.formatToWrite() == "ustar" && !fitsUstar(stored) ? "its name is too long for the ustar format"
                                                                : nullptr;
  if (refusal) {
    m_report.problem(member.localPath, refusal);
    member.skip = true;
    return;
  }
  m_removals.begin(member);
  m_isBegun = true;
  m_size = member.size;
}

// A name that --transform made goes by the same rules as one that was given: without -P nothing absolute and
// no ".." gets into an archive. Every member of a tree may lose the same beginning, so that it is named once
// for as long as it is the same.
void CreateEvent::makeNameSafe(morvane::TarMember& member) {
  const ArchiveName stored = archiveNameOf(member.path, m_line.keepNames);
  if (!stored.removed.empty() && stored.removed != m_lastRemoved) {
    m_report.notice(member.path, "leading '" + shown(stored.removed) + "' is left off");
    m_lastRemoved = stored.removed;
  }
  member.path = stored.name;
}

// The given path differs from the archive's where a prefix or a -C is at work, and a pattern may mean either;
// it is only looked for when there are patterns. What leaves out all below is asked before what leaves out
// the member alone, so that m_nothingBelow is right in either case.
bool CreateEvent::isWanted(const morvane::TarMember& member) {
  struct stat status;
  if (m_archive && lstat(member.localPath.c_str(), &status) == 0 && status.st_dev == m_archive->st_dev &&
      status.st_ino == m_archive->st_ino)
    return false;
  const bool byGivenPath = !m_line.excludes.empty() || !m_line.matches.empty();
  const std::string given = byGivenPath ? m_sources.givenPath(member.localPath, member.path) : member.path;
  // The count goes by members that are whole, and onTarEntry has settled the one before this.
  m_nothingBelow = isExcluded(member.path, given) || (m_line.maxCount > 0 && m_members >= m_line.maxCount) ||
                   (m_line.excludesCaches && isInCache(member.localPath));
  if (m_nothingBelow || isTooOld(member)) return false;
  return m_selection.takes(member.path) || (given != member.path && m_selection.takes(given));
}

bool CreateEvent::isExcluded(const std::string& path, const std::string& given) const {
  return m_excluded.excludes(path) || (given != path && m_excluded.excludes(given));
}

// Directories are always taken where something newer is looked for, because it may be below them; those that
// the archive has are not put into it again by -u. A time of the archive has a fraction only where its form
// keeps one: the source's own is then left out, or nearly every file would be newer than its copy.
bool CreateEvent::isTooOld(const morvane::TarMember& member) const {
  const timespec modified{static_cast<time_t>(member.mtime), static_cast<long>(member.mtimeNanoseconds)};
  // The archive has the names that --transform made.
  const std::string name = m_line.changes.transform.apply(member.path, NameTransform::Of::Name);
  if (const auto copy = m_newest.find(std::string(comparablePath(name))); copy != m_newest.end()) {
    timespec own = modified;
    if (copy->second.tv_nsec == 0) own.tv_nsec = 0;
    if (member.typeFlag == kDirectory || !isEarlier(copy->second, own)) return true;
  }
  if (!m_line.newerThan || member.typeFlag == kDirectory || !isEarlier(modified, *m_line.newerThan))
    return false;
  struct stat status;
  // --newer also counts a change of the inode (owner, mode, another name), which a backup must not miss.
  const bool isChanged = !m_line.newerByData && lstat(member.localPath.c_str(), &status) == 0 &&
                         !isEarlier(status.st_ctim, *m_line.newerThan);
  return !isChanged;
}

// Of a cache the directory and its tag are kept. Operands are what the user named, wherever they are. Members
// of one directory mostly come one behind the other, so that the last answer saves a look at the disk for
// each.
bool CreateEvent::isInCache(const std::string& localPath) {
  if (m_sources.isOperand(localPath)) return false;
  const std::string parent = parentOf(localPath);
  if (parent != m_lastParent) {
    m_lastParent = parent;
    m_lastParentIsCache = isTaggedAsCache(parent);
  }
  return m_lastParentIsCache && lastPartOf(localPath) != kCacheTag;
}

// The directory that something is mounted on is a member, as it is for other tars; what is mounted is not.
// Both are looked at through links: an operand's parent may be one, and with -h a member is what its link
// leads to.
bool CreateEvent::isOnOtherFileSystem(const morvane::TarMember& member) const {
  if (!m_line.staysOnFileSystem || member.typeFlag != kDirectory || m_sources.isOperand(member.localPath))
    return false;
  struct stat own, parent;
  return stat(member.localPath.c_str(), &own) == 0 &&
         stat(parentOf(member.localPath).c_str(), &parent) == 0 && own.st_dev != parent.st_dev;
}

// The component's names of what happened. Each is a problem and makes the exit status 2, but for a socket,
// which no tar keeps, and for the name of a member. What has a problem is not removed.
void CreateEvent::onInfo(const char* name, const char* value) {
  const std::string_view what(name);
  // The component's own name for it; with -v that is what is shown.
  if (what == "pathInTar") {
    m_name = value;
  } else if (what == "unreadable") {
    noteUnreadable(value);
  } else if (what == "sizeChanged") {
    m_removals.drop(value);
    m_report.problem(value, "its size changed while it was archived");
  } else if (what == "readFailed") {
    m_removals.drop(value);
    m_report.problem(value, failureReason(m_tar));
  } else if (what == "unstorable") {
    m_isBegun = false;
    m_report.problem(value, failureReason(m_tar));
  } else if (what == "attributesNotStored") {
    m_removals.dropAll();  // it is told of the first alone
    m_report.problem(value, "attributes can be stored in the pax format alone");
  } else if (what == "allAttributesNotStored") {
    m_report.problem(m_line.archive, std::string(value) + " members without attributes");
  } else if (what == "socket") {
    m_report.notice(value, "a socket is left out");
  } else if (what == "userUnknown") {
    m_report.problem("user database", std::string(value) + "; owners are stored by number alone");
  }
}

void CreateEvent::settle() {
  if (!m_isBegun) return;
  m_isBegun = false;
  ++m_members;
  m_bytes += m_size;
  m_removals.settle();
  // On this system a back slash is a letter of a name; the component stores a slash.
  if (m_hasBackSlash || m_name.find('\\') != std::string::npos) {
    m_removals.drop(m_localPath);
    m_report.problem(m_name, "a back slash cannot be stored; it becomes a slash");
  }
  if (m_line.verbose) m_report.name(m_isDirectory && m_name.back() != '/' ? m_name + "/" : m_name);
}

// Of a directory that is skipped, what may lie below is missed. The path is the member's own, or a
// directory's that was written before and cannot be walked into.
void CreateEvent::noteUnreadable(const std::string& path) {
  // A tree whose root cannot be read, or a directory on the way back up.
  if (path != m_localPath) {
    settle();
  } else if (m_nothingBelow) {
    m_unwantedMissed = true;
    return;
  }
  // What cannot even be looked at is offered to nobody before.
  if (isExcluded(m_sources.archivePath(path), m_sources.givenPath(path))) {
    m_unwantedMissed = true;
    return;
  }
  m_isBegun = false;
  if (m_unreadable.insert(path).second) m_report.problem(path, failureReason(m_tar));
}

// By the component's own rule, so that both agree. One byte more than the prefix's field is let pass, as it
// is the slash between prefix and name; a prefix that is nothing else would be lost. What is too long to be
// split the component would put into a GNU record, which is no ustar.
bool CreateEvent::fitsUstar(const std::string& name) const {
  constexpr size_t kName = 100, kPrefix = 155;
  if (name.size() <= kName) return true;
  morvane::LogNull unwanted;
  morvane::XString last, prefix;
  return m_tar.splitPathForTar(name, last, prefix, unwanted) && prefix.str().size() <= kPrefix + 1 &&
         prefix.str() != "/";
}

}  // namespace mvtar
