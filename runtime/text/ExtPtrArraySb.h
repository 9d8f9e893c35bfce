// An array of StringBuffers that deletes its elements.
#pragma once

#include "runtime/base/ExtPtrArray.h"
#include "runtime/text/StringBuffer.h"

namespace morvane {

// ExtPtrArray with the type put in and out again. One thread at a time.
class ExtPtrArraySb {
 public:
  // Whether buffers are deleted when they are removed or the array goes. On unless switched off.
  void setOwnsObjects(bool owns) { m_array.setOwnsObjects(owns); }
  // Takes the buffer over, also when it fails for lack of memory (the buffer is deleted then). True when it
  // has been added. Not null.
  bool appendSb(StringBuffer* sb) { return m_array.appendPtr(sb); }
  // The buffer at a 0-based index, null when the index is out of range. Still owned by the array.
  StringBuffer* sbAt(int index) const { return static_cast<StringBuffer*>(m_array.elementAt(index)); }
  // How many there are.
  int getSize() const { return m_array.getSize(); }
  // Pointers that sbAt gave are of no use behind it.
  void removeAllSbs() { m_array.removeAllObjects(); }

 private:
  // Its elements are StringBuffers and nothing else.
  ExtPtrArray m_array;
};

}  // namespace morvane
