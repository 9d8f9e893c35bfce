// What writing commands do with the component's events: which sources become members, what is changed of
// them, what went wrong.
#pragma once

#include <sys/stat.h>

#include <map>
#include <optional>
#include <set>
#include <string>

#include "cli/CommandLine.h"
#include "cli/ProgressBar.h"
#include "cli/RemoveSources.h"
#include "cli/Report.h"
#include "cli/Selection.h"
#include "cli/Sources.h"
#include "runtime/progress/ProgressEvent.h"
#include "tar/ClsTar.h"

namespace mvtar {

// The newest copy of each name that an archive has, for -u. Names as comparablePath has them.
using NewestCopies = std::map<std::string, timespec>;

// Follows the write by its events. The component's words become lines of the command here. A member is done
// when the next one is offered, because nothing tells its end.
class CreateEvent : public morvane::ProgressEvent {
 public:
  // All of it must outlive the event. `newest` is empty but for -u.
  CreateEvent(Report& report, ProgressBar& bar, morvane::ClsTar& tar, CommandLine& line,
              const Sources& sources, const NewestCopies& newest);

  // Of members that are whole.
  long long members() const { return m_members; }
  long long bytes() const { return m_bytes; }

  void onAbortCheck(bool& abort) override;
  void onTotal(long long bytes) override { m_bar.setTotal(bytes); }
  void onProgress(int parts, bool&) override { m_bar.show(parts); }
  void onTarEntry(const char* path, long long size, bool isDirectory, bool& skip) override;
  void onTarMember(morvane::TarMember& member) override;
  void onInfo(const char* name, const char* value) override;

  // What was begun is done. Call it after a run that came to its end.
  void settle();
  // Whether what the component missed is all that was not wanted anyway.
  bool missedOnlyUnwanted() const { return m_unwantedMissed && m_unreadable.empty(); }
  // The archive's own file, which is not put into it, where the component cannot know it: behind a program.
  void leaveOut(const struct stat& archive) { m_archive = archive; }
  // What was archived whole, with --remove-files.
  RemoveSources& removals() { return m_removals; }

 private:
  // Each is a reason to leave a member out.
  bool isWanted(const morvane::TarMember& member);
  void makeNameSafe(morvane::TarMember& member);
  bool isExcluded(const std::string& path, const std::string& given) const;
  bool isTooOld(const morvane::TarMember& member) const;
  bool isInCache(const std::string& localPath);
  bool isOnOtherFileSystem(const morvane::TarMember& member) const;
  void noteUnreadable(const std::string& path);
  bool fitsUstar(const std::string& name) const;

  Report& m_report;
  ProgressBar& m_bar;
  morvane::ClsTar& m_tar;
  CommandLine& m_line;
  const Sources& m_sources;
  const NewestCopies& m_newest;
  const Selection m_excluded;
  Selection m_selection;
  std::set<std::string> m_unreadable;  // a directory is a member and the root of a tree
  std::string m_localPath;             // of the last entry
  std::string m_lastParent;            // of the last member, with --exclude-caches
  bool m_lastParentIsCache = false;
  bool m_nothingBelow = false;  // of it is wanted
  bool m_unwantedMissed = false;
  bool m_isBegun = false;  // the member that is being written:
  std::string m_name;
  long long m_size = 0;
  bool m_isDirectory = false;
  bool m_hasBackSlash = false;
  std::string m_lastRemoved;  // from a changed name
  std::optional<struct stat> m_archive;
  RemoveSources m_removals;
  long long m_members = 0, m_bytes = 0;
};

}  // namespace mvtar
