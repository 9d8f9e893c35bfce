// mvtar -d: what differs between an archive and the file system.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>

#include "cli/ArchiveName.h"
#include "cli/Commands.h"
#include "cli/MemberEvent.h"
#include "cli/MemberKind.h"
#include "cli/ReadArchive.h"
#include "runtime/fs/UserDatabase.h"

namespace mvtar {

namespace {

using morvane::TarMemberInfo;

constexpr unsigned kModeBits = 07777;

// Takes a member's data, and reads the file beside them. After the first difference it takes the rest without
// a look.
class ComparingOutput : public morvane::_mvOutput {
 public:
  ~ComparingOutput() override { close(); }
  // False with errno.
  bool open(const std::string& path) {
    close();
    m_fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    return m_fd >= 0;
  }
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

  bool _writeBytes(const char* bytes, unsigned int n, morvane::_mvIoParams&, morvane::LogBase&) override {
    while (n > 0 && !m_differs && m_error == 0 && m_fd >= 0) {
      char piece[64 * 1024];
      const ssize_t got = read(m_fd, piece, std::min<size_t>(n, sizeof piece));
      if (got < 0 && errno == EINTR && !isInterrupted()) continue;
      if (got < 0) {
        m_error = errno;
      } else {
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

bool hasTextOf(const std::string& link, const std::string& text) {
  char there[PATH_MAX];
  const ssize_t length = readlink(link.c_str(), there, sizeof there);
  return length >= 0 && text == std::string_view(there, static_cast<size_t>(length));
}

// By name where the archive has one that is known here, as extraction goes by it.
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

  void onTarEntry(const char*, long long size, bool, bool& skip) override {
    skip = !m_output.isOpen();
    if (!skip) begin({}, size);  // it was named before what differs
  }
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
    while (local.size() > 1 && local.back() == '/') local.pop_back();
    return local.empty() ? "." : local;
  }

  void onSelected(const TarMemberInfo& member) override {
    m_path = m_line.changes.pathWhenReading(member.path);
    if (m_path.empty()) return;
    // It would not be extracted either, and is nobody's to be looked at.
    if (!m_line.keepNames && archiveNameOf(m_path, false).removed.size() > 1) {
      m_report.problem(m_path, "refused: its path leaves the target");
      return;
    }
    const std::string local = localPathOf(m_path);
    const MemberKind& kind = kindOf(member);
    const bool hasContents = kind.hasData();
    if (!hasContents) count(0);
    if (m_line.verbose) m_report.name(m_path);
    struct stat status;
    if (lstat(local.c_str(), &status) != 0) {
      const bool isMissing = errno == ENOENT || errno == ENOTDIR;
      isMissing ? m_report.difference(m_path, "missing") : m_report.problem(m_path, std::strerror(errno));
    } else if (member.typeFlag == kHardLink) {
      compareHardLink(member, status);
    } else if ((status.st_mode & S_IFMT) != kind.type) {
      m_report.difference(m_path, "the kind differs");
    } else {
      compareMetadata(member, status);
      if (kind.type == S_IFLNK &&
          !hasTextOf(local, m_line.changes.transform.apply(member.linkPath, NameTransform::Of::SymbolicLink)))
        m_report.difference(m_path, "the link differs");
      if (hasContents) compareContents(member, local, status);
    }
  }

  void compareHardLink(const TarMemberInfo& member, const struct stat& status) {
    struct stat target;
    const bool isSame =
        lstat(localPathOf(m_line.changes.hardLinkWhenReading(member.linkPath)).c_str(), &target) == 0 &&
        target.st_dev == status.st_dev && target.st_ino == status.st_ino;
    if (!isSame) m_report.difference(m_path, "the link differs");
  }

  // Modes of links mean nothing, and the time of a directory changes with what is in it. A time without a
  // fraction is compared without one.
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

  // Files of another size are not read.
  void compareContents(const TarMemberInfo& member, const std::string& local, const struct stat& status) {
    if (status.st_size != member.realSize) {
      count(member.realSize);
      m_report.difference(m_path, "the size differs");
    } else if (!m_output.open(local)) {
      count(0);
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
  ok = ok || job.tar.get_OnlyLeftOut();
  job.bar.clear();
  if (ok) {
    event.finishContents();
    event.settle();
    event.nameUnfound();
  }
  return job.finish(event, ok);
}

}  // namespace mvtar
