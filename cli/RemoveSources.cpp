// What is removed is what was archived: a file of the same name that came meanwhile is another one.
#include "cli/RemoveSources.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace mvtar {

namespace {

// The time of the inode is left out: removing one of several names changes it for the others. Size and time
// of modification tell of nearly every change; one that keeps both cannot be told from none.
bool isUnchanged(const struct stat& then, const struct stat& now) {
  return then.st_dev == now.st_dev && then.st_ino == now.st_ino && then.st_size == now.st_size &&
         then.st_mtim.tv_sec == now.st_mtim.tv_sec && then.st_mtim.tv_nsec == now.st_mtim.tv_nsec;
}

// A directory may be named by what is in it; rmdir takes no path that ends in ".".
std::string withoutDot(std::string path) {
  while (path.size() > 1 && (path.back() == '/' || path.compare(path.size() - 2, 2, "/.") == 0))
    path.pop_back();
  return path;
}

}  // namespace

void RemoveSources::begin(const std::string& path, bool isDirectory) {
  if (!m_isOn) return;
  m_current.path = path;
  m_current.isDirectory = isDirectory;
  // What cannot be looked at is not removed. Only settle() puts it on the list, so that a member that failed
  // half-way is never on it.
  m_isBegun = lstat(path.c_str(), &m_current.status) == 0;
}

void RemoveSources::settle() {
  if (m_isOn && m_isBegun) m_sources.push_back(m_current);
  m_isBegun = false;
}

// A directory comes before what is in it, so the other way round it comes behind.
void RemoveSources::removeAll(Report& report) {
  if (!m_isOn) return;
  // Files first: directories can only be removed when they are empty.
  for (const Source& source : m_sources) {
    if (!source.isDirectory && m_dropped.count(source.path) == 0) remove(source, report);
  }
  for (auto source = m_sources.rbegin(); source != m_sources.rend(); ++source) {
    if (source->isDirectory) remove(*source, report);
  }
}

void RemoveSources::remove(const Source& source, Report& report) {
  struct stat now;
  const bool isThere = lstat(source.path.c_str(), &now) == 0;
  // The same file may have been archived twice.
  if (!isThere && errno == ENOENT) return;
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
