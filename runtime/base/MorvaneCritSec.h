// The lock of a component object, and the scope object that holds it.
#pragma once

#include <mutex>

namespace morvane {

// Recursive, because a callback that runs inside a method may read and set the properties of the same
// object. A component derives from it, so that the object is its own lock. Who holds it and calls the
// application may be called back by the same thread, never by another one. Waiting has no limit, and no
// order is kept among those who wait.
class MorvaneCritSec {
 public:
  // Waits until no other thread holds it. As often as it was entered it has to be left.
  void enter() { m_mutex.lock(); }
  void leave() { m_mutex.unlock(); }

 private:
  // Its own count says how often the holder has entered.
  std::recursive_mutex m_mutex;
};

// Holds the lock for the block in which it stands:
//   CritSecExitor lock(*this);
// Exceptions release it too. It cannot be moved, so that the lock is held for exactly the block that one
// sees.
class CritSecExitor {
 public:
  // The lock must outlive the scope.
  explicit CritSecExitor(MorvaneCritSec& critSec) : m_critSec(critSec) { m_critSec.enter(); }
  ~CritSecExitor() { m_critSec.leave(); }
  CritSecExitor(const CritSecExitor&) = delete;
  CritSecExitor& operator=(const CritSecExitor&) = delete;

 private:
  // Not owned.
  MorvaneCritSec& m_critSec;
};

}  // namespace morvane
