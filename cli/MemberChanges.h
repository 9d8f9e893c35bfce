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

// An owner that all members get: a name, a number, or both.
struct GivenOwner {
  std::string name;
  unsigned id = 0;
};

// Options in the form that members are changed by. The rules are applied to what onTarMember shows.
class MemberChanges {
 public:
  NameTransform transform;
  unsigned stripComponents = 0;  // reading
  // Writing
  std::optional<GivenOwner> owner, group;
  std::optional<ModeChange> mode;
  std::optional<timespec> mtime;
  bool clampsTime = false;  // only times later than that

  // Whether there is anything to be done in that direction.
  bool anyWhenWriting() const { return !transform.isEmpty() || owner || group || mode || mtime; }
  bool anyWhenReading() const { return !transform.isEmpty() || stripComponents > 0; }

  // A member about to be written. Not const: names that were changed are kept where a target of a hard link
  // may have to be called by its old one.
  void applyWriting(morvane::TarMember& member);
  // A member about to be extracted. One that has no more parts than are stripped is skipped.
  void applyReading(morvane::TarMember& member) const;
  // The path of a member, and of the target of a hard link, as `applyReading` leaves them. Empty: skipped.
  std::string pathWhenReading(const std::string& path) const;
  std::string hardLinkWhenReading(const std::string& target) const;

 private:
  void changeLink(morvane::TarMember& member) const;

  // Only while hard links keep their targets' old names ("H"): from the name in the archive to the one
  // before.
  std::map<std::string, std::string> m_before;
};

}  // namespace mvtar
