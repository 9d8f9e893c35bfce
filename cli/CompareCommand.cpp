// mvtar -d: what differs between an archive and the file system.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>

#include "cli/Commands.h"
#include "cli/MemberEvent.h"
#include "cli/MemberKind.h"
#include "cli/ReadArchive.h"
#include "runtime/fs/UserDatabase.h"

namespace mvtar {

namespace {

using morvane::TarMemberInfo;

constexpr unsigned kModeBits = 07777;

// Takes a member's data, and reads the file beside them, so that neither is ever held whole. After the first
// difference it takes the rest without a look.
class ComparingOutput : public morvane::_mvOutput {
 public:
  ~ComparingOutput() override { close(); }
  // False with errno. By now lstat has called it a regular file; if a link or a FIFO has come to its place
  // since, it is neither followed nor waited for.
  bool open(const std::string& path) {
    close();
    m_fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    return m_fd >= 0;
  }
  // Also what was found is forgotten, so the caller takes it before.
  void close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
    m_differs = false;
    m_error = 0;
  }
  bool isOpen() const { return m_fd >= 0; }
  bool differs() const { return m_differs; }
  // The errno of a read that failed.
  int error() const { return m_error; }

  // Always true: a difference, or a file that cannot be read, is no failure of the archive, and refusing the
  // bytes would end the run for the members behind this one as well.
  bool _writeBytes(const char* bytes, unsigned int n, morvane::_mvIoParams&, morvane::LogBase&) override {
    while (n > 0 && !m_differs && m_error == 0 && m_fd >= 0) {
      char piece[64 * 1024];
      const ssize_t got = read(m_fd, piece, std::min<size_t>(n, sizeof piece));
      if (got < 0 && errno == EINTR && !isInterrupted()) continue;
      if (got < 0) {
        m_error = errno;
      } else {
        // Nothing more to read means that the file was cut since its size was looked at.
        m_differs = got == 0 || std::memcmp(bytes, piece, static_cast<size_t>(got)) != 0;
        bytes += got;
        n -= static_cast<unsigned>(got);
      }
    }
    return true;
  }

 private:
  int m_fd = -1;
  bool m_differs = false;
  int m_error = 0;
};

// On Linux no link's text is longer than PATH_MAX, so that one that was cut cannot pass for the whole. Nor
// can a link that has gone meanwhile: it differs.
bool hasTextOf(const std::string& link, const std::string& text) {
  char there[PATH_MAX];
  const ssize_t length = readlink(link.c_str(), there, sizeof there);
  return length >= 0 && text == std::string_view(there, static_cast<size_t>(length));
}

// By name where the archive has one that is known here, as extraction goes by it. The database remembers its
// answers, because most members have the same few owners.
class Owners {
 public:
  explicit Owners(bool byNumber) : m_byNumber(byNumber) {}
  long long user(const TarMemberInfo& member) {
    const bool isNamed = !m_byNumber && *member.userName != '\0';
    const std::optional<unsigned> id = isNamed ? m_users.userId(member.userName) : std::nullopt;
    return id ? *id : member.exactUid;
  }
  long long group(const TarMemberInfo& member) {
    const bool isNamed = !m_byNumber && *member.groupName != '\0';
    const std::optional<unsigned> id = isNamed ? m_users.groupId(member.groupName) : std::nullopt;
    return id ? *id : member.exactGid;
  }

 private:
  const bool m_byNumber;
  morvane::UserDatabase m_users;
};

// Compares each selected member as it comes, its data through the output that they are handed to.
class CompareEvent : public MemberEvent {
 public:
  CompareEvent(Report& report, ProgressBar& bar, const CommandLine& line, ComparingOutput& output)
      : MemberEvent(report, bar, line), m_output(output), m_owners(line.keeping.numericOwners) {}

  // Only files come here, and only onSelected opens the output: what it left closed has no data to be
  // compared, and the component passes them over.
  void onTarEntry(const char*, long long size, bool, bool& skip) override {
    skip = !m_output.isOpen();
    if (!skip) begin({}, size);  // it was named before what differs
  }
  // No event tells that a member's data are over; the next header does, and after the last one the caller.
  void onTarHeader(const TarMemberInfo& member) override {
    finishContents();
    MemberEvent::onTarHeader(member);
  }
  // What the data of the last member were. Call it behind the run.
  void finishContents() {
    if (m_output.differs()) m_report.difference(m_path, "contents differ");
    if (m_output.error() != 0) m_report.problem(m_path, std::strerror(m_output.error()));
    m_output.close();
  }

 private:
  // A leading slash is left off as extraction leaves it off.
  std::string localPathOf(const std::string& path) const {
    const size_t start = m_line.keepNames ? 0 : std::min(path.find_first_not_of('/'), path.size());
    std::string local = path.substr(start);
    const bool isAbsolute = !local.empty() && local[0] == '/';
    local = isAbsolute ? local : joinNames(m_line.targetDir, local);
    // With a slash at its end lstat would follow a link that stands in a directory's place.
    while (local.size() > 1 && local.back() == '/') local.pop_back();
    return local.empty() ? "." : local;
  }

  // Each member counts, missing or not, with the size that it has in the archive: one whose data are about to
  // be compared once they have been, any other here.
  void onSelected(const TarMemberInfo& member) override {
    m_path = nameIfExtracted(member);
    // It would not be extracted either, and is nobody's to be looked at.
    if (m_path.empty()) return;
    const std::string local = localPathOf(m_path);
    // Before anything that differs, so that the lines about a member follow its name.
    if (m_line.verbose) m_report.name(m_path);
    compare(member, local);
    if (!m_output.isOpen()) count(kindOf(member).hasData() ? member.realSize : 0);
  }

  void compare(const TarMemberInfo& member, const std::string& local) {
    const MemberKind& kind = kindOf(member);
    struct stat status;
    if (lstat(local.c_str(), &status) != 0) {
      // Only these say that nothing is there. A directory that may not be searched says nothing about the
      // member, and is a problem instead of a difference.
      const bool isMissing = errno == ENOENT || errno == ENOTDIR;
      isMissing ? m_report.difference(m_path, "missing") : m_report.problem(m_path, std::strerror(errno));
    } else if (member.typeFlag == kHardLink) {
      // Before the kinds are compared: a hard link may be a further name of anything, and its header does not
      // say of what.
      compareHardLink(member, status);
    } else if ((status.st_mode & S_IFMT) != kind.type) {
      m_report.difference(m_path, "the kind differs");
    } else {
      compareMetadata(member, status);
      if (kind.type == S_IFLNK &&
          !hasTextOf(local, m_line.changes.transform.apply(member.linkPath, NameTransform::Of::SymbolicLink)))
        m_report.difference(m_path, "the link differs");
      if (kind.hasData()) compareContents(member, local, status);
    }
  }

  // Whether it is the same file as its target is all that a hard link states. Mode, owner and contents were
  // compared with the member that it leads to.
  void compareHardLink(const TarMemberInfo& member, const struct stat& status) {
    struct stat target;
    const bool isSame =
        lstat(localPathOf(m_line.changes.hardLinkWhenReading(member.linkPath)).c_str(), &target) == 0 &&
        target.st_dev == status.st_dev && target.st_ino == status.st_ino;
    if (!isSame) m_report.difference(m_path, "the link differs");
  }

  // Modes of links mean nothing, and the time of a directory changes with what is in it. A time without a
  // fraction is compared without one, because the formats other than pax keep whole seconds and the file
  // system keeps more.
  void compareMetadata(const TarMemberInfo& member, const struct stat& status) {
    const MemberKind& kind = kindOf(member);
    const auto differsIf = [&](bool differs, const char* what) {
      if (differs) m_report.difference(m_path, what);
    };
    if (kind.type == S_IFLNK) return;
    differsIf((status.st_mode & kModeBits) != (member.mode & kModeBits), "the mode differs");
    differsIf(status.st_uid != m_owners.user(member), "the owner differs");
    differsIf(status.st_gid != m_owners.group(member), "the group differs");
    if (kind.type == S_IFDIR) return;
    const bool isExact = member.mtimeNanoseconds > 0;
    differsIf(status.st_mtim.tv_sec != member.mtime ||
                  (isExact && status.st_mtim.tv_nsec != static_cast<long>(member.mtimeNanoseconds)),
              "the time differs");
    differsIf(kind.isDevice() && status.st_rdev != makedev(member.deviceMajor, member.deviceMinor),
              "the device differs");
  }

  // Files of another size are not read: that they differ is known. Of a sparse member the size with its holes
  // counts, because the component hands holes over as zeros and the file gives zeros for its own.
  void compareContents(const TarMemberInfo& member, const std::string& local, const struct stat& status) {
    if (status.st_size != member.realSize) {
      m_report.difference(m_path, "the size differs");
    } else if (!m_output.open(local)) {
      m_report.problem(m_path, std::strerror(errno));
    }
  }

  ComparingOutput& m_output;
  Owners m_owners;
  std::string m_path;
};

}  // namespace

// No file at all to be read is no failure here: there may be directories alone.
int compareArchive(const CommandLine& line) {
  ReadJob job(line, false);
  if (!job.open()) return job.finish();
  ComparingOutput output;
  CompareEvent event(job.report, job.bar, line, output);
  bool ok = job.tar.UntarMembersToOutput(job.archive.source(), output, &event) || event.enoughSeen();
  // The component calls it a failure that no member had data to hand over.
  ok = ok || job.tar.get_OnlyLeftOut();
  job.bar.clear();
  if (ok) {
    // The last member's data have no header behind them.
    event.finishContents();
    event.settle();
    event.nameUnfound();
  }
  return job.finish(event, ok);
}

}  // namespace mvtar
