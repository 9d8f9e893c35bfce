// A member as the event's onTarMember shows it, and back.
#pragma once

#include <string>

namespace morvane {

struct Member;
struct TarMember;

// `path` is what the member is called in the archive or below the target; a directory's loses its slashes at
// the end. What the event is told beside the member itself (writing, localPath) is the caller's to set. The
// texts of `shown` are used again. Throws std::bad_alloc only.
void showMember(const Member& member, const std::string& path, TarMember& shown);

// An id as the events' 32 bits have it: what is more stops at 4294967295.
unsigned shownId(long long id);

// Puts what the event left into the member, but for the path, which has rules of its own in each direction.
// Mode is cut to its lower twelve bits, nanoseconds to less than a second. Whether the texts fit the format
// is asked when the member is written.
void takeShown(const TarMember& shown, Member& member);

}  // namespace morvane
