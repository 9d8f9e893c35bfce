// A directory is handed to the component twice: as a member, and as a tree of what is below it.
#include "cli/Sources.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "cli/ArchiveName.h"
#include "cli/Names.h"

namespace mvtar {

namespace {

// The component keeps both paths of a source in one text and separates them by this byte. A path that holds
// one would be cut at the wrong place.
constexpr char kEscape = '\x1B';

// The root keeps the slash that it is.
std::string withoutSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

// The prefix goes by the rules of names as well; "/backup" as a prefix would make every member absolute.
void Sources::add() {
  m_prefix = nameOf(m_line.prefix);
  for (const Operand& operand : m_line.operands) addOperand(operand);
}

// Where nothing is behind a -C the local path is the given one. Else the operand that the source lies below
// is looked for, from the source itself upwards.
std::string Sources::givenPath(const std::string& localPath, const std::string& inArchive) const {
  // The usual case, which takes no search.
  if (!m_anyElsewhere) return localPath;
  for (size_t end = localPath.size(); end > 0; end = localPath.rfind('/', end - 1)) {
    if (end == std::string::npos) break;
    const auto found = m_given.find(localPath.substr(0, end));
    if (found == m_given.end()) continue;
    const std::string below = localPath.substr(end);
    // Nearly always there is one, and its name need not be made for every member.
    const auto last = found->second.end() - 1;
    return *std::find_if(found->second.begin(), last, [&](const std::string& each) {
      return storedName(each + below) == inArchive;
    }) + below;
  }
  return localPath;
}

// Operands go by the same rules, part by part.
std::string Sources::archivePath(const std::string& localPath) const {
  return storedName(givenPath(localPath));
}

std::string Sources::storedName(const std::string& given) const {
  return joinNames(m_prefix, archiveNameOf(given, m_line.keepNames).name);
}

bool Sources::isOperand(const std::string& localPath) const {
  return m_given.count(withoutSlashes(localPath)) > 0;
}

// What a path is called in the archive. What is left off is said, once for as long as it is the same.
std::string Sources::nameOf(const std::string& path) {
  const ArchiveName stored = archiveNameOf(path, m_line.keepNames);
  if (!stored.removed.empty() && stored.removed != m_lastRemoved) {
    m_report.notice(path, "leading '" + shown(stored.removed) + "' is left off");
    m_lastRemoved = stored.removed;
  }
  return stored.name;
}

// Looked at now for a message of the command's own, and because a directory is a member and a tree, while
// anything else is a member alone. ESC is what the component separates stored paths with.
void Sources::addOperand(const Operand& operand) {
  const std::string local = operand.localPath();
  struct stat status;
  // Of a list whose names were to end at a NUL; the system would take what is in front of it.
  const char* const nonsense = operand.path.empty()                           ? "an empty path"
                               : operand.path.find('\0') != std::string::npos ? "a path with a NUL byte"
                                                                              : nullptr;
  if (nonsense || lstat(local.c_str(), &status) != 0) {
    m_report.problem(local, nonsense ? nonsense : std::strerror(errno));
    return;
  }
  const std::string name = joinNames(m_prefix, nameOf(operand.path));
  // An excluded directory is not even handed over, so that nothing below it is looked at.
  if (m_excluded.excludes(name) || m_excluded.excludes(operand.path)) return;
  if (local.find(kEscape) != std::string::npos || name.find(kEscape) != std::string::npos) {
    m_report.problem(operand.path, "a name with an escape character cannot be archived");
    return;
  }
  // A slash at the end asks for what a link points at.
  const bool throughLink =
      S_ISLNK(status.st_mode) && (operand.path.back() == '/' || m_line.keeping.followsLinks);
  if (throughLink && stat(local.c_str(), &status) != 0) {
    m_report.problem(operand.path, std::strerror(errno));
    return;
  }
  // Without slashes at the end, because givenPath looks for what stands in front of a slash.
  m_given[withoutSlashes(local)].push_back(withoutSlashes(operand.path));
  m_anyElsewhere |= !operand.dir.empty();
  if (!S_ISDIR(status.st_mode)) {
    addSingle(local, name);
    return;
  }
  // "." has no name in the archive, and so is a tree alone.
  if (!name.empty()) addSingle(local, name);
  if (m_line.recurses && !m_tar.AddDirRoot2(name, local)) m_report.failure(m_tar, operand.path);
}

// Always with its name: AddFile would take the last part of the path.
void Sources::addSingle(const std::string& local, const std::string& name) {
  if (!m_tar.AddFile2(local, name)) m_report.failure(m_tar, local);
}

}  // namespace mvtar
