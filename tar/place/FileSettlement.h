// What an ordinary file gets when it is closed, worked out beforehand: whoever sets it looks nothing up and
// notes nothing, and so may be any thread.
#pragma once

#include <ctime>

namespace morvane {

// Plain values. MetadataRestorer makes one of a member, where it has nothing out of the ordinary.
struct FileSettlement {
  bool setsOwner = false, setsMode = false, setsTimes = false;
  unsigned uid = 0, gid = 0;
  unsigned mode = 0;
  timespec access{}, modification{};

  // Owner, mode, times, in this order, each only where it is not so already. False when any of it fails; what
  // was set stays.
  bool apply(int fd) const;
};

}  // namespace morvane
