// The placer's makings: what each kind of member becomes on the disk, and the end of it.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <climits>

#include "runtime/log/LogNull.h"
#include "tar/format/EntryPath.h"
#include "tar/place/MemberPlacer.h"
#include "tar/place/RunLimits.h"
#include "tar/place/SparseOutput.h"

namespace morvane {

namespace {

using Outcome = ExtractTarget::Outcome;

// Whether the text of a symbolic link, beside the member, may lead out of the target. ".." parts are judged
// only at the front: behind another part, which may be a link itself, nobody knows where they lead.
bool leadsOut(const std::string& path, std::string_view text) {
  if (!text.empty() && text.front() == '/') return true;
  long long depth = depthOf(cleanPath(path)) - 1;  // of the directory that the link is in
  bool atFront = true;
  while (!text.empty()) {
    const size_t end = std::min(text.find('/'), text.size());
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (part.empty() || part == ".") continue;
    if (part == ".." && (!atFront || --depth < 0)) return true;
    atFront = atFront && part == "..";
  }
  return false;
}

// The system has no link of no text, nor of one that no path could be.
bool canBeLinkText(const std::string& text) {
  return !text.empty() && text.size() < PATH_MAX && text.find('\0') == std::string::npos;
}

}  // namespace

Outcome MemberPlacer::make(const Member& member, const Io& io, Placed& placed) {
  if (restored().link && member.isSymbolicLink()) return makeSymbolicLink(member, io);
  if (restored().link && member.isHardLink()) return makeHardLink(member, io, placed);
  if (restored().special && member.isSpecial()) return makeSpecial(member, io);
  return member.isDirectory ? makeDirectory(member, io) : makeFile(member, io, placed);
}

Outcome MemberPlacer::makeDirectory(const Member& member, const Io& io) {
  if (settings().untarDiscardPaths && !m_manner.makesDiscardedDirectories) return Outcome::Ok;
  ConfinedDir::MadeDirectory made;
  const unsigned mode = restored().any() ? m_restorer.directoryModeToMake() : 0777;
  const Outcome outcome = m_target.makeDirectory(m_path, settings(), mode, made, io.log);
  if (outcome == Outcome::Ok && restored().any()) {
    m_restorer.noteParents(m_target.confined()->takeNewParents());
    m_restorer.noteDirectory(made, member, m_path.entryPath().str());
  }
  return outcome;
}

Outcome MemberPlacer::makeFile(const Member& member, const Io& io, Placed& placed) {
  if (member.sparseIsWrong) {
    io.fail("The map of a sparse member makes no sense.");
    return Outcome::Unusable;
  }
  const unsigned mode = restored().any() ? m_restorer.modeToMake(member, m_target.handsOnGroup()) : 0666;
  std::unique_ptr<OutputFile> file;
  const Outcome outcome =
      m_target.createFile(m_path, settings(), mode, m_manner.creatingFileTag, io.log, file);
  if (outcome != Outcome::Ok) return outcome;
  placed.file = file.get();
  placed.out = spreading(member, std::move(file), placed.file);
  return outcome;
}

std::unique_ptr<_mvOutput> MemberPlacer::spreading(const Member& member, std::unique_ptr<_mvOutput> out,
                                                   OutputFile* file) {
  if (!member.sparse.isSparse()) return out;
  return std::make_unique<SparseOutput>(std::move(out), file, member.sparse, member.size);
}

Outcome MemberPlacer::makeSymbolicLink(const Member& member, const Io& io) {
  const std::string& text = member.linkPath;
  const std::string& path = m_path.entryPath().str();
  const bool isUsable = canBeLinkText(text);
  const bool leads = settings().options.linksInside &&
                     (leadsOut(path, text) || m_target.passesLink(m_path, settings(), io.log));
  if (!isUsable || leads) {
    io.fail(isUsable ? "The symbolic link leads out of the target."
                     : "The symbolic link has no usable text.");
    return Outcome::Unusable;
  }
  OsFile made;
  const Outcome outcome = m_target.makeSymbolicLink(m_path, settings(), text, made, io.log);
  if (outcome == Outcome::Ok && made.isOpen()) m_restorer.settle(made.fd(), member, m_path.entryPath(), io);
  return outcome;
}

Outcome MemberPlacer::makeSpecial(const Member& member, const Io& io) {
  const unsigned type = member.typeFlag == kTypeFifo              ? S_IFIFO
                        : member.typeFlag == kTypeCharacterDevice ? S_IFCHR
                                                                  : S_IFBLK;
  constexpr unsigned kMostMajor = 0xFFF, kMostMinor = 0xFFFFF;  // what the system has
  if (member.isDevice() && (member.deviceMajor > kMostMajor || member.deviceMinor > kMostMinor)) {
    io.fail("The number of the device makes no sense.");
    return Outcome::Unusable;
  }
  const unsigned long long device = member.isDevice() ? makedev(member.deviceMajor, member.deviceMinor) : 0;
  OsFile made;
  const unsigned mode = restored().mode ? 0600 : 0666;
  const Outcome outcome = m_target.makeNode(m_path, settings(), type | mode, device, made, io.log);
  if (outcome == Outcome::Ok && made.isOpen()) m_restorer.settle(made.fd(), member, m_path.entryPath(), io);
  // Devices are the superuser's; that somebody else cannot make them is no reason to lose the rest.
  const bool mayNot = outcome == Outcome::NotCreated && m_target.lastError() == EPERM;
  return mayNot ? Outcome::Unusable : outcome;
}

// A link to what is not there yet waits until the end. One that has data of its own needs no target.
Outcome MemberPlacer::makeHardLink(const Member& member, const Io& io, Placed& placed) {
  const std::string stored = m_path.targetOf(member.linkPath, settings(), io.log);
  // What the event says of a link is meant as it says it.
  const std::string target = m_linkIsGiven ? stored : m_links.nameNow(stored);
  const std::string& path = m_path.entryPath().str();
  if (target.empty()) return Outcome::Refused;
  const bool mayLink = m_links.mayBeTarget(target);
  ConfinedDir::Linked linked = ConfinedDir::Linked::Missing;
  if (mayLink) {
    const Outcome outcome = m_target.makeHardLink(m_path, settings(), target, linked, io.log);
    if (outcome != Outcome::Ok) return outcome;
  }
  if (linked == ConfinedDir::Linked::Ok) return Outcome::Ok;
  if (linked == ConfinedDir::Linked::CannotLink) return copyTarget(member, target, io);
  if (member.size > 0) return makeFile(member, io, placed);
  if (!mayLink) {
    io.fail("The target of a hard link was not extracted.");
    io.log.LogData("linkPath", target.c_str());
    return Outcome::Unusable;
  }
  if (cleanPath(target) == cleanPath(path)) {
    io.fail("A hard link leads to itself.");
    return Outcome::Unusable;
  }
  m_links.waitFor({path, target, m_linkIsGiven});
  return Outcome::Ok;
}

// Where the file system links nothing, the second name gets a file of its own with the same data.
Outcome MemberPlacer::copyTarget(const Member& member, const std::string& target, const Io& io) {
  OsFile source(m_target.confined()->openExisting(target, O_RDONLY | O_NONBLOCK | O_NOCTTY));
  struct stat status;
  const bool canBeCopied = source.isOpen() && source.status(status) == 0 && S_ISREG(status.st_mode);
  if (!canBeCopied) return Outcome::Refused;
  Placed placed;
  const Outcome outcome = makeFile(member, io, placed);
  if (outcome != Outcome::Ok) return outcome;
  std::vector<char> buffer(64 * 1024);
  bool ok = true;
  for (ssize_t got = 1; ok && got > 0;) {
    got = source.readSome(buffer.data(), buffer.size());
    ok = got >= 0 && (got == 0 || placed.out->writeBytesPM(buffer.data(), static_cast<unsigned>(got),
                                                           io.monitor, io.log));
  }
  const FileEnd end = settle(member, *placed.out, *placed.file, ok, {}, io);
  m_restorer.notKept().note(NotKept::Kind::Link, m_path.entryPath(), 0, io);
  return end.isWhole ? Outcome::Ok : Outcome::NotCreated;
}

bool MemberPlacer::finishSpreading(_mvOutput& out, const Io& io) {
  auto* const sparse = dynamic_cast<SparseOutput*>(&out);
  _mvIoParams params(io.monitor);
  return !sparse || sparse->finish(params, io.log);
}

FileEnd MemberPlacer::settle(const Member& member, _mvOutput& out, OutputFile& file, bool isComplete,
                             const MemberTimes& times, const Io& io) {
  isComplete = isComplete && finishSpreading(out, io);
  if (!restored().any()) {
    return settleFile(file, isComplete, io,
                      [&](OutputFile& open) { return setFileTimes(open, times, io.log); });
  }
  return settleFile(file, isComplete, io, [&](OutputFile& open) {
    if (open.descriptor() >= 0) m_restorer.settle(open.descriptor(), member, m_path.entryPath(), io);
    return true;
  });
}

// ---- The end of a run

void MemberPlacer::makeWaitingLinks(const Io& io) {
  std::vector<LinkTable::Waiting> waiting = m_links.takeWaiting();
  // One may wait for another: as long as any could be made, the rest is tried again.
  for (bool anyMade = true; anyMade && !waiting.empty();) {
    std::vector<LinkTable::Waiting> left;
    for (LinkTable::Waiting& link : waiting) {
      if (!makeWaitingLink(link, io)) left.push_back(std::move(link));
    }
    anyMade = left.size() < waiting.size();
    waiting = std::move(left);
  }
  for (const LinkTable::Waiting& link : waiting) {
    m_path.rename(link.path, settings());
    io.fail("The target of a hard link is not there.");
    io.log.LogData("linkPath", link.target.c_str());
    reportLeftOut(false, io);
  }
}

// False while the target is missing. Everything else is final, and said.
bool MemberPlacer::makeWaitingLink(const LinkTable::Waiting& link, const Io& io) {
  ConfinedDir* const confined = m_target.confined();
  if (!confined) return false;
  // It may have been renamed since.
  const std::string target = link.isGiven ? link.target : m_links.nameNow(link.target);
  const ConfinedDir::Linked linked = confined->makeHardLink(link.path, target, io.log);
  if (linked == ConfinedDir::Linked::Missing) return false;
  if (linked == ConfinedDir::Linked::Ok) return true;
  m_path.rename(link.path, settings());
  const bool isCopied =
      linked == ConfinedDir::Linked::CannotLink && copyTarget(memberLike(target), target, io) == Outcome::Ok;
  if (!isCopied) reportLeftOut(linked == ConfinedDir::Linked::Refused, io);
  return true;
}

// A member that is what a file already is: for a copy in place of a link, which has no header of its own any
// more.
Member MemberPlacer::memberLike(const std::string& target) {
  Member member;
  const OsFile file(m_target.confined()->openExisting(target, O_RDONLY | O_NONBLOCK | O_NOCTTY));
  mvFileInfo info;
  struct stat status;
  if (!file.isOpen() || file.status(status) != 0) return member;
  info.setFromStatus(status);
  member.mode = info.m_mode & FileMetadata::kAllBits;
  member.uid = info.m_uid;
  member.gid = info.m_gid;
  member.mtime = {info.m_lastModified.seconds(), info.m_lastModified.nanoseconds(), true};
  return member;
}

void MemberPlacer::finishTarget(const Io& io) {
  makeWaitingLinks(io);
  if (ConfinedDir* const target = m_target.confined()) m_restorer.settleDirectories(*target, io);
}

void MemberPlacer::finish(const Io& io) {
  if (!restored().any()) return;
  finishTarget(io);
  m_restorer.notKept().tellCounts(io);
  m_anyLeftOut |= m_restorer.notKept().any();
  m_restorer.notKept().clear();
}

void MemberPlacer::finishQuietly() noexcept {
  try {
    LogNull unwanted;
    finishTarget(Io(unwanted));
  } catch (...) {  // out of memory: there is nothing more that could be done
  }
}

void MemberPlacer::releaseTarget() {
  finishQuietly();
  m_target.reset();
}

}  // namespace morvane
