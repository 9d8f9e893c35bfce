// A second name that the file system will not link (another file system, one without links, too many names)
// becomes a file of its own, with what the first one has: data, holes, attributes.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "tar/format/EntryPath.h"
#include "tar/place/MemberPlacer.h"

namespace morvane {

using Outcome = ExtractTarget::Outcome;

namespace {

// O_NONBLOCK, because what stands there by now may be a FIFO.
constexpr int kToCopy = O_RDONLY | O_NONBLOCK | O_NOCTTY;

// A file that ends sooner than it did gives what it has; one that cannot be read is a failure of the copy
// alone. No monitor counts these bytes, which are none of the
// archive's; the write still asks whether to abort.
bool copyRange(const OsFile& source, long long at, long long end, const Placed& to, const Io& io) {
  std::vector<char> buffer(64 * 1024);
  while (at < end) {
    const auto wanted =
        static_cast<size_t>(std::min<long long>(end - at, static_cast<long long>(buffer.size())));
    const ssize_t got = source.readSomeAt(buffer.data(), wanted, at);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      const int error = errno;
      io.fail("Failed to read the file that is copied.");
      io.log.noteReason(std::strerror(error));
      to.file->failAlone();
      return true;
    }
    if (got == 0) return true;
    if (!to.out->writeBytesPM(buffer.data(), static_cast<unsigned>(got), io.monitor, io.log)) return false;
    at += got;
  }
  return true;
}

// Holes come back as holes, where the file system can tell them.
bool copyData(const OsFile& source, long long size, const Placed& to, const Io& io) {
  long long at = 0, start = 0, end = 0;
  while (at < size) {
    const DataSearch found = osNextData(source.fd(), at, start, end);
    if (found == DataSearch::NoMore || (found != DataSearch::CannotTell && start >= size)) break;
    if (found == DataSearch::CannotTell) {
      start = at;
      end = size;
    }
    end = std::min(end, size);
    const bool isAtData = start == at || to.file->passHole(start - at, io.monitor, io.log);
    if (!isAtData || !copyRange(source, start, end, to, io)) return false;
    at = end;
  }
  return at == size || to.file->setLength(size, io.monitor, io.log);
}

}  // namespace

// There are no data in anything but a regular file. Settled in any case, since what was made has to be closed
// and looked at. The copy is noted as a link that was not kept.
Outcome MemberPlacer::copyTarget(const Member& member, const std::string& target, const Io& io) {
  const OsFile source(m_target.confined()->openExisting(target, kToCopy));
  struct stat status;
  const bool canBeCopied = source.isOpen() && source.status(status) == 0 && S_ISREG(status.st_mode);
  if (!canBeCopied) {
    io.fail("What a hard link leads to can be neither linked to nor copied.");
    return Outcome::Unusable;
  }
  // Its access list is known before the copy is made: the mode alone may grant more than the list does.
  Member like = member;
  m_restorer.takeAttributesOf(source.fd(), like);
  Placed placed;
  const Outcome outcome = makeFile(like, io, placed);
  if (outcome != Outcome::Ok) return outcome;
  const bool ok = copyData(source, status.st_size, placed, io);
  const FileEnd end = settle(like, *placed.out, *placed.file, ok, {}, io);
  if (!end.isWhole) {
    // Half of a copy would pass for the file. What concerns the disk would meet the next member as well.
    m_target.confined()->removeNew(cleanPath(m_path.entryPath().str()));
    m_target.noteError(end.hasFailedAlone ? EIO : ENOSPC);
    return Outcome::NotCreated;
  }
  m_restorer.notKept().note(NotKept::Kind::Link, m_path.entryPath(), 0, io);
  return Outcome::Ok;
}

// A member that is what a file already is: for a copy in place of a link, which has no header of its own any
// more. Where it cannot be read, the defaults stay and the copy fails by itself.
Member MemberPlacer::memberLike(const std::string& target) {
  Member member;
  const OsFile file(m_target.confined()->openExisting(target, kToCopy));
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

}  // namespace morvane
