// An array that takes objects over. It reports missing memory by its result, because what is handed over must
// end in good hands on every path: in the array, or deleted.
#include "runtime/base/ExtPtrArray.h"

#include <cstddef>
#include <new>

namespace morvane {

// Elements are deleted through the base, whose destructor is virtual.
ExtPtrArray::~ExtPtrArray() { removeAllObjects(); }

// push_back leaves the array as it was when it throws. Nothing else can go wrong with a pointer, so only
// std::bad_alloc is caught.
bool ExtPtrArray::appendPtr(MorvaneObject* object) {
  try {
    m_objects.push_back(object);
    return true;
  } catch (const std::bad_alloc&) {
    if (m_ownsObjects) delete object;
    return false;
  }
}

// The sign is looked at first: as an unsigned number a negative index would be a very large one.
MorvaneObject* ExtPtrArray::elementAt(int index) const {
  if (index < 0 || index >= getSize()) return nullptr;
  return m_objects[static_cast<size_t>(index)];
}

// The slots' memory stays for the next objects.
void ExtPtrArray::removeAllObjects() {
  if (m_ownsObjects) {
    for (MorvaneObject* object : m_objects) delete object;
  }
  m_objects.clear();
}

}  // namespace morvane
