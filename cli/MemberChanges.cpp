// The component lets hard links follow the new name of what they lead to, so that only the flag "H" of
// --transform needs anything done about them.
#include "cli/MemberChanges.h"

#include "cli/Dates.h"
#include "cli/MemberKind.h"
#include "runtime/progress/TarMember.h"

namespace mvtar {

namespace {

using Of = NameTransform::Of;

// Without the first `count` parts; empty when there are no more. Slashes in front are no part.
std::string withoutParts(const std::string& path, unsigned count) {
  size_t at = path.find_first_not_of('/');
  for (; count > 0 && at != std::string::npos; --count) {
    at = path.find('/', at);
    if (at != std::string::npos) at = path.find_first_not_of('/', at);
  }
  return at == std::string::npos ? std::string() : path.substr(at);
}

// Number and name together: readers go by the name first, so that the old name would win over the new number.
// With --numeric-owner the name is empty.
void give(const std::optional<GivenOwner>& owner, unsigned& id, std::string& name) {
  if (!owner) return;
  id = owner->id;
  name = owner->name;
}

}  // namespace

// The text of a symbolic link is a path of its own, and --transform changes it by the same expressions,
// unless the flag "S" says otherwise. --strip-components never concerns it.
void MemberChanges::changeLink(morvane::TarMember& member) const {
  if (member.typeFlag == kSymbolicLink) member.linkPath = transform.apply(member.linkPath, Of::SymbolicLink);
}

// The component shows the target of a hard link under the name that its first member was given here. To keep
// the old one ("H") it has to be put back, for which it is remembered by the new one.
void MemberChanges::applyWriting(morvane::TarMember& member) {
  if (!transform.isEmpty()) {
    const std::string before = member.path;
    member.path = transform.apply(member.path, Of::Name);
    changeLink(member);
    if (!transform.concerns(Of::HardLink)) {
      if (member.typeFlag != kHardLink) {
        m_before[member.path] = before;
      } else if (const auto found = m_before.find(member.linkPath); found != m_before.end()) {
        member.linkPath = found->second;
      }
    }
  }
  give(owner, member.uid, member.userName);
  give(group, member.gid, member.groupName);
  if (mode) member.mode = mode->apply(member.mode, member.typeFlag == kDirectory);
  if (!mtime) return;
  const timespec own{static_cast<time_t>(member.mtime), static_cast<long>(member.mtimeNanoseconds)};
  // With --clamp-mtime a time that is no later stays as it is.
  if (clampsTime && !isEarlier(*mtime, own)) return;
  member.mtime = mtime->tv_sec;
  member.mtimeNanoseconds = static_cast<unsigned>(mtime->tv_nsec);
}

// --strip-components counts the parts of the name that --transform made.
std::string MemberChanges::pathWhenReading(const std::string& path) const {
  const std::string changed = transform.apply(path, Of::Name);
  return stripComponents == 0 ? changed : withoutParts(changed, stripComponents);
}

std::string MemberChanges::hardLinkWhenReading(const std::string& target) const {
  return transform.isEmpty() || transform.concerns(Of::HardLink) ? pathWhenReading(target) : target;
}

// A target that is to keep its name is given in other words for the same path, because one that is the same
// as before follows the renaming.
void MemberChanges::applyReading(morvane::TarMember& member) const {
  if (!transform.isEmpty()) {
    changeLink(member);
    if (member.typeFlag == kHardLink && !transform.concerns(Of::HardLink))
      member.linkPath = "./" + member.linkPath;
  }
  member.path = pathWhenReading(member.path);
  member.skip = member.skip || member.path.empty();
}

}  // namespace mvtar
