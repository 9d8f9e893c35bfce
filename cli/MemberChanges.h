// What options change of a member on its way into an archive or out of it: names, owners, modes, times.
#pragma once

#include <ctime>
#include <map>
#include <optional>
#include <string>

#include "cli/ModeChange.h"
#include "cli/NameTransform.h"

namespace morvane {
struct TarMember;
}

namespace mvtar {

// An owner that all members get. The name may be empty: then readers go by the number.
struct GivenOwner {
  std::string name;
  unsigned id = 0;
};

// Options in the form that members are changed by. The rules are applied to what onTarMember shows. The
// options are filled in while the command line is parsed; behind that only applyWriting changes anything, and
// only what it remembers. Selection goes by names before they are changed.
class MemberChanges {
 public:
  // --transform; in both directions.
  NameTransform transform;
  // How many parts of a path are left off at its beginning; 0 none.
  unsigned stripComponents = 0;  // reading
  // For writing: --owner and --group, --mode, --mtime and --clamp-mtime. What is not given stays as the
  // source has it.
  std::optional<GivenOwner> owner, group;
  // Applied to the mode that the source has.
  std::optional<ModeChange> mode;
  // The time that members get, to the nanosecond.
  std::optional<timespec> mtime;
  bool clampsTime = false;  // only times later than that

  // Whether there is anything to be done in that direction. Reading commands ask the component to show its
  // members for a change (MemberEvents) only then.
  bool anyWhenWriting() const { return !transform.isEmpty() || owner || group || mode || mtime; }
  bool anyWhenReading() const { return !transform.isEmpty() || stripComponents > 0; }

  // A member about to be written, once for each, in the order of the archive. Not const: names that were
  // changed are kept where a target of a hard link may have to be called by its old one. An empty path is
  // left for the caller to refuse.
  void applyWriting(morvane::TarMember& member);
  // A member about to be extracted, and the text of the link that it may be. One that has no more parts than
  // are stripped is skipped.
  void applyReading(morvane::TarMember& member) const;
  // The path of a member, and of the target of a hard link, as `applyReading` leaves them: for -d, which
  // changes no member. Empty: skipped.
  std::string pathWhenReading(const std::string& path) const;
  std::string hardLinkWhenReading(const std::string& target) const;

 private:
  // The text of a symbolic link; anything else is left alone.
  void changeLink(morvane::TarMember& member) const;

  // Only while hard links keep their targets' old names ("H"): from the name in the archive to the one
  // before. It grows with the members of the archive, because any of them may be linked to later.
  std::map<std::string, std::string> m_before;
};

}  // namespace mvtar
