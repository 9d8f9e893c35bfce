// Binary data that the library hands to the application.
#pragma once

#include "runtime/buffer/DataBuffer.h"

namespace morvane {

// It owns the bytes. One thread at a time.
class ClsBinData {
 public:
  // The buffer itself: what is appended to it is appended to the data.
  DataBuffer& data() { return m_data; }
  const DataBuffer& data() const { return m_data; }

 private:
  DataBuffer m_data;
};

}  // namespace morvane
