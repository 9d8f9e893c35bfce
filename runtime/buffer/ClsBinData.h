// Binary data that the library hands to the application, which makes the object and hands it to a method.
//
// The method appends: what was in it stays, and so does what came before a failure. Up to 4 GiB.
#pragma once

#include "runtime/buffer/DataBuffer.h"

namespace morvane {

// It owns the bytes, and is not copied. One thread at a time, and no method may be filling it meanwhile. A
// method that takes it fails where the bytes have no room, and throws nothing.
class ClsBinData {
 public:
  // The buffer itself: what is appended to it is appended to the data.
  DataBuffer& data() { return m_data; }
  const DataBuffer& data() const { return m_data; }

 private:
  DataBuffer m_data;
};

}  // namespace morvane
