// --remove-files: sources that go once they are safe in the archive.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "cli/Report.h"
#include "runtime/fs/mvFileInfo.h"

namespace morvane {
struct TarMember;
}

namespace mvtar {

// Gathers what was archived whole, as it was when the component looked at it for the archive. Nothing is
// removed before `removeAll`. CreateEvent calls begin and settle for each member, in the order of the
// archive; switched off, every call does nothing.
class RemoveSources {
 public:
  // `followsLinks`: what links point at is archived in their place.
  RemoveSources(bool isOn, bool followsLinks) : m_isOn(isOn), m_followsLinks(followsLinks) {}

  // The member's source is archived. One that was begun and not settled is forgotten.
  void begin(const morvane::TarMember& member);
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
    // As it was when the archive got it; a link that was followed, as it was in its turn.
    morvane::mvFileInfo status;
  };

  // One of them. What is not there any more is no problem.
  static void remove(const Source& source, Report& report);

  // Set by --remove-files and switched off by dropAll. While it is off no call does anything.
  bool m_isOn;
  const bool m_followsLinks;
  // Whether a source was begun that has not been settled.
  bool m_isBegun = false;
  // Only of meaning while m_isBegun.
  Source m_current;
  // In the order of the archive: a directory in front of what is in it.
  std::vector<Source> m_sources;
  // Paths of what stays.
  std::set<std::string> m_dropped;
};

}  // namespace mvtar
