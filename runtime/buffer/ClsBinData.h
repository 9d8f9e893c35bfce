// Binary data that the library hands to the application.
#pragma once

#include "runtime/buffer/DataBuffer.h"

namespace morvane {

class ClsBinData {
 public:
  DataBuffer& data() { return m_data; }
  const DataBuffer& data() const { return m_data; }

 private:
  DataBuffer m_data;
};

}  // namespace morvane
