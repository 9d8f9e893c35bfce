// What is removed is what was archived: a file of the same name that came meanwhile is another one.
#include "cli/RemoveSources.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cli/MemberKind.h"
#include "runtime/log/LogNull.h"
#include "runtime/progress/TarMember.h"

namespace mvtar {

namespace {

using morvane::mvFileInfo;

// The time of the inode tells of a change that set the time of modification back. Of a file with several
// names it says nothing, because removing one of them changes it for the others.
bool isUnchanged(const mvFileInfo& then, const mvFileInfo& now) {
  return then.isSameFile(now) && then.m_size == now.m_size && then.m_lastModified == now.m_lastModified &&
         (then.m_linkCount > 1 || then.m_creation == now.m_creation);
}

// A directory may be named by what is in it; rmdir takes no path that ends in ".".
std::string withoutDot(std::string path) {
  while (path.size() > 1 && (path.back() == '/' || path.compare(path.size() - 2, 2, "/.") == 0))
    path.pop_back();
  return path;
}

}  // namespace

// What the component saw counts, and not what is there by now: it may have read the file long before its
// turn. A link that was followed is removed itself, and so it is the link that has to stay the same. Only
// settle() puts the source on the list, so that a member that failed half-way is never on it.
void RemoveSources::begin(const morvane::TarMember& member) {
  if (!m_isOn || !member.source) return;
  m_current = {member.localPath, member.typeFlag == kDirectory, *member.source};
  mvFileInfo own;
  morvane::LogNull unwanted;
  if (m_followsLinks && own.loadFileInfoUtf8(member.localPath.c_str(), unwanted) && own.m_isSymbolicLink)
    m_current.status = own;
  m_isBegun = true;
}

void RemoveSources::settle() {
  if (m_isOn && m_isBegun) m_sources.push_back(m_current);
  m_isBegun = false;
}

// A directory comes before what is in it, so the other way round it comes behind.
void RemoveSources::removeAll(Report& report) {
  if (!m_isOn) return;
  const auto removeIf = [&](const Source& source, bool isDirectory) {
    if (source.isDirectory == isDirectory && m_dropped.count(source.path) == 0) remove(source, report);
  };
  // Files first: directories can only be removed when they are empty.
  for (const Source& source : m_sources) removeIf(source, false);
  for (auto source = m_sources.rbegin(); source != m_sources.rend(); ++source) removeIf(*source, true);
}

void RemoveSources::remove(const Source& source, Report& report) {
  struct stat status;
  const bool isThere = lstat(source.path.c_str(), &status) == 0;
  // The same file may have been archived twice.
  if (!isThere && errno == ENOENT) return;
  mvFileInfo now;
  if (isThere) now.setFromStatus(status);
  // A directory's time changes as its files are removed; rmdir itself refuses one in which there is something
  // new.
  if (isThere && !source.isDirectory && !isUnchanged(source.status, now)) {
    report.problem(source.path, "it has changed since it was archived, and is not removed");
    return;
  }
  // Neither follows a link: the name itself is removed.
  const int result =
      source.isDirectory ? rmdir(withoutDot(source.path).c_str()) : unlink(source.path.c_str());
  if (result != 0) report.problem(source.path, std::string("not removed: ") + std::strerror(errno));
}

}  // namespace mvtar
