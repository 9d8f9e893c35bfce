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

// The newest copy of each name that an archive has, for -u. Names as comparablePath has them; times of
// modification.
using NewestCopies = std::map<std::string, timespec>;

// Follows the write by its events. The component's words become lines of the command here, and patterns,
// dates and changes of the command line become decisions about members. A member is done when the next one is
// offered, because nothing tells its end. It lives as long as one write and is called by one thread. The
// order of calls for a source is: onTarEntry, onInfo with its name, onTarMember; a source that cannot be
// looked at has onInfo alone.
class CreateEvent : public morvane::ProgressEvent {
 public:
  // All of it must outlive the event. `newest` is empty but for -u.
  CreateEvent(Report& report, ProgressBar& bar, morvane::ClsTar& tar, CommandLine& line,
              const Sources& sources, const NewestCopies& newest);

  // Of members that are whole.
  // Of those the last one only once `settle` was called.
  long long members() const { return m_members; }
  long long bytes() const { return m_bytes; }

  // Callbacks of the component, on the thread that writes.
  void onAbortCheck(bool& abort) override;
  void onTotal(long long bytes) override { m_bar.setTotal(bytes); }
  void onProgress(int parts, bool&) override { m_bar.show(parts); }
  void onTarEntry(const char* path, long long size, bool isDirectory, bool& skip) override;
  void onTarMember(morvane::TarMember& member) override;
  // The component's names for what happened, each with its value. Names that are not known here are passed
  // over: a later version may have more.
  void onInfo(const char* name, const char* value) override;

  // What was begun is done. Call it after a run that came to its end.
  void settle();
  // Whether a member was offered, for which the archive has to be there, or the command has opened it.
  bool isArchiveBegun() const { return m_isArchiveBegun; }
  // Whether what the component missed is all that was not wanted anyway: its failure is then none of the
  // command's.
  bool missedOnlyUnwanted() const { return m_unwantedMissed && m_unreadable.empty(); }
  // The archive's own file, which is not put into it, where the component cannot know it: behind a program.
  // By device and inode, since it may be met under any name.
  void leaveOut(const struct stat& archive) {
    m_archive = archive;
    m_isArchiveBegun = true;
  }
  // What was archived whole, with --remove-files. The caller removes it, once the archive is closed.
  RemoveSources& removals() { return m_removals; }

 private:
  // Whether the member goes into the archive. Sets m_nothingBelow, which the tree's walk is told.
  bool isWanted(const morvane::TarMember& member);
  // Rules of names for one that --transform has made.
  void makeNameSafe(morvane::TarMember& member);
  // --exclude, on the archive's path and on the one that was given.
  bool isExcluded(const std::string& path, const std::string& given) const;
  // By -u and --newer.
  bool isTooOld(const morvane::TarMember& member) const;
  // By --exclude-caches; remembers the directory that it looked at last.
  bool isInCache(const std::string& localPath);
  // Whether a directory is one that --one-file-system does not enter.
  bool isOnOtherFileSystem(const morvane::TarMember& member) const;
  // What the component could not read, unless nobody wanted it.
  void noteUnreadable(const std::string& path);
  // Whether ustar can hold the name, asked of the component's own rule.
  bool fitsUstar(const std::string& name) const;

  // None of these is owned.
  Report& m_report;
  ProgressBar& m_bar;
  morvane::ClsTar& m_tar;
  CommandLine& m_line;
  const Sources& m_sources;
  const NewestCopies& m_newest;
  // The first knows --exclude alone, for questions about whole trees; the second all patterns.
  const Selection m_excluded;
  Selection m_selection;
  // Local paths that were named. Each is named once:
  std::set<std::string> m_unreadable;  // a directory is a member and the root of a tree
  // As the system is asked for it; empty before the first entry.
  std::string m_localPath;
  // Whose tag --exclude-caches looked for last, and what it found.
  std::string m_lastParent;
  bool m_lastParentIsCache = false;
  // Whether the last entry, if it is a directory, is passed by with all that is in it.
  bool m_nothingBelow = false;
  // Whether the component missed anything that was left out, so that its result says less than it seems.
  bool m_unwantedMissed = false;
  bool m_isArchiveBegun = false;
  bool m_isBegun = false;  // the member that is being written:
  // What is told of it once it is done. Its size is a claim until then, and so is that it will be whole.
  std::string m_name;
  long long m_size = 0;
  // As the header states it; with -v a directory is named with a slash.
  bool m_isDirectory = false;
  // Whether its name had one before the component made slashes of them.
  bool m_hasBackSlash = false;
  // What makeNameSafe named last.
  std::string m_lastRemoved;
  // What leaveOut was told.
  std::optional<struct stat> m_archive;
  // Filled as members are done; nothing is removed here.
  RemoveSources m_removals;
  long long m_members = 0, m_bytes = 0;
};

}  // namespace mvtar
