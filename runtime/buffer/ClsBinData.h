// Binary data that the library hands to the application.
#pragma once

#include "runtime/buffer/DataBuffer.h"

namespace morvane {

// It owns the bytes. One thread at a time.
class ClsBinData {
 public:
  DataBuffer& data() { return m_data; }
  const DataBuffer& data() const { return m_data; }

 private:
  DataBuffer m_data;
};

}  // namespace morvane
