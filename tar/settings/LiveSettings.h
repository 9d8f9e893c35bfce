// A component's properties while a run goes on: a callback may set them, and what it sets holds from the next
// step on.
#pragma once

#include <functional>

#include "runtime/base/RelaxedAtomic.h"

namespace morvane {

// Belongs to one run, and so to one thread. The properties themselves may be set by any thread: the change
// count is what makes their new values visible here.
template <class Settings>
// A run holds values of its own, because a property that changes between two looks at it within one step
// would make that step contradict itself.
class LiveSettings {
 public:
  // `take` tells the properties as they are; `changes` counts how often any of them was set. Both must
  // outlive the object. `Settings` is a plain struct whose defaults are those of the component.
  LiveSettings(std::function<Settings()> take, const ChangeCount& changes)
      : m_take(std::move(take)), m_changes(changes) {}

  // As of the last refresh; every default before the first. The reference stays valid, and its contents the
  // same, until the next refresh that finds a change; views into them do not outlast it.
  const Settings& now() const { return m_settings; }
  // Takes the properties anew if any was set since the last time. True if so. Without a change it costs one
  // load of a counter, because it is asked at each header. Throws what `take` throws, and then holds what it
  // held.
  bool refresh() {
    // Read before the properties: what is set while they are taken is found by the next refresh.
    const unsigned changes = m_changes.now();
    if (m_taken && changes == m_changesTaken) return false;
    m_settings = m_take();
    // Only now: a run that failed here for lack of memory must not leave its settings to the next one.
    m_taken = true;
    m_changesTaken = changes;
    return true;
  }

 private:
  std::function<Settings()> m_take;
  // The component's.
  const ChangeCount& m_changes;
  // False until the first refresh has succeeded: the count may be 0 at that time.
  bool m_taken = false;
  // As it was in front of the properties that are held now.
  unsigned m_changesTaken = 0;
  Settings m_settings;
};

}  // namespace morvane
