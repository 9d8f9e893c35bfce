// An array of object pointers that deletes its elements.
#pragma once

#include <vector>

#include "runtime/base/MorvaneObject.h"

namespace morvane {

// Indices are 0-based. One thread at a time. Elements are pointers to the base, so that one array serves
// every record; who puts them in knows what they are. An object is the caller's until appendPtr is called.
class MORVANE_API ExtPtrArray {
 public:
  ExtPtrArray() = default;
  // Like removeAllObjects.
  ~ExtPtrArray();
  // A copy would have two owners.
  ExtPtrArray(const ExtPtrArray&) = delete;
  ExtPtrArray& operator=(const ExtPtrArray&) = delete;

  // Whether removing an element, or destroying the array, deletes the elements. On unless switched off. May
  // be switched at any time; what counts is how it stands when an element goes.
  void setOwnsObjects(bool owns) { m_ownsObjects = owns; }

  // Takes the object over. False, with the object deleted when the array owns, if there is no memory for the
  // slot.
  bool appendPtr(MorvaneObject* object);

  // The element at a 0-based index, null when the index is out of range. Still owned by the array. Valid
  // until the array is emptied.
  MorvaneObject* elementAt(int index) const;

  // Of elements, which 31 bits must hold.
  int getSize() const { return static_cast<int>(m_objects.size()); }
  // Deletes them if the array owns them, in the order in which they were added. Pointers that elementAt
  // gave are of no use afterwards, unless the array does not own.
  void removeAllObjects();

 private:
  // Plain pointers, because whether they are owned is settled while the array is in use.
  std::vector<MorvaneObject*> m_objects;
  bool m_ownsObjects = true;
};

}  // namespace morvane
