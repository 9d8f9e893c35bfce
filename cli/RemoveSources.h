// --remove-files: sources that go once they are safe in the archive.
#pragma once

#include <sys/stat.h>

#include <set>
#include <string>
#include <vector>

#include "cli/Report.h"

namespace mvtar {

// Gathers what was archived whole, as it was then. Nothing is removed before `removeAll`. CreateEvent calls
// begin and settle for each member, in the order of the archive; switched off, every call does nothing.
class RemoveSources {
 public:
  explicit RemoveSources(bool isOn) : m_isOn(isOn) {}

  // A source's turn has come; it is archived. One that was begun and not settled is forgotten.
  void begin(const std::string& path, bool isDirectory);
  // The source that was begun is in the archive.
  void settle();
  // This one, or any, was not archived as it is. Of one source it may be said before it is settled or behind.
  void drop(const std::string& path) { m_dropped.insert(path); }
  void dropAll() { m_isOn = false; }

  // Removes files, then directories from the innermost on. One that has changed since stays and is named, and
  // so is a directory that still has something in it. To be called once, and only when the archive is closed
  // without a failure. Nothing is removed through a link: a link is removed itself.
  void removeAll(Report& report);

 private:
  // A path as the system is asked for it, from where the process stands.
  struct Source {
    std::string path;
    // Removed by rmdir, behind all files.
    bool isDirectory = false;
    struct stat status {};  // as it was when it was about to be read
  };

  // One of them. What is not there any more is no problem.
  static void remove(const Source& source, Report& report);

  // Set by --remove-files and switched off by dropAll. While it is off no call does anything.
  bool m_isOn;
  // Whether a source was begun that has not been settled.
  bool m_isBegun = false;
  // Only of meaning while m_isBegun.
  Source m_current;
  // In the order of the archive: a directory in front of what is in it.
  std::vector<Source> m_sources;
  // Paths of files that stay.
  std::set<std::string> m_dropped;
};

}  // namespace mvtar
