#include "runtime/base/ExtPtrArray.h"

#include <cstddef>
#include <new>

namespace morvane {

ExtPtrArray::~ExtPtrArray() { removeAllObjects(); }

bool ExtPtrArray::appendPtr(MorvaneObject* object) {
  try {
    m_objects.push_back(object);
    return true;
  } catch (const std::bad_alloc&) {
    if (m_ownsObjects) delete object;
    return false;
  }
}

MorvaneObject* ExtPtrArray::elementAt(int index) const {
  if (index < 0 || index >= getSize()) return nullptr;
  return m_objects[static_cast<size_t>(index)];
}

void ExtPtrArray::removeAllObjects() {
  if (m_ownsObjects) {
    for (MorvaneObject* object : m_objects) delete object;
  }
  m_objects.clear();
}

}  // namespace morvane
