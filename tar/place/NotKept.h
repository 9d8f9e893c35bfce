// What was asked for and could not be kept of the members that were made: said once for each kind, with the
// first member, and counted where it repeats.
#pragma once

#include <array>

#include "tar/place/MemberPath.h"

namespace morvane {

struct Io;

// Of one run. Nothing noted here fails anything by itself; whoever ends the run asks any(). One thread.
class NotKept {
 public:
  // Count is none, but how many there are.
  enum class Kind { Owner, Mode, Times, Attributes, Link, Device, Count };

  // Before a run, and behind the counts. Nothing is told.
  void clear() { m_counts = {}; }
  // `error` is the system's reason, 0 when it was none of the system's. The event hears "ownerNotKept" and so
  // on with the path; the log has the reason. Of members that are not there at all (Device) the event hears
  // each.
  void note(Kind kind, const XString& entryPath, int error, const Io& io);
  // At the end of a run: how many there were, where there were more than one ("ownersNotKept", "12").
  void tellCounts(const Io& io);
  // Whether anything was noted since clear(). finish() of the placer turns that into a member left out.
  bool any() const;

 private:
  std::array<long long, static_cast<size_t>(Kind::Count)> m_counts{};
};

}  // namespace morvane
