// --remove-files: sources that go once they are safe in the archive.
#pragma once

#include <sys/stat.h>

#include <set>
#include <string>
#include <vector>

#include "cli/Report.h"

namespace mvtar {

// Gathers what was archived whole, as it was then. Nothing is removed before `removeAll`.
class RemoveSources {
 public:
  explicit RemoveSources(bool isOn) : m_isOn(isOn) {}

  // A source is about to be read; it is archived.
  void begin(const std::string& path, bool isDirectory);
  void settle();
  // This one, or any, was not archived as it is.
  void drop(const std::string& path) { m_dropped.insert(path); }
  void dropAll() { m_isOn = false; }

  // Removes files, then directories from the innermost on. One that has changed since stays and is named, and
  // so is a directory that still has something in it.
  void removeAll(Report& report);

 private:
  struct Source {
    std::string path;
    bool isDirectory = false;
    struct stat status {};  // as it was when it was about to be read
  };

  static void remove(const Source& source, Report& report);

  bool m_isOn;
  bool m_isBegun = false;
  Source m_current;
  std::vector<Source> m_sources;
  std::set<std::string> m_dropped;
};

}  // namespace mvtar
